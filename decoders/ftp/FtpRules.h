// FTP's control connection: a "220" greeting, commands such as USER, AUTH,
// FEAT or SYST, and three-digit replies to them. The greeting alone names
// FTP only when it says FTP (and not SMTP); otherwise a command has to be
// answered. SMTP's commands end the reading at once. With only the client's
// side in view, two commands, one of them FTP's own (not shared with POP3),
// are enough. AUTH TLS (or SSL) answered 234 turns the connection to TLS.
//
// Where the connection's policy allows future flows, the reading goes on
// for the connection's life: each data connection a PORT, EPRT, 227 or 229
// line announces (FtpAnnounce.h) is expected as FTP_DATA.
#ifndef KEST_DECODERS_FTPRULES_H
#define KEST_DECODERS_FTPRULES_H

#include "ftp/FtpAnnounce.h"
#include <kest/kit/LineDecoder.h>

namespace kest_decoders {

using namespace oru::kit;

struct FtpRules {
  static constexpr Spec kSpec{.plugin = "ftp",
                              .module = MODULE_FTP,
                              .protocols = {"FTP", "FTP_DATA"},
                              .attributes = {"ftp.user"},
                              .borrowed = {kRiskAttribute},
                              .tcp = true,
                              .tcp_ports = {21}};
  static constexpr uint32_t kMaxLine = 1024;
  // Welcome texts run long.
  static constexpr uint32_t kMaxLines = 128;
  // Once named, a control connection is read to its end for announcements.
  static constexpr uint32_t kMaxLinesNamed = 0xffffffffu;

  // Commands shared with other protocols first, FTP's own from kOwn on.
  static constexpr int kUser = 0;
  static constexpr int kPass = 1;
  static constexpr int kOwn = 9;
  static constexpr int kAuth = kOwn;

  struct State {
    uint8_t role[2];
    uint8_t server_lines;
    // Code of a multi-line reply still going on, 0 for none.
    uint16_t open_reply;
    uint8_t in_greeting;
    uint8_t greeted;
    uint8_t asked;
    uint8_t answered;
    uint8_t commands;
    uint8_t own;
    uint8_t tls;
    uint8_t mine;
    // Set by the reader: announcements are followed.
    uint8_t expect;
    // Announcements not yet taken by the reader, with the side that made
    // each (whose address stands in for a missing one).
    Announcements announced;
    // Flow risks found (a password in clear), and whether the login is
    // still to come; FTP ends its reading with LINE_DONE, so `watching`
    // stays clear and `settled` says the login was seen.
    uint32_t risks;
    uint8_t watching;
    uint8_t settled;
    uint8_t anonymous;
    uint8_t user;
  };

  static constexpr const char *kCommands[] = {
      "USER", "PASS", "LIST", "RETR", "DELE", "NOOP", "QUIT", "STAT", "HELP", "AUTH",
      "SYST", "FEAT", "PWD",  "XPWD", "CWD",  "CDUP", "TYPE", "PASV", "EPSV", "PORT",
      "EPRT", "MLSD", "MLST", "NLST", "STOR", "STOU", "APPE", "MKD",  "RMD",  "RNFR",
      "RNTO", "SIZE", "MDTM", "OPTS", "PBSZ", "PROT", "MODE", "STRU", "SITE", "REST",
      "ABOR", "ACCT", "ALLO", "CLNT", "HOST", "LANG", nullptr};

  static int CommandOf(const char *text, uint32_t length) {
    return CommandIndex(text, length, kCommands);
  }

  static bool Opening(State &, unsigned, const char *bytes, uint32_t n) {
    return MayOpenReply(bytes, n) || MayOpenWithAny(bytes, n, kCommands);
  }

  static unsigned Mine(State &state, const auto &notes) {
    state.mine = 1;
    return Learnt(state, notes) ? LINE_MINE | LINE_DONE : LINE_MINE;
  }

  // The user is known and the password, if any, was sent.
  static bool Learnt(const State &state, const auto &notes) {
    return notes.filled[0] != 0 && state.settled != 0 && state.expect == 0;
  }

  // USER then PASS with a password, in clear: anonymous logins (user
  // "anonymous" or "ftp") carry no secret.
  static void Login(State &state, int command, const char *text, uint32_t length) {
    const TextSpan argument = Rest(text, length, 4);
    if (command == kUser) {
      state.anonymous = (argument.length == 9 && StartsWith(argument.text, 9, "anonymous")) ||
                                (argument.length == 3 && StartsWith(argument.text, 3, "ftp"))
                            ? 1
                            : 0;
      state.user = 1;
    } else if (command == kPass) {
      state.settled = 1;
      if (argument.length != 0 && state.anonymous == 0) {
        state.risks |= RiskBit(Risk::kClearTextCredentials);
      }
    } else if (state.user != 0) {
      // Another command after USER: the login went on without a password
      // (or failed), and none is waited for any more.
      state.settled = 1;
    }
  }

  static unsigned ServerLine(State &state, const auto &notes, unsigned side, const char *text,
                             uint32_t length) {
    const int code = ReplyCode(text, length);
    FtpEndpoint announced;
    if (state.expect != 0 && state.open_reply == 0 && ServerAnnounce(text, length, announced)) {
      state.announced.Add(announced.addr, announced.port, side);
    }
    const bool greeting = state.server_lines++ == 0 || state.in_greeting != 0;
    if (state.open_reply != 0) {
      // Inside a multi-line reply any text may come; the same code with a
      // space ends it.
      if (code == state.open_reply && length > 3 && text[3] == ' ') {
        state.open_reply = 0;
        state.in_greeting = 0;
      }
    } else if (code < 0) {
      return state.mine != 0 ? LINE_GO_ON : LINE_NOT_MINE;
    } else if (length > 3 && text[3] == '-') {
      state.open_reply = static_cast<uint16_t>(code);
      state.in_greeting = greeting ? 1 : 0;
    }
    if (greeting) {
      if (code == 220) {
        state.greeted = 1;
      }
      if (Contains(text, length, "SMTP")) {
        return state.mine != 0 ? LINE_GO_ON : LINE_NOT_MINE;
      }
      if (state.greeted != 0 && Contains(text, length, "FTP")) {
        return Mine(state, notes);
      }
      return LINE_GO_ON;
    }
    if (state.asked != 0 && state.open_reply == 0) {
      state.asked = 0;
      state.answered = 1;
      if (state.tls != 0 && code == 234) {
        // TLS from here on.
        state.tls = 0;
        return state.mine != 0 || state.greeted != 0 ? LINE_MINE | LINE_TLS | LINE_DONE
                                                     : LINE_TLS | LINE_DONE;
      }
      state.tls = 0;
      if (state.greeted != 0 || state.own != 0) {
        return Mine(state, notes);
      }
    }
    return LINE_GO_ON;
  }

  static unsigned ClientLine(State &state, auto &notes, unsigned side, const char *text,
                             uint32_t length) {
    const int command = CommandOf(text, length);
    if (command < 0) {
      return state.mine != 0 ? LINE_GO_ON : LINE_NOT_MINE;
    }
    ++state.commands;
    state.asked = 1;
    FtpEndpoint announced;
    if (state.expect != 0 && ClientAnnounce(text, length, announced)) {
      state.announced.Add(announced.addr, announced.port, side);
    }
    if (command >= kOwn) {
      state.own = 1;
    }
    if (command == kAuth) {
      // Other mechanisms (GSSAPI...) go on in the clear.
      const TextSpan how = Rest(text, length, 4);
      state.tls = StartsWith(how.text, how.length, "TLS") || StartsWith(how.text, how.length, "SSL")
                      ? 1
                      : 0;
    }
    if (command == kUser) {
      notes.Set(0, Rest(text, length, 4));
    }
    Login(state, command, text, length);
    if (state.mine != 0) {
      return Learnt(state, notes) ? LINE_DONE : LINE_GO_ON;
    }
    if (state.server_lines == 0 && state.commands >= 2 && state.own != 0) {
      return Mine(state, notes);
    }
    return LINE_GO_ON;
  }

  static unsigned Line(State &state, auto &notes, unsigned side, const char *text, uint32_t length,
                       uint32_t /*full*/) {
    if (state.role[side] == ROLE_NONE) {
      state.role[side] = ReplyCode(text, length) >= 0 ? ROLE_SERVER : ROLE_CLIENT;
    }
    return state.role[side] == ROLE_SERVER ? ServerLine(state, notes, side, text, length)
                                           : ClientLine(state, notes, side, text, length);
  }
};

} // namespace kest_decoders

#endif
