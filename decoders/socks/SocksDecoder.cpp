// SOCKS 4, 4a and 5 on any port, by the client's first messages and the
// proxy's answers: a SOCKS 4 request (command, port, address, user id, and
// for 4a a host name) and its 8-byte reply; a SOCKS 5 greeting and method
// choice, the user name and password exchange when chosen, then the request
// and its reply. A request reports "socks.version" ("4", "4a", "5") and
// "socks.destination" ("host:port"); once the proxy grants a connection the
// stream behind is the destination's, handed on under chameleon for the
// other decoders.
#include <kest/kit/AddressText.h>
#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>

#include <string.h>

namespace {

using namespace oru::kit;

struct Socks {
  static constexpr Spec kSpec{.plugin = "socks",
                              .module = MODULE_SOCKS,
                              .protocols = {"SOCKS"},
                              .attributes = {"socks.version", "socks.destination"},
                              .tcp = true,
                              .tcp_ports = {1080}};
  static constexpr uint32_t kRoom = 300;
  struct State {
    uint8_t bytes[2][kRoom];
    uint32_t have[2];
    uint8_t step[2]; // messages taken from each side
    uint8_t version;
    uint8_t method; // SOCKS 5: the method the proxy chose
  };
  static constexpr int kMore = -1;
  static constexpr int kBad = -2;

  // Appends ":port" to `text` at `length`.
  static uint32_t Port(char *text, uint32_t length, uint32_t port) {
    text[length++] = ':';
    return length + FormatDecimal(port, text + length);
  }

  // A zero-ended text at `r` of at most 255 bytes: its length, or kMore.
  static int Zero(ByteReader r) {
    for (int n = 0; n < 256; ++n) {
      if (r.Left() <= static_cast<size_t>(n)) {
        return kMore;
      }
      if (r.Peek(static_cast<size_t>(n)) == 0) {
        return n;
      }
    }
    return kBad;
  }

  // The length of SOCKS 5's address at `r` (type, address, port), or kMore,
  // or kBad; writes "host:port" into `text` when whole.
  static int Address5(ByteReader r, char *text, uint32_t &length) {
    const uint32_t type = r.U8();
    const uint32_t size = type == 1 ? 4 : type == 4 ? 16 : type == 3 ? 1 + r.Peek() : 0;
    if (size == 0 || (type == 3 && r.Left() == 0)) {
      return r.Ok() || r.Left() == 0 ? (size == 0 && r.Ok() ? kBad : kMore) : kBad;
    }
    if (r.Left() < size + 2) {
      return kMore;
    }
    const uint8_t *a = r.Here();
    length = type == 1   ? FormatIpv4(a, text)
             : type == 4 ? FormatIpv6(a, text)
                         : (memcpy(text, a + 1, size - 1), size - 1);
    const uint32_t port = static_cast<uint32_t>(a[size]) << 8 | a[size + 1];
    length = Port(text, length, port);
    return static_cast<int>(1 + size + 2);
  }

  // The next message of `side`, given the messages before it: its length,
  // kMore or kBad. Publishes what a request says; may hand on.
  static int Take(Session<Socks> &s, State &st, unsigned side, ByteReader r) {
    if (r.Empty()) {
      return kMore;
    }
    const bool client = side == 0;
    const uint32_t step = st.step[side];
    if (client && step == 0) { // SOCKS 4 request, or SOCKS 5 greeting
      st.version = static_cast<uint8_t>(r.Peek());
      if (st.version == 5) {
        const uint32_t methods = r.Peek(1);
        return r.Left() < 2 || r.Left() < 2 + methods ? kMore : methods == 0 ? kBad : 2 + methods;
      }
      if (st.version != 4 || r.Left() < 9) {
        return st.version != 4 ? kBad : kMore;
      }
      const uint32_t command = r.Peek(1);
      ByteReader rest(r.Here() + 8, r.Left() - 8);
      const int user = Zero(rest);
      const bool named_host = r.Peek(4) == 0 && r.Peek(5) == 0 && r.Peek(6) == 0 && r.Peek(7) != 0;
      ByteReader after(rest.Here() + user + 1, user >= 0 ? rest.Left() - user - 1 : 0);
      const int host = named_host && user >= 0 ? Zero(after) : 0;
      if (command < 1 || command > 2 || user == kBad || host == kBad) {
        return kBad;
      }
      if (user == kMore || host == kMore) {
        return kMore;
      }
      char text[280];
      uint32_t length = named_host ? static_cast<uint32_t>(host) : FormatIpv4(r.Here() + 4, text);
      if (named_host) {
        memcpy(text, after.Here(), length);
      }
      length = Port(text, length, r.Peek(2) << 8 | r.Peek(3));
      if (!s.Name()) {
        return kBad;
      }
      s.Publish(0, named_host ? "4a" : "4");
      s.Publish(1, text, length);
      return 8 + user + 1 + (named_host ? host + 1 : 0);
    }
    if (!client && st.version == 4 && step == 0) { // the reply
      if (r.Left() < 8) {
        return kMore;
      }
      if (r.Peek() != 0 || r.Peek(1) < 90 || r.Peek(1) > 93) {
        return kBad;
      }
      if (r.Peek(1) == 90) {
        s.HandOn();
      }
      return 8;
    }
    if (!client && st.version == 5 && step == 0) { // the method chosen
      if (r.Left() < 2) {
        return kMore;
      }
      st.method = static_cast<uint8_t>(r.Peek(1));
      return r.Peek() == 5 && (st.method <= 2 || st.method == 0xff) ? 2 : kBad;
    }
    const bool password = st.method == 2;
    if (st.version == 5 && password && step == 1) { // user name and password, then status
      if (!client) {
        return r.Left() < 2 ? kMore : r.Peek() == 1 ? 2 : kBad;
      }
      const uint32_t user = r.Peek(1);
      const uint32_t pass = r.Left() > 2 + user ? r.Peek(2 + user) : 0;
      return r.Left() < 3 + user + pass ? kMore
             : r.Peek() == 1            ? static_cast<int>(3 + user + pass)
                                        : kBad;
    }
    if (st.version == 5 && step == (password ? 2 : 1)) { // request and reply
      if (r.Left() < 4) {
        return kMore;
      }
      const bool ok = r.Peek() == 5 && r.Peek(2) == 0 &&
                      (client ? r.Peek(1) >= 1 && r.Peek(1) <= 3 : r.Peek(1) <= 8);
      char text[280];
      uint32_t length = 0;
      const int address =
          ok ? Address5(ByteReader(r.Here() + 3, r.Left() - 3), text, length) : kBad;
      if (address < 0) {
        return address;
      }
      if (client) {
        if (!s.Name()) {
          return kBad;
        }
        s.Publish(0, "5");
        s.Publish(1, text, length);
      } else if (r.Peek(1) == 0) {
        s.HandOn();
      }
      return 3 + address;
    }
    return kBad; // nothing more is expected of this side
  }

  // The client speaks first, with its version.
  static bool Opening(unsigned side, ByteReader first) {
    return side == 0 && (first.Peek() == 4 || first.Peek() == 5);
  }

  static Verdict Feed(Session<Socks> &s, ByteReader r) {
    State &st = s.state();
    const unsigned side = s.side();
    if (st.step[0] == 0 && side != 0) {
      return Verdict::kNotMine; // the client speaks first
    }
    while (!r.Empty()) {
      const uint32_t room = kRoom - st.have[side];
      const uint32_t take = static_cast<uint32_t>(r.Left() < room ? r.Left() : room);
      memcpy(st.bytes[side] + st.have[side], r.Here(), take);
      st.have[side] += take;
      r.Skip(take);
      for (;;) {
        const int n = Take(s, st, side, ByteReader(st.bytes[side], st.have[side]));
        if (n == kBad || (n == kMore && st.have[side] == kRoom)) {
          return s.named() ? Verdict::kDone : Verdict::kNotMine;
        }
        if (n == kMore) {
          break;
        }
        memmove(st.bytes[side], st.bytes[side] + n, st.have[side] - n);
        st.have[side] -= static_cast<uint32_t>(n);
        ++st.step[side];
      }
    }
    return Verdict::kNeedMore;
  }
};

} // namespace

KEST_DECODER(Socks)
