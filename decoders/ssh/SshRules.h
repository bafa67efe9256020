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
  static constexpr Spec kSpec{.plugin = "ssh",
                              .module = MODULE_SSH,
                              .protocols = {"SSH"},
                              .attributes = {"ssh.client_banner", "ssh.server_banner"},
                              .tcp = true,
                              .tcp_ports = {22}};
  // The line is at most 255 bytes with its CR LF.
  static constexpr uint32_t kMaxLine = 254;
  static constexpr uint32_t kMaxLines = 1;
  struct State {};

  static bool Opening(State &, unsigned, const char *bytes, uint32_t n) {
    return MayBeginWith(bytes, n, "SSH-");
  }

  // A whole line of a known version, a software name that is not empty and
  // does not begin with a space, printable ASCII only.
  static unsigned Line(State &, auto &notes, unsigned side, const char *text, uint32_t length,
                       uint32_t full) {
    for (const char *version : {"SSH-2.0-", "SSH-1.99-", "SSH-1.5-"}) {
      const uint32_t head = TextLength(version);
      if (full == length && HasPrefix(text, length, version) && length > head &&
          text[head] != ' ' && Printable(text, length)) {
        notes.Set(side == 0 ? 0 : 1, text, length);
        return LINE_MINE | LINE_SIDE_DONE;
      }
    }
    return LINE_NOT_MINE;
  }
};

} // namespace kest_decoders

#endif
