// NTP (and SNTP, its simple subset) over UDP, by its 48-byte header on any
// port: version 1 to 4, an association mode of 1 to 5 (symmetric, client,
// server, broadcast), a stratum of at most 16, a poll exponent of at most
// 17, a precision between 2^-32 and 1 s, root delay and dispersion below
// 256 s, and a transmit time set. Control (6) and private (7) messages have
// other layouts and are not read. Each message reports "ntp.version",
// "ntp.mode" and "ntp.stratum".
#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>

namespace {

using namespace oru::kit;

struct Ntp {
  static constexpr Spec kSpec{.plugin = "ntp",
                              .module = MODULE_NTP,
                              .protocols = {"NTP"},
                              .attributes = {"ntp.version", "ntp.mode", "ntp.stratum"},
                              .udp = true,
                              .udp_ports = {123}};
  struct State {};

  static constexpr size_t kHeader = 48;
  // The header, a key identifier and the longest digest; extension fields
  // (NTPv4) make longer messages, which are rare enough to be left out.
  static constexpr size_t kLongest = kHeader + 4 + 64;

  static bool Header(ByteReader r, uint32_t &version, uint32_t &mode, uint32_t &stratum) {
    const uint32_t first = r.U8();
    version = first >> 3 & 7;
    mode = first & 7;
    stratum = r.U8();
    const uint32_t poll = r.U8();
    const int8_t precision = static_cast<int8_t>(r.U8());
    const uint32_t root_delay = r.U32();
    const uint32_t root_dispersion = r.U32();
    r.Skip(28);
    const uint64_t transmit = r.U64();
    return r.Ok() && version >= 1 && version <= 4 && mode >= 1 && mode <= 5 && stratum <= 16 &&
           poll <= 17 && precision <= 0 && precision >= -32 && root_delay >> 24 == 0 &&
           root_dispersion >> 24 == 0 && transmit != 0;
  }

  static void Report(Session<Ntp> &s, int attribute, uint32_t value) {
    char text[10];
    s.Publish(attribute, text, FormatDecimal(value, text));
  }

  static Verdict Feed(Session<Ntp> &s, ByteReader r) {
    uint32_t version = 0, mode = 0, stratum = 0;
    if (r.Left() < kHeader || r.Left() > kLongest || !Header(r, version, mode, stratum)) {
      return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    Report(s, 0, version);
    Report(s, 1, mode);
    Report(s, 2, stratum);
    return Verdict::kNamed;
  }
};

} // namespace

KEST_DECODER(Ntp)
