// Whether the first line of a message is a request or status line of one
// line-and-header protocol (HTTP, SIP, RTSP, SSDP): "GET /x HTTP/1.1",
// "INVITE sip:bob@b.example SIP/2.0", "SIP/2.0 180 Ringing",
// "M-SEARCH * HTTP/1.1". A protocol's words (its versions and methods) and
// bounds come in a Dialect, so the four decoders share the judgement; it
// reads the reassembled bytes only, never the ports.
//
// The judgement waits for the whole line before it says yes, so that it
// never names a connection that the message inspector then cannot read, and
// gives up on a line longer than the dialect's max_first_line, so that an
// undecided side keeps a bounded number of bytes.
#ifndef KEST_DECODERS_MESSAGE_MESSAGELINE_H
#define KEST_DECODERS_MESSAGE_MESSAGELINE_H

#include <kest/FlowBuffer.h>
#include <kest/IDecoderGate.h>
#include <kest/WebLine.h>
#include <kest/kit/FlowView.h>
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
  const char *protocol = nullptr;
  // Version tokens ("SIP/2.0"), each followed by `version_digits` digits
  // ("HTTP/1." and one).
  const Word *versions = nullptr;
  size_t version_count = 0;
  uint8_t version_digits = 0;
  // Request methods.
  const Word *methods = nullptr;
  size_t method_count = 0;
  // Requests must address "*" (SSDP's announcements and searches).
  bool star_target = false;
  // Request lines may be loose, as scanners and exploit attempts send them:
  // a target holding blanks and tabs ("GET /cgi-bin/x;wget http://a/b
  // HTTP/1.1"), whose version is then the line's last word and the target
  // all before it; and, when a header line follows, a version cut short or
  // missing ("GET / HTTP/1.", "GET /HTTP/1.1", "OPTIONS HTTP/1.1") or a
  // method alone ("OPTIONS"). A last word that is another protocol's
  // version ("RTSP/1.0", "SIP/2.0") is never taken for a target.
  bool loose_requests = false;
  // Longest first line waited for, blank lines before it included.
  uint32_t max_first_line = 4096;
  // What a side's first line that is not the protocol's must still hold for
  // the other side's first line to be worth waiting for ("SIP/"): a client
  // that sends a malformed request to a server that answers well.
  Word hint = {};
  // Whether such a line must also begin as text does (a visible byte or a
  // blank line), so that binary streams need no search for the hint.
  bool hint_needs_text = false;
};

// The blanks the line reader passes over before a first line's first word.
constexpr unsigned char kBlanks[] = {' ', '\t', '\r', '\n'};
constexpr bool Blank(unsigned char c) {
  for (unsigned char b : kBlanks) {
    if (c == b) {
      return true;
    }
  }
  return false;
}

enum class FirstLine {
  kNeedMore, // a valid beginning so far
  kRequest,
  kResponse,
  kNo,
};

// Judges the line that starts at `from`, reading below `end` only (cut to
// the flow's End()). Blank lines before it are skipped. With an `end` that
// is the end of a datagram, kNeedMore means a line cut short.
FirstLine SniffFirstLine(const oru::FlowBuffer &flow, uint64_t from, uint64_t end,
                         const Dialect &dialect);

// What a side's first line says, from the stream's start. A side whose
// first byte is no longer held was judged before and let go (its bytes
// flushed): kNo, as for a side that sent nothing yet.
FirstLine JudgeOpening(const oru::FlowBuffer &flow, const Dialect &dialect);

// Whether a side's rejected first line still carries the dialect's hint
// ("GET/ HTTP/1.1" to a server that answers with a status line). Only then
// is the other side's first line waited for, so that other protocols'
// connections are not held up.
bool HintsAtProtocol(const oru::FlowBuffer &flow, const Dialect &dialect);

// The bytes a connection's first payload may begin with for the dialect's
// launcher to stay on it, over `transport` (6 or 17): a blank line or a
// method's or version's first letter, and over TCP any visible byte when a
// rejected line may still carry the hint. False when every byte may (a hint
// that needs no text).
bool DialectOpenings(const Dialect &dialect, uint8_t transport, oru::FirstBytes &first);

// A loose request line, as a dialect with loose_requests takes it, read for
// the message inspector, whose line reader splits a line at its first two
// blanks only and wants a version: one of `methods` (followed by a blank or
// the line's end), the target as sent (empty when there is none), and the
// version as sent (empty when the line has none). With the line whole from
// `from`, fills `line` as a request and gives the position behind the line
// in `next`: kYes. kMore for a line not yet whole that begins with one of
// `methods` and a blank, shorter than the dialect's max_first_line (the
// line reader judges a line by its first words and would turn it away
// before its end). kNo for the line reader's own "METHOD target VERSION",
// for a line with control bytes or another protocol's version, and for any
// other line.
oru::kit::Match ReadLooseRequest(const oru::FlowBuffer &flow, uint64_t from, const Dialect &dialect,
                                 const oru::WebMethodTable &methods, oru::WebLine &line,
                                 uint64_t &next);

// The four dialects.
extern const Dialect kHttp;
extern const Dialect kSip;
extern const Dialect kRtsp;
extern const Dialect kSsdp;

} // namespace kest_message

#endif
