// SSH, known by its identification line: "SSH-2.0-<software> [comment]",
// or the older "SSH-1.99-" and "SSH-1.5-", from either side. Nothing else
// is read: binary packets follow the line at once. The client's line is the
// one of side 0, the connection's first end point.
#ifndef KEST_DECODERS_SSHRULES_H
#define KEST_DECODERS_SSHRULES_H

#include <kest/kit/LineDecoder.h>

namespace kest_decoders {

using namespace oru::kit;

struct SshRules {
  static constexpr oru::kit::Spec kSpec{.plugin = "ssh",
                                        .module = oru::kit::MODULE_SSH,
                                        .protocols = {"SSH"},
                                        .attributes = {"ssh.client_banner", "ssh.server_banner"},
                                        .tcp = true,
                                        .tcp_ports = {22}};
  static constexpr int kNotes = kNotesOf<SshRules>;
  // The line is at most 255 bytes with its CR LF.
  static constexpr uint32_t kMaxLine = 254;
  static constexpr uint32_t kMaxLines = 1;

  struct State {
    uint8_t unused;
  };

  static bool Opening(State &, unsigned, const char *bytes, uint32_t n) {
    static const char kStart[] = "SSH-";
    for (uint32_t i = 0; i < n && i < 4; ++i) {
      if (bytes[i] != kStart[i]) {
        return false;
      }
    }
    return true;
  }

  // A whole identification line: a known version, a software name that is
  // not empty, printable ASCII only.
  static bool IsBanner(const char *text, uint32_t length) {
    static const char *const kVersions[] = {"SSH-2.0-", "SSH-1.99-", "SSH-1.5-"};
    uint32_t head = 0;
    for (const char *version : kVersions) {
      const uint32_t n = TextLength(version);
      uint32_t i = 0;
      while (i < n && i < length && text[i] == version[i]) {
        ++i;
      }
      if (i == n) {
        head = n;
        break;
      }
    }
    if (head == 0 || length <= head || text[head] == ' ') {
      return false;
    }
    for (uint32_t i = 0; i < length; ++i) {
      if (text[i] < 0x20 || text[i] > 0x7E) {
        return false;
      }
    }
    return true;
  }

  static unsigned Line(State &, Notes<kNotes> &notes, unsigned side, const char *text,
                       uint32_t length, uint32_t full) {
    if (full != length || !IsBanner(text, length)) {
      return LINE_NOT_MINE;
    }
    notes.Set(side == 0 ? 0 : 1, text, length);
    return LINE_MINE | LINE_SIDE_DONE;
  }
};

} // namespace kest_decoders

#endif
