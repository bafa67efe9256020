// AMQP on any port, by the protocol header a client sends first: "AMQP"
// and four bytes that name a version of 0-8, 0-9, 0-9-1, 0-10 or 1.0 (1.0
// in its plain, TLS and SASL layers). A 1.0 server answers with a header
// too, and a server that does not speak the client's version answers with
// its own before it closes: each side's header reports "amqp.version"
// ("0-9-1", "1.0", "1.0-sasl", "1.0-tls"). A 0-9-1 server answers with
// Connection.Start instead, which also names AMQP when the client's header
// was not seen (a capture that begins late): a method frame on channel 0,
// class 10, method 10, version 0-9.
//
// Nothing behind the headers is read: frames, SASL and the TLS a "1.0-tls"
// header announces are left alone.
#include <kest/kit/Decoder.h>

namespace {

using namespace oru::kit;

struct Amqp {
  static constexpr Spec kSpec{.plugin = "amqp",
                              .module = MODULE_AMQP,
                              .protocols = {"AMQP"},
                              .attributes = {"amqp.version"},
                              .tcp = true,
                              .tcp_ports = {5672}};
  // The bytes a side's opening is judged on: a header, or the start of
  // Connection.Start (frame header and the method's first four bytes).
  static constexpr uint32_t kOpening = 13;

  struct State {
    uint8_t bytes[2][kOpening];
    uint8_t have[2];
    bool done[2];
  };
  using S = Session<Amqp>;

  struct Version {
    uint8_t tail[4];
    const char *text;
  };
  static constexpr Version kVersions[] = {
      {{0, 0, 9, 1}, "0-9-1"},   {{0, 1, 0, 0}, "1.0"},   {{3, 1, 0, 0}, "1.0-sasl"},
      {{2, 1, 0, 0}, "1.0-tls"}, {{1, 1, 0, 9}, "0-9"},   {{1, 1, 9, 1}, "0-9-1"},
      {{1, 1, 8, 0}, "0-8"},     {{1, 1, 0, 10}, "0-10"}, {{0, 0, 9, 0}, "0-9"}};

  static bool Opening(unsigned, ByteReader first) {
    return first.Peek() == 'A' || first.Peek() == 1;
  }

  static Verdict Feed(S &s, ByteReader r) {
    State &st = s.state();
    const unsigned side = s.side();
    if (st.done[side]) {
      return Verdict::kNeedMore;
    }
    uint8_t *bytes = st.bytes[side];
    while (st.have[side] < kOpening && !r.Empty()) {
      const uint8_t b = static_cast<uint8_t>(r.U8());
      bytes[st.have[side]++] = b;
      // "AMQP" or a method frame on channel 0 (type 1, channel 0).
      const uint8_t at = st.have[side] - 1;
      const bool header = bytes[0] == 'A' && (at >= 4 || b == "AMQP"[at]);
      const bool frame = bytes[0] == 1 && (at == 0 || at > 2 || b == 0);
      if (!header && !frame) {
        return Leave(s, side);
      }
      if (header && st.have[side] == 8) {
        return Header(s, side);
      }
    }
    if (st.have[side] < kOpening) {
      return Verdict::kNeedMore;
    }
    // Connection.Start: size, then class 10, method 10, version 0-9.
    ByteReader f(bytes, kOpening);
    f.Skip(3);
    const uint32_t size = f.U32();
    const uint32_t klass = f.U16();
    const uint32_t method = f.U16();
    const uint32_t major = f.U8();
    const uint32_t minor = f.U8();
    if (size < 6 || size > 0x100000 || klass != 10 || method != 10 || major != 0 || minor != 9) {
      return Leave(s, side);
    }
    st.done[side] = true;
    if (!s.named()) {
      if (!s.Name()) {
        return Verdict::kNotMine;
      }
      s.Publish(0, "0-9-1");
    }
    return Verdict::kDone;
  }

  static Verdict Header(S &s, unsigned side) {
    State &st = s.state();
    st.done[side] = true;
    const uint8_t *tail = st.bytes[side] + 4;
    for (const Version &v : kVersions) {
      if (tail[0] == v.tail[0] && tail[1] == v.tail[1] && tail[2] == v.tail[2] &&
          tail[3] == v.tail[3]) {
        if (!s.Name()) {
          return Verdict::kNotMine;
        }
        s.Publish(0, v.text);
        // Both sides heard from: nothing more to learn.
        return st.done[1 - side] ? Verdict::kDone : Verdict::kNeedMore;
      }
    }
    return Leave(s, side);
  }

  // A side that opens otherwise: not AMQP, unless the other side named it.
  static Verdict Leave(S &s, unsigned side) {
    s.state().done[side] = true;
    return s.named() ? Verdict::kDone : Verdict::kNotMine;
  }
};

} // namespace

KEST_DECODER(Amqp)
