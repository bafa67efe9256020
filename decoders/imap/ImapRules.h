// IMAP: a server greeting "* OK" (or PREAUTH or BYE) that names IMAP, a
// greeting followed by a tagged command, or tagged commands alone: one that
// opens a session (CAPABILITY, LOGIN, AUTHENTICATE, STARTTLS) answered by
// the server, or two in a row. A tag is a run of atom characters other
// than "+". A STARTTLS whose tag the server answers OK turns the
// connection to TLS; it may only come before the client logs in, so a
// command of the logged-in client (SELECT, LIST...) ends the watch for it.
#ifndef KEST_DECODERS_IMAPRULES_H
#define KEST_DECODERS_IMAPRULES_H

#include <kest/kit/LineDecoder.h>

namespace kest_decoders {

using namespace oru::kit;

struct ImapRules {
  static constexpr Spec kSpec{.plugin = "imap",
                              .module = MODULE_IMAP,
                              .protocols = {"IMAP"},
                              .attributes = {},
                              .borrowed = {kRiskAttribute},
                              .tcp = true,
                              .tcp_ports = {143}};
  // Capability lists make long greetings.
  static constexpr uint32_t kMaxLine = 8192;
  static constexpr uint32_t kMaxLines = 64;
  static constexpr uint32_t kMaxTag = 64;

  // Commands that open a session first, from kOpeners on the rest.
  static constexpr int kOpeners = 4;
  static constexpr int kStartTls = 3;
  static constexpr const char *kCommands[] = {
      "CAPABILITY",  "LOGIN",        "AUTHENTICATE", "STARTTLS", "NOOP",   "LOGOUT",
      "SELECT",      "EXAMINE",      "CREATE",       "DELETE",   "RENAME", "SUBSCRIBE",
      "UNSUBSCRIBE", "LIST",         "LSUB",         "STATUS",   "APPEND", "CHECK",
      "CLOSE",       "EXPUNGE",      "SEARCH",       "FETCH",    "STORE",  "COPY",
      "MOVE",        "UID",          "IDLE",         "ID",       "ENABLE", "NAMESPACE",
      "GETQUOTA",    "GETQUOTAROOT", "UNSELECT",     "COMPRESS", nullptr};
  static constexpr const char *kStatuses[] = {"OK", "NO", "BAD", "PREAUTH", "BYE", nullptr};

  struct State {
    uint8_t role[2];
    uint8_t server_lines;
    uint8_t greeted;
    uint8_t tagged;
    uint8_t opener;
    // The tag of a STARTTLS not answered yet (tls_tag_length 0: none).
    uint8_t tls_tag_length;
    char tls_tag[kMaxTag];
    // Flow risks found (LOGIN in clear); the reading goes on past the
    // greeting until the login is settled (LOGIN, AUTHENTICATE, STARTTLS
    // or a command after the login).
    uint32_t risks;
    uint8_t watching;
    uint8_t settled;
  };

  static bool IsTagChar(char c) {
    return c > 0x20 && c < 0x7F && c != '(' && c != ')' && c != '{' && c != '%' && c != '*' &&
           c != '"' && c != '\\' && c != '+';
  }

  // The length of the tag that opens the text, 0 for none (no tag, or no
  // space behind it).
  static uint32_t TagLength(const char *text, uint32_t length) {
    uint32_t n = 0;
    while (n < length && n < kMaxTag && IsTagChar(text[n])) {
      ++n;
    }
    return n != 0 && n < length && text[n] == ' ' ? n : 0;
  }

  // The tag of the STARTTLS waiting for its answer (tags are compared
  // byte for byte).
  static bool IsTlsTag(const State &state, const char *text, uint32_t tag) {
    if (state.tls_tag_length == 0 || tag != state.tls_tag_length) {
      return false;
    }
    for (uint32_t i = 0; i < tag; ++i) {
      if (text[i] != state.tls_tag[i]) {
        return false;
      }
    }
    return true;
  }

  static bool Opening(State &, unsigned, const char *bytes, uint32_t n) {
    if (bytes[0] == '*' || bytes[0] == '+') {
      return n == 1 || bytes[1] == ' ';
    }
    uint32_t tag = 0;
    while (tag < n && IsTagChar(bytes[tag])) {
      ++tag;
    }
    if (tag == n) {
      return true;
    }
    if (tag == 0 || bytes[tag] != ' ') {
      return false;
    }
    return MayOpenWithAny(bytes + tag + 1, n - tag - 1, kCommands) ||
           MayOpenWithAny(bytes + tag + 1, n - tag - 1, kStatuses);
  }

  static unsigned ServerLine(State &state, const char *text, uint32_t length) {
    const bool first = state.server_lines++ == 0;
    if (StartsWith(text, length, "* ")) {
      if (first && CommandIndex(text + 2, length - 2, kStatuses) >= 0) {
        state.greeted = 1;
        // Already logged in: no STARTTLS may follow.
        const unsigned plain = StartsWith(text, length, "* PREAUTH") ? LINE_PLAIN : LINE_GO_ON;
        if (Contains(text, length, "IMAP")) {
          return LINE_MINE | LINE_LEARNT | plain;
        }
        if (plain != 0) {
          return plain;
        }
      }
      return state.tagged != 0 && state.opener != 0 ? LINE_MINE | LINE_LEARNT : LINE_GO_ON;
    }
    if (IsCommand(text, length, "+")) {
      return state.tagged != 0 ? LINE_MINE | LINE_LEARNT : LINE_GO_ON;
    }
    const uint32_t tag = TagLength(text, length);
    const int status = tag != 0 ? CommandIndex(text + tag + 1, length - tag - 1, kStatuses) : -1;
    if (status < 0) {
      return LINE_NOT_MINE;
    }
    const unsigned named = state.tagged != 0 && state.opener != 0 ? LINE_MINE : LINE_GO_ON;
    if (IsTlsTag(state, text, tag)) {
      state.tls_tag_length = 0;
      if (status == 0) {
        // TLS from here on.
        return named | LINE_TLS | LINE_DONE;
      }
    }
    return named != 0 ? named | LINE_LEARNT : LINE_GO_ON;
  }

  static unsigned ClientLine(State &state, const char *text, uint32_t length) {
    const uint32_t tag = TagLength(text, length);
    const int command = tag != 0 ? CommandIndex(text + tag + 1, length - tag - 1, kCommands) : -1;
    if (command < 0) {
      return LINE_NOT_MINE;
    }
    ++state.tagged;
    if (command < kOpeners) {
      state.opener = 1;
    }
    // Commands of a client not logged in yet (a failed LOGIN leaves it
    // there), where alone STARTTLS may come.
    static const char *const kBeforeLogin[] = {"CAPABILITY",   "STARTTLS", "NOOP",   "ID",
                                               "AUTHENTICATE", "LOGIN",    "LOGOUT", nullptr};
    const bool before_login = CommandIndex(text + tag + 1, length - tag - 1, kBeforeLogin) >= 0;
    if (command == kStartTls) {
      for (uint32_t i = 0; i < tag; ++i) {
        state.tls_tag[i] = text[i];
      }
      state.tls_tag_length = static_cast<uint8_t>(tag);
    }
    const TextSpan verb = Rest(text, length, tag + 1);
    if (IsCommand(verb.text, verb.length, "LOGIN")) {
      // LOGIN <user> <password>: both in clear.
      state.risks |= RiskBit(Risk::kClearTextCredentials);
    }
    if (!before_login || IsCommand(verb.text, verb.length, "LOGIN") ||
        IsCommand(verb.text, verb.length, "AUTHENTICATE") || command == kStartTls) {
      state.settled = 1;
    }
    const unsigned plain = before_login ? LINE_GO_ON : LINE_PLAIN;
    return state.greeted != 0 || state.tagged >= 2 ? LINE_MINE | LINE_LEARNT | plain : plain;
  }

  static unsigned Line(State &state, auto &, unsigned side, const char *text, uint32_t length,
                       uint32_t /*full*/) {
    if (state.role[side] == ROLE_NONE) {
      const bool untagged = StartsWith(text, length, "* ") || IsCommand(text, length, "+");
      const uint32_t tag = TagLength(text, length);
      const bool status =
          tag != 0 && CommandIndex(text + tag + 1, length - tag - 1, kStatuses) >= 0;
      state.role[side] = untagged || status ? ROLE_SERVER : ROLE_CLIENT;
    }
    const unsigned say = state.role[side] == ROLE_SERVER ? ServerLine(state, text, length)
                                                         : ClientLine(state, text, length);
    // PREAUTH: no login to come.
    state.watching = state.settled == 0 && (say & LINE_PLAIN) == 0 ? 1 : 0;
    return say;
  }
};

} // namespace kest_decoders

#endif
