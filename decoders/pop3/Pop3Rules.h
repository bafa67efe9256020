// POP3: a "+OK" greeting is common to many text services, so it names POP3
// only when it says POP; otherwise the client must send a POP3 command
// (QUIT and NOOP do not count) and the server answer it with +OK or -ERR.
// With only the client's side in view, two commands, one of them POP3's own
// (not shared with FTP), are enough. STLS answered +OK turns the connection
// to TLS; it may only come before the client logs in, so a command of the
// logged-in client (LIST, RETR, STAT...) ends the watch for it.
#ifndef KEST_DECODERS_POP3RULES_H
#define KEST_DECODERS_POP3RULES_H

#include <kest/kit/LineDecoder.h>

namespace kest_decoders {

using namespace oru::kit;

struct Pop3Rules {
  static constexpr Spec kSpec{.plugin = "pop3",
                              .module = MODULE_POP3,
                              .protocols = {"POP3"},
                              .attributes = {},
                              .borrowed = {kRiskAttribute},
                              .tcp = true,
                              .tcp_ports = {110}};
  static constexpr uint32_t kMaxLine = 1024;
  static constexpr uint32_t kMaxLines = 64;

  // Commands that do not tell a POP3 client first; shared with FTP next;
  // POP3's own from kOwn on.
  static constexpr int kCounted = 2;
  static constexpr int kOwn = 7;
  static constexpr int kStls = kOwn;
  static constexpr const char *kCommands[] = {"QUIT", "NOOP", "USER", "PASS", "LIST", "RETR",
                                              "DELE", "STLS", "CAPA", "APOP", "STAT", "UIDL",
                                              "TOP",  "RSET", "AUTH", nullptr};

  struct State {
    uint8_t role[2];
    uint8_t server_lines;
    uint8_t greeted;
    uint8_t asked;
    uint8_t commands;
    uint8_t own;
    // The answer to the last command is a list ended by ".".
    uint8_t list_asked;
    uint8_t in_list;
    uint8_t tls;
    // Flow risks found (PASS in clear); the reading goes on past the
    // greeting until the login is settled (PASS, APOP, AUTH, STLS or a
    // command of the mailbox).
    uint32_t risks;
    uint8_t watching;
    uint8_t settled;
  };

  static bool IsStatus(const char *text, uint32_t length) {
    return IsCommand(text, length, "+OK") || IsCommand(text, length, "-ERR") ||
           IsCommand(text, length, "+");
  }

  static bool Opening(State &, unsigned, const char *bytes, uint32_t n) {
    return MayOpenWith(bytes, n, "+OK") || MayOpenWith(bytes, n, "-ERR") ||
           MayOpenWith(bytes, n, "+") || MayOpenWithAny(bytes, n, kCommands);
  }

  static unsigned ServerLine(State &state, const char *text, uint32_t length) {
    if (state.in_list != 0) {
      if (length == 1 && text[0] == '.') {
        state.in_list = 0;
      }
      return LINE_GO_ON;
    }
    if (!IsStatus(text, length)) {
      return LINE_NOT_MINE;
    }
    const bool ok = IsCommand(text, length, "+OK");
    if (state.server_lines++ == 0) {
      if (!ok) {
        return LINE_GO_ON;
      }
      state.greeted = 1;
      return Contains(text, length, "POP") ? LINE_MINE | LINE_LEARNT : LINE_GO_ON;
    }
    if (state.asked == 0) {
      return LINE_GO_ON;
    }
    state.asked = 0;
    if (ok && state.list_asked != 0) {
      state.in_list = 1;
    }
    if (state.tls != 0) {
      state.tls = 0;
      if (ok) {
        // TLS from here on.
        return state.greeted != 0 ? LINE_MINE | LINE_TLS | LINE_DONE : LINE_TLS | LINE_DONE;
      }
    }
    return state.greeted != 0 || state.own != 0 ? LINE_MINE | LINE_LEARNT : LINE_GO_ON;
  }

  static unsigned ClientLine(State &state, const char *text, uint32_t length) {
    const int command = CommandIndex(text, length, kCommands);
    if (command < 0) {
      return LINE_NOT_MINE;
    }
    // Lists come back for these without an argument, and for RETR and TOP.
    const char *word = kCommands[command];
    const bool bare = length == TextLength(word);
    state.list_asked = (bare && (IsCommand(word, 4, "LIST") || IsCommand(word, 4, "UIDL") ||
                                 IsCommand(word, 4, "CAPA"))) ||
                               IsCommand(word, 4, "RETR") || IsCommand(word, 3, "TOP")
                           ? 1
                           : 0;
    if (IsCommand(word, 4, "PASS") || IsCommand(word, 4, "APOP") || IsCommand(word, 4, "AUTH") ||
        command == kStls) {
      state.settled = 1;
      if (IsCommand(word, 4, "PASS") && Rest(text, length, 4).length != 0) {
        state.risks |= RiskBit(Risk::kClearTextCredentials);
      }
    }
    if (command < kCounted) {
      return LINE_GO_ON;
    }
    // Past the login STLS may no longer come; a failed AUTH or PASS still
    // leaves the client before it.
    const unsigned plain = IsCommand(word, 4, "LIST") || IsCommand(word, 4, "RETR") ||
                                   IsCommand(word, 4, "DELE") || IsCommand(word, 4, "STAT") ||
                                   IsCommand(word, 4, "UIDL") || IsCommand(word, 3, "TOP") ||
                                   IsCommand(word, 4, "RSET")
                               ? LINE_PLAIN
                               : LINE_GO_ON;
    if (plain != 0) {
      state.settled = 1;
    }
    state.asked = 1;
    ++state.commands;
    if (command >= kOwn) {
      state.own = 1;
    }
    if (command == kStls) {
      state.tls = 1;
    }
    if (state.server_lines == 0 && state.commands >= 2 && state.own != 0) {
      return LINE_MINE | LINE_LEARNT | plain;
    }
    return plain;
  }

  static unsigned Line(State &state, auto &, unsigned side, const char *text, uint32_t length,
                       uint32_t /*full*/) {
    if (state.role[side] == ROLE_NONE) {
      state.role[side] = IsStatus(text, length) ? ROLE_SERVER : ROLE_CLIENT;
    }
    const unsigned say = state.role[side] == ROLE_SERVER ? ServerLine(state, text, length)
                                                         : ClientLine(state, text, length);
    state.watching = state.settled == 0 ? 1 : 0;
    return say;
  }
};

} // namespace kest_decoders

#endif
