// SMTP, told apart from the other "220" greeters (FTP above all) by what is
// said: a greeting that names SMTP or ESMTP, or a client that opens with
// EHLO or HELO and is answered 250, or goes on to MAIL FROM. A client that
// opens with anything but EHLO, HELO, MAIL or RCPT is not an SMTP client;
// FTP's commands end the reading at once.
#ifndef KEST_DECODERS_SMTPRULES_H
#define KEST_DECODERS_SMTPRULES_H

#include <kest/kit/LineDecoder.h>

namespace kest_decoders {

using namespace oru::kit;

struct SmtpRules {
  static constexpr Spec kSpec{.plugin = "smtp",
                              .module = MODULE_SMTP,
                              .protocols = {"SMTP"},
                              .attributes = {"smtp.helo", "smtp.mail_from"},
                              .borrowed = {kRiskAttribute},
                              .tcp = true,
                              .tcp_ports = {25, 587}};
  // 465 is SMTP inside TLS from the first byte: nothing for this reader.
  enum { NOTE_HELO, NOTE_MAIL_FROM };
  // A text line is at most 1000 bytes with its CR LF.
  static constexpr uint32_t kMaxLine = 999;
  static constexpr uint32_t kMaxLines = 64;

  enum Verb {
    VERB_EHLO,
    VERB_HELO,
    VERB_MAIL,
    VERB_RCPT,
    VERB_DATA,
    VERB_BDAT,
    VERB_STARTTLS,
    VERB_QUIT,
    VERB_OTHER
  };

  struct State {
    uint8_t role[2];
    uint8_t server_lines;
    uint8_t client_lines;
    // The first reply is still going on (a "220-" line came).
    uint8_t in_greeting;
    uint8_t hello;
    uint8_t answered;
    uint8_t mail;
    uint8_t tls;
    uint8_t mine;
    // Flow risks found: AUTH PLAIN or LOGIN before any STARTTLS (after
    // it, the lines are TLS and not read). The login comes before MAIL
    // FROM, where the reading ends, so `watching` stays clear.
    uint32_t risks;
    uint8_t watching;
  };

  static int VerbOf(const char *text, uint32_t length) {
    static const char *const kVerbs[] = {"EHLO",     "HELO", "MAIL", "RCPT", "DATA", "BDAT",
                                         "STARTTLS", "QUIT", "RSET", "VRFY", "EXPN", "HELP",
                                         "NOOP",     "AUTH", "ETRN", nullptr};
    const int i = CommandIndex(text, length, kVerbs);
    return i < VERB_OTHER ? i : VERB_OTHER;
  }

  static bool Opening(State &, unsigned, const char *bytes, uint32_t n) {
    return MayOpenReply(bytes, n) || MayOpenWith(bytes, n, "EHLO") ||
           MayOpenWith(bytes, n, "HELO") || MayOpenWith(bytes, n, "MAIL") ||
           MayOpenWith(bytes, n, "RCPT");
  }

  // The address of "MAIL FROM:<address> ...", or the first word when the
  // brackets are missing.
  static TextSpan Address(const char *text, uint32_t length) {
    TextSpan rest = Rest(text, length, 10);
    if (rest.length != 0 && rest.text[0] == '<') {
      uint32_t end = 1;
      while (end < rest.length && rest.text[end] != '>') {
        ++end;
      }
      return TextSpan{rest.text + 1, end - 1};
    }
    uint32_t end = 0;
    while (end < rest.length && rest.text[end] != ' ') {
      ++end;
    }
    return TextSpan{rest.text, end};
  }

  static unsigned Mine(State &state, const auto &notes) {
    state.mine = 1;
    return notes.filled[NOTE_MAIL_FROM] != 0 ? LINE_MINE | LINE_DONE : LINE_MINE;
  }

  static unsigned ServerLine(State &state, const auto &notes, const char *text, uint32_t length) {
    const int code = ReplyCode(text, length);
    if (code < 0) {
      return state.mine != 0 ? LINE_GO_ON : LINE_NOT_MINE;
    }
    const bool goes_on = length > 3 && text[3] == '-';
    const bool first = state.server_lines++ == 0;
    if ((first && code == 220) || (state.in_greeting != 0 && code == 220)) {
      state.in_greeting = goes_on ? 1 : 0;
      if (Contains(text, length, "SMTP")) {
        return Mine(state, notes);
      }
      if (Contains(text, length, "FTP")) {
        return LINE_NOT_MINE;
      }
      return LINE_GO_ON;
    }
    state.in_greeting = 0;
    if (state.tls != 0 && code == 220) {
      // TLS from here on.
      return LINE_TLS | LINE_DONE;
    }
    if (code >= 400) {
      // A refused STARTTLS leaves the dialogue in the clear.
      state.tls = 0;
    }
    if (state.hello != 0 && state.answered == 0 && code == 250) {
      state.answered = 1;
      return Mine(state, notes);
    }
    return LINE_GO_ON;
  }

  static unsigned ClientLine(State &state, auto &notes, const char *text, uint32_t length) {
    const int verb = VerbOf(text, length);
    if (verb < 0) {
      // After AUTH the client sends its credentials as bare lines.
      return state.mine != 0 ? LINE_GO_ON : LINE_NOT_MINE;
    }
    const bool first = state.client_lines++ == 0;
    if (first && verb != VERB_EHLO && verb != VERB_HELO && verb != VERB_MAIL && verb != VERB_RCPT) {
      return LINE_NOT_MINE;
    }
    switch (verb) {
    case VERB_EHLO:
    case VERB_HELO:
      state.hello = 1;
      notes.Set(NOTE_HELO, Rest(text, length, 4));
      break;
    case VERB_MAIL:
      if (!StartsWith(text, length, "MAIL FROM:")) {
        return state.mine != 0 ? LINE_GO_ON : LINE_NOT_MINE;
      }
      notes.Set(NOTE_MAIL_FROM, Address(text, length));
      if (state.hello != 0 || state.mail != 0) {
        return Mine(state, notes);
      }
      state.mail = 1;
      break;
    case VERB_RCPT:
      if (!StartsWith(text, length, "RCPT TO:")) {
        return state.mine != 0 ? LINE_GO_ON : LINE_NOT_MINE;
      }
      if (state.mail != 0) {
        return Mine(state, notes);
      }
      break;
    case VERB_STARTTLS:
      state.tls = 1;
      break;
    case VERB_OTHER:
      if (IsCommand(text, length, "AUTH")) {
        const TextSpan how = Rest(text, length, 4);
        if (IsCommand(how.text, how.length, "PLAIN") || IsCommand(how.text, how.length, "LOGIN")) {
          state.risks |= RiskBit(Risk::kClearTextCredentials);
        }
      }
      break;
    case VERB_DATA:
    case VERB_BDAT:
    case VERB_QUIT:
      // A message body or the end follows: no more commands to read.
      return LINE_DONE;
    default:
      break;
    }
    return state.mine != 0 && notes.filled[NOTE_MAIL_FROM] != 0 ? LINE_DONE : LINE_GO_ON;
  }

  static unsigned Line(State &state, auto &notes, unsigned side, const char *text, uint32_t length,
                       uint32_t /*full*/) {
    if (state.role[side] == ROLE_NONE) {
      state.role[side] = ReplyCode(text, length) >= 0 ? ROLE_SERVER : ROLE_CLIENT;
    }
    return state.role[side] == ROLE_SERVER ? ServerLine(state, notes, text, length)
                                           : ClientLine(state, notes, text, length);
  }
};

} // namespace kest_decoders

#endif
