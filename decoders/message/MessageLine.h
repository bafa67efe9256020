// Whether the first line of a message is a request or status line of one
// web-shaped protocol (SIP, RTSP, SSDP): "INVITE sip:bob@b.example SIP/2.0",
// "SIP/2.0 180 Ringing", "M-SEARCH * HTTP/1.1". The protocol's words (its
// versions and methods) come in a Dialect, so the three plug-ins share the
// judgement; it reads the reassembled bytes only, never the ports.
//
// Like the HTTP decoder's judgement it waits for the whole line before it
// says yes, and gives up on a line longer than kMaxFirstLine, so that an
// undecided side keeps a bounded number of bytes.
#ifndef KEST_DECODERS_MESSAGE_MESSAGELINE_H
#define KEST_DECODERS_MESSAGE_MESSAGELINE_H

#include <kest/FlowBuffer.h>
#include <stddef.h>
#include <stdint.h>

namespace kest_message {

struct Word {
  const char *text;
  uint8_t length;
};

#define KEST_MESSAGE_WORD(text)                                                                    \
  Word {                                                                                           \
    text, sizeof(text) - 1                                                                         \
  }

struct Dialect {
  // The protocol word that versions start with ("SIP"), as the message
  // inspector wants it.
  const char *protocol;
  // Whole version tokens ("SIP/2.0").
  const Word *versions;
  size_t version_count;
  // Request methods.
  const Word *methods;
  size_t method_count;
  // Requests must address "*" (SSDP's announcements and searches).
  bool star_target;
};

enum class FirstLine {
  kNeedMore, // a valid beginning so far
  kRequest,
  kResponse,
  kNo,
};

// Longest first line waited for, blank lines before it included.
constexpr uint32_t kMaxFirstLine = 4096;

// Judges the line that starts at `from`, reading below `end` only (cut to
// the flow's End()). Blank lines before it are skipped. With an `end` that
// is the end of a datagram, kNeedMore means a line cut short.
FirstLine SniffFirstLine(const oru::FlowBuffer &flow, uint64_t from, uint64_t end,
                         const Dialect &dialect);

// The three dialects.
extern const Dialect kSip;
extern const Dialect kRtsp;
extern const Dialect kSsdp;

} // namespace kest_message

#endif
