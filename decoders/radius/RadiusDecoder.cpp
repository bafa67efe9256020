// RADIUS over UDP, by its packet on any port: a known code, a length of 20
// to 4096 bytes within the datagram (what lies behind it is padding), the
// 16-byte authenticator, then attributes that fill the length exactly, each
// of at least 2 bytes. A request carries at least one attribute. Each packet
// reports "radius.code" (by name) and its User-Name as "radius.user_name".
#include <kest/kit/Decoder.h>

namespace {

using namespace oru::kit;

struct Radius {
  static constexpr Spec kSpec{.plugin = "radius",
                              .module = MODULE_RADIUS,
                              .protocols = {"RADIUS"},
                              .attributes = {"radius.code", "radius.user_name"},
                              .udp = true,
                              .udp_ports = {1812, 1813, 1645, 1646, 3799}};
  struct State {};

  static const char *CodeName(uint32_t code, bool &request) {
    static constexpr struct {
      uint8_t code;
      bool request;
      const char *name;
    } kCodes[] = {{1, true, "access-request"},
                  {2, false, "access-accept"},
                  {3, false, "access-reject"},
                  {4, true, "accounting-request"},
                  {5, false, "accounting-response"},
                  {11, false, "access-challenge"},
                  {12, true, "status-server"},
                  {40, true, "disconnect-request"},
                  {41, false, "disconnect-ack"},
                  {42, false, "disconnect-nak"},
                  {43, true, "coa-request"},
                  {44, false, "coa-ack"},
                  {45, false, "coa-nak"}};
    for (const auto &known : kCodes) {
      if (known.code == code) {
        request = known.request;
        return known.name;
      }
    }
    return nullptr;
  }

  static Verdict Feed(Session<Radius> &s, ByteReader r) {
    bool request = false;
    const char *code = CodeName(r.U8(), request);
    r.U8(); // identifier
    const uint32_t length = r.U16();
    ByteReader attributes = r.Sub(length >= 20 && length <= 4096 ? length - 4 : r.Left() + 1);
    attributes.Skip(16);
    ByteReader user;
    uint32_t count = 0;
    while (attributes.Ok() && !attributes.Empty()) {
      const uint32_t type = attributes.U8();
      const uint32_t size = attributes.U8();
      ByteReader value = attributes.Sub(size >= 2 ? size - 2 : attributes.Left() + 1);
      user = type == 1 && user.Empty() ? value : user;
      ++count;
    }
    if (code == nullptr || !attributes.Ok() || (request && count == 0)) {
      return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    s.Publish(0, code);
    if (user.Left() != 0) {
      s.Publish(1, reinterpret_cast<const char *>(user.Here()), user.Left());
    }
    return Verdict::kNamed;
  }
};

} // namespace

KEST_DECODER(Radius)
