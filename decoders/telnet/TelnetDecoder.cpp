// Telnet on any port, by its option negotiation: the first side to speak
// opens with IAC and WILL, WONT, DO or DONT, and what follows on either side
// is text and well-formed commands (IAC and a verb, subnegotiations ended by
// IAC SE). The options negotiated, each once in order of appearance, report
// "telnet.options" (by name, or number), eight at most; the first 1024 bytes
// of each side are read.
//
// A login in clear raises clear_text_credentials: the server's text holds
// a prompt ("login:" or "password:", any case) and the client then sends
// text (a visible character outside commands) within those bytes.
#include <kest/kit/Decoder.h>
#include <kest/kit/Risks.h>
#include <kest/kit/TextLine.h>

namespace {

using namespace oru::kit;

struct Telnet {
  static constexpr Spec kSpec{.plugin = "telnet",
                              .module = MODULE_TELNET,
                              .protocols = {"Telnet"},
                              .attributes = {"telnet.options"},
                              .borrowed = {kRiskAttribute},
                              .tcp = true,
                              .tcp_ports = {23}};
  static constexpr uint32_t kMaxOptions = 8;
  static constexpr uint32_t kReadBytes = 1024;
  enum : uint8_t { kText, kIac, kVerb, kSub, kSubIac };
  struct State {
    uint8_t at[2];
    uint32_t read[2];
    uint8_t seen[32]; // a bit per option reported
    uint8_t reported;
    // How far the server's text has matched each prompt; whether one was
    // seen, and the risk raised.
    uint8_t matched[2];
    uint8_t prompted;
    uint8_t raised;
  };

  static constexpr const char *kPrompts[2] = {"login:", "password:"};

  // A text byte of either side, for the login rule.
  static void Text(Session<Telnet> &s, unsigned side, uint32_t c) {
    State &st = s.state();
    if (st.raised != 0) {
      return;
    }
    if (side == 0) {
      if (st.prompted != 0 && c > 0x20 && c < 0x7f) {
        st.raised = 1;
        Raise(s, Risk::kClearTextCredentials);
      }
      return;
    }
    const char folded = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    for (int i = 0; i < 2; ++i) {
      // No prompt repeats its first letter, so a mismatch restarts simply.
      uint8_t &m = st.matched[i];
      m = folded == kPrompts[i][m] ? m + 1 : folded == kPrompts[i][0] ? 1 : 0;
      if (kPrompts[i][m] == 0) {
        st.prompted = 1;
        m = 0;
      }
    }
  }

  static void Report(Session<Telnet> &s, uint32_t option) {
    State &st = s.state();
    if ((st.seen[option >> 3] >> (option & 7) & 1) != 0 || st.reported == kMaxOptions) {
      return;
    }
    st.seen[option >> 3] |= static_cast<uint8_t>(1 << (option & 7));
    ++st.reported;
    static constexpr CodeName kNames[] = {{0, "binary"},
                                          {1, "echo"},
                                          {3, "suppress-go-ahead"},
                                          {5, "status"},
                                          {6, "timing-mark"},
                                          {24, "terminal-type"},
                                          {31, "window-size"},
                                          {32, "terminal-speed"},
                                          {33, "remote-flow-control"},
                                          {34, "linemode"},
                                          {35, "x-display"},
                                          {36, "environ"},
                                          {37, "authentication"},
                                          {38, "encryption"},
                                          {39, "new-environ"}};
    char digits[10];
    const TextSpan name = NameOrNumber(kNames, option, digits);
    s.Publish(0, name.text, name.length);
  }

  static bool Opening(unsigned, ByteReader first) { return first.Peek() == 255; }

  static Verdict Feed(Session<Telnet> &s, ByteReader r) {
    State &st = s.state();
    const unsigned side = s.side();
    // The first to speak negotiates at once: IAC and a verb.
    if (st.read[0] + st.read[1] == 0 && r.Peek(0) != 255) {
      return Verdict::kNotMine;
    }
    uint8_t &at = st.at[side];
    while (!r.Empty() && st.read[side] < kReadBytes) {
      const uint32_t c = r.U8();
      ++st.read[side];
      if (at == kText && c != 255) {
        Text(s, side, c);
      }
      if (at == kText || at == kSub) {
        at = c == 255 ? at + 1 : at;
      } else if (at == kIac && !s.named() && (c < 251 || c > 254)) {
        return Verdict::kNotMine;
      } else if (at == kIac) { // WILL WONT DO DONT take an option; SB opens
        at = c >= 251 && c <= 254 ? kVerb : c == 250 ? kSub : c >= 240 ? kText : 0xff;
      } else if (at == kVerb) {
        if (!s.Name()) {
          return Verdict::kNotMine;
        }
        Report(s, c);
        at = kText;
      } else if (at == kSubIac) { // IAC IAC inside stays; IAC SE ends
        at = c == 255 ? kSub : c == 240 ? kText : 0xff;
      }
      if (at == 0xff) {
        return s.named() ? Verdict::kDone : Verdict::kNotMine;
      }
    }
    const bool done = st.read[0] >= kReadBytes && st.read[1] >= kReadBytes;
    // Past the options, the login is still read for, within the bytes.
    return done || (st.reported == kMaxOptions && st.raised != 0) ? Verdict::kDone
                                                                  : Verdict::kNeedMore;
  }
};

} // namespace

KEST_DECODER(Telnet)
