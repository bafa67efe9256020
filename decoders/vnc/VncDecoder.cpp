// VNC (the RFB protocol) on any port, by the version line each side sends
// first, "RFB 003.008\n" (the server speaks first). A side's line reports
// "vnc.version" ("3.8"); the security type then agreed reports
// "vnc.security": the one the client picks from the server's list (3.7 and
// later), or the one the server decides (3.3).
#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>

namespace {

using namespace oru::kit;

struct Vnc {
  static constexpr Spec kSpec{.plugin = "vnc",
                              .module = MODULE_VNC,
                              .protocols = {"VNC"},
                              .attributes = {"vnc.version", "vnc.security"},
                              .tcp = true,
                              .tcp_ports = {5900, 5901}};
  struct State {
    char line[2][12];
    uint8_t have[2];
    // 1 + the side that spoke first, the server.
    uint8_t server;
    // The server listed its security types (3.7 and later).
    bool listed;
    // 3.3: the server's four-byte type, as far as it came.
    uint8_t type_have;
    uint32_t type;
  };

  static bool Fits(char c, uint32_t at) {
    const char pattern = "RFB ddd.ddd\n"[at];
    return pattern == 'd' ? c >= '0' && c <= '9' : c == pattern;
  }

  // Types are one byte; a 3.3 server's four-byte one beyond that is not
  // reported.
  static void Security(Session<Vnc> &s, uint32_t type) {
    if (type > 255) {
      return;
    }
    static constexpr CodeName kNames[] = {{0, "invalid"},   {1, "none"},   {2, "vnc-auth"},
                                          {16, "tight"},    {17, "ultra"}, {18, "tls"},
                                          {19, "vencrypt"}, {20, "sasl"},  {30, "apple"}};
    char digits[10];
    const TextSpan name = NameOrNumber(kNames, type, digits);
    s.Publish(1, name.text, name.length);
  }

  static bool Opening(unsigned, ByteReader first) {
    return Fits(static_cast<char>(first.Peek()), 0);
  }

  static Verdict Feed(Session<Vnc> &s, ByteReader r) {
    State &st = s.state();
    const unsigned side = s.side();
    st.server = st.server != 0 ? st.server : static_cast<uint8_t>(1 + side);
    const bool server = st.server == 1 + side;
    while (st.have[side] < 12 && !r.Empty()) {
      const char c = static_cast<char>(r.U8());
      if (!Fits(c, st.have[side])) {
        return s.named() ? Verdict::kDone : Verdict::kNotMine;
      }
      st.line[side][st.have[side]++] = c;
      if (st.have[side] == 12) {
        if (!s.Name()) {
          return Verdict::kNotMine;
        }
        const char *l = st.line[side];
        // "003.008" as "3.8": the numbers without their leading zeros.
        char text[8];
        uint32_t n = 0;
        for (int at : {4, 8}) {
          int i = at;
          while (i < at + 2 && l[i] == '0') {
            ++i;
          }
          while (i < at + 3) {
            text[n++] = l[i++];
          }
          text[n++] = '.';
        }
        s.Publish(0, text, n - 1);
      }
    }
    if (st.have[0] < 12 || st.have[1] < 12 || r.Empty()) {
      return Verdict::kNeedMore;
    }
    // The client answers with the version both then speak, at most the
    // server's.
    const char *version = st.line[st.server == 1 ? 1 : 0];
    const bool v33 = version[6] == '3' && version[10] < '7';
    if (server && v33) {
      while (st.type_have < 4 && !r.Empty()) {
        st.type = st.type << 8 | r.U8();
        ++st.type_have;
      }
      if (st.type_have < 4) {
        return Verdict::kNeedMore;
      }
      Security(s, st.type);
      return Verdict::kDone;
    }
    if (server) {
      st.listed = r.U8() != 0;
      return st.listed ? Verdict::kNeedMore : Verdict::kDone;
    }
    if (st.listed) {
      Security(s, r.U8());
      return Verdict::kDone;
    }
    return Verdict::kNeedMore;
  }
};

} // namespace

KEST_DECODER(Vnc)
