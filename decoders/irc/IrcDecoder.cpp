// IRC: a client that registers (NICK and USER, after PASS or CAP if it
// likes), or a server that welcomes it (numeric 001). Reports the nickname
// ("irc.nick") and the client's first four commands after registering
// ("irc.command": JOIN, PRIVMSG, ..., in capitals as IRC reads them).
#include <kest/kit/LineDecoder.h>

namespace {

using namespace oru::kit;

struct IrcRules {
  static constexpr Spec kSpec{
      .plugin = "irc",
      .module = MODULE_IRC,
      .protocols = {"IRC"},
      // One note per command reported, all of one name.
      .attributes = {"irc.nick", "irc.command", "irc.command", "irc.command", "irc.command"},
      .tcp = true,
      .tcp_ports = {6667, 6697}};
  static constexpr uint32_t kMaxLine = 511; // 512 bytes with CR LF
  static constexpr uint32_t kMaxLines = 32;
  static constexpr uint8_t kCommands = 4;
  struct State {
    uint8_t registered; // bit 1: NICK, bit 2: USER
    uint8_t commands;   // reported so far
  };
  static constexpr const char *kFirst[] = {"NICK", "USER", "PASS", "CAP", nullptr};

  static bool Opening(State &, unsigned side, const char *bytes, uint32_t n) {
    return side == 0 ? MayOpenWithAny(bytes, n, kFirst) : side == 1 && bytes[0] == ':';
  }

  static unsigned Line(State &st, auto &notes, unsigned side, const char *text, uint32_t length,
                       uint32_t) {
    uint32_t word = 0; // the first word: a command, or a server's prefix
    while (word < length && text[word] != ' ') {
      ++word;
    }
    if (side == 1) { // ":server 001 nick :Welcome ..." names it
      const TextSpan rest = Rest(text, length, word);
      return HasPrefix(rest.text, rest.length, "001 ") ? LINE_MINE : LINE_GO_ON;
    }
    const int first = CommandIndex(text, length, kFirst);
    if (first == 0) {
      notes.Set(0, Rest(text, length, 5));
    }
    st.registered |= first == 0 ? 2 : first == 1 ? 4 : 0;
    if (st.registered == 6 && first < 0) {
      char command[16];
      const uint32_t n = word < sizeof command ? word : sizeof command;
      for (uint32_t k = 0; k < n; ++k) {
        command[k] = text[k] >= 'a' && text[k] <= 'z' ? static_cast<char>(text[k] - 32) : text[k];
      }
      notes.Set(1 + st.commands, command, n);
      return ++st.commands == kCommands ? LINE_MINE | LINE_DONE : LINE_MINE;
    }
    return st.registered == 6 ? LINE_MINE : first < 0 ? LINE_NOT_MINE : LINE_GO_ON;
  }
};

} // namespace

KEST_LINE_DECODER(IrcRules)
