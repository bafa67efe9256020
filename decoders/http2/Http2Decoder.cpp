// HTTP/2 in clear text on any port, by its bytes: a client's connection
// preface ("PRI * HTTP/2.0...") followed by a SETTINGS frame, or, for a
// side that speaks without the preface (a server, or a capture that starts
// late), a SETTINGS frame of known settings with sound values followed by
// a well-formed frame. After an HTTP/1.1 upgrade to "h2c" the HTTP decoder
// hands the connection's later bytes on, under chameleon, and HTTP2 is
// named above HTTP.
//
// Header blocks (HEADERS, padded or with priority, and their CONTINUATION
// frames) are decoded with HPACK (Hpack.h) and reported under the HTTP
// decoder's names: ":method" as "http.request.method", ":path" as
// "http.request.uri", ":authority" as "http.request.header.host",
// ":status" as "http.response.code", and other fields as
// "http.request.header.<name>" or "http.response.header.<name>" for the
// names a host listens to. PUSH_PROMISE blocks are decoded (they move the
// server's table) but not reported.
//
// Left alone: DATA and every other frame's payload, passed over by its
// length without being kept; header blocks beyond the first 8 of each side
// (the side is no longer read); a side whose header block does not fit
// kBlock, or whose block fails to decode, is no longer decoded (its table
// would no longer match the sender's).
#include "http2/Hpack.h"

#include <kest/kit/Decoder.h>
#include <kest/kit/Services.h>

#include <kest/WebAttributes.h>
#include <string.h>

namespace {

using namespace oru::kit;
using kest_http2::HpackDecoder;
using kest_http2::HpackField;

constexpr char kPreface[] = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
constexpr uint32_t kPrefaceLength = sizeof kPreface - 1;

enum FrameType : uint8_t {
  kData = 0,
  kHeaders = 1,
  kPriority = 2,
  kRstStream = 3,
  kSettings = 4,
  kPushPromise = 5,
  kPing = 6,
  kGoaway = 7,
  kWindowUpdate = 8,
  kContinuation = 9,
};
enum Flags : uint8_t {
  kAck = 0x1, // SETTINGS, PING
  kEndHeaders = 0x4,
  kPadded = 0x8,
  kPriorityFlag = 0x20,
};

// The attributes, in the order of the Spec's borrowed names.
enum : int { kMethod = 0, kUri = 1, kCode = 2 };

struct Http2 {
  static constexpr Spec kSpec{
      .plugin = "http2",
      .module = MODULE_HTTP2,
      .protocols = {"HTTP2"},
      .borrowed = {"http.request.method", "http.request.uri", "http.response.code"},
      .tcp = true,
      .tcp_ports = {80, 8080}};
  // A header block kept whole until it ends; one beyond is not decoded.
  static constexpr uint32_t kBlock = 4096;
  // Header blocks read per side.
  static constexpr uint32_t kBlocks = 8;
  // The most settings in the SETTINGS frame that names the protocol.
  static constexpr uint32_t kFirstSettings = 16;
  // A frame's longest payload before the peer raises it.
  static constexpr uint32_t kFrameSize = 16384;

  struct Side {
    uint8_t head[9];
    uint8_t head_have;
    uint8_t preface;   // bytes of the preface read
    bool with_preface; // the side opened with the preface
    bool over;         // nothing more is read on this side
    bool lost;         // its header blocks are no longer decoded
    bool keep;         // the current frame's payload goes to `block`
    bool overflow;     // the open header block did not fit
    uint8_t role;      // 1: requests, 2: responses (from pseudo-headers)
    uint32_t frames;   // whole frames read
    uint32_t blocks;   // header blocks decoded
    uint32_t left;     // payload bytes of the current frame still to come
    uint32_t frame_at; // where the current frame's payload starts in `block`
    uint32_t open;     // the stream of a header block waiting for CONTINUATION
    uint32_t have;     // bytes in `block`
    uint8_t block[kBlock];
    HpackDecoder hpack;
  };
  struct State {
    Side side[2];
  };
  static constexpr const char *kFamilies[2] = {"http.request.header.", "http.response.header."};
  struct Thread {
    // The header families are the HTTP decoder's, registered on its thread
    // start (before this one's, by name); without it, this decoder holds
    // them, so that the members a host listens to get identifiers.
    Thread() {
      oru::AttributeMgr *manager = oru::AttributeMgr::Instance();
      for (int i = 0; i < 2 && manager != nullptr; ++i) {
        own[i] = !manager->IsRegistered(kFamilies[i]) &&
                 manager->Register(oru::fdt::string(kFamilies[i]), Ignore, nullptr);
      }
    }
    ~Thread() {
      oru::AttributeMgr *manager = oru::AttributeMgr::Peek();
      for (int i = 0; i < 2 && manager != nullptr; ++i) {
        if (own[i]) {
          manager->Unregister(oru::fdt::string(kFamilies[i]));
        }
      }
    }
    static void Ignore(const oru::fdt::string &, int, int, void *) {}

    HpackDecoder::Scratch scratch;
    bool own[2] = {false, false};
  };

  // The HTTP decoder makes the HTTP names; without it loaded (it starts
  // before this plug-in, by name), this one does.
  static bool InitInstance() {
    if (!oru::AttributeMgr::FamilyCovers("http.request.header.")) {
      oru::WebAttributes::InitInstance("http");
    }
    return true;
  }

  // A side opens with the preface (a client) or a SETTINGS frame: most
  // connections are judged on their first bytes, before any state is made.
  static bool Opening(unsigned, ByteReader first) {
    if (first.Peek() == 'P') {
      const size_t n = first.Left() < kPrefaceLength ? first.Left() : kPrefaceLength;
      if (memcmp(first.Here(), kPreface, n) != 0) {
        return false;
      }
      first.Skip(n);
    }
    return FirstHead(first.Here(), first.Left() < 9 ? static_cast<uint32_t>(first.Left()) : 9);
  }

  static Verdict Refuse(Session<Http2> &s) {
    return s.named() ? Verdict::kDone : Verdict::kNotMine;
  }

  // The first frame's head as far as it came (`have` bytes): a SETTINGS
  // frame on stream 0, not an acknowledgement, of a few whole settings.
  static bool FirstHead(const uint8_t *h, uint32_t have) {
    for (uint32_t i = 0; i < have; ++i) {
      const bool good = i == 2   ? h[2] % 6 == 0 && h[2] <= 6 * kFirstSettings
                        : i == 3 ? h[3] == kSettings
                                 : h[i] == 0;
      if (!good) {
        return false;
      }
    }
    return true;
  }

  // A frame's head: its type's rules on stream, length and flags. Before
  // the protocol is named, an unknown type, a reserved bit or a frame
  // longer than the default refuses too.
  static bool SoundHead(const Side &side, bool strict) {
    ByteReader r(side.head, 9);
    const uint32_t length = r.U24(), type = r.U8(), flags = r.U8(), word = r.U32();
    const uint32_t stream = word & 0x7fffffff;
    if (side.open != 0) {
      return type == kContinuation && stream == side.open;
    }
    if (strict && (word != stream || length > kFrameSize || type > kContinuation)) {
      return false;
    }
    switch (type) {
    case kData:
    case kHeaders:
      return stream != 0;
    case kPriority:
      return stream != 0 && length == 5;
    case kRstStream:
      return stream != 0 && length == 4;
    case kSettings:
      return stream == 0 && length % 6 == 0 && ((flags & kAck) == 0 || length == 0);
    case kPushPromise:
      return stream != 0 && length >= 4;
    case kPing:
      return stream == 0 && length == 8;
    case kGoaway:
      return stream == 0 && length >= 8;
    case kWindowUpdate:
      return length == 4;
    case kContinuation:
      return false; // only inside a header block
    default:
      return true; // unknown types are passed over
    }
  }

  // The settings of the first SETTINGS frame: each known, each value sound.
  static bool SoundSettings(ByteReader r) {
    while (!r.Empty()) {
      const uint32_t id = r.U16(), value = r.U32();
      const bool good =
          id == 1 || id == 3 || id == 6 || ((id == 2 || id == 8 || id == 9) && value <= 1) ||
          (id == 4 && value <= 0x7fffffff) || (id == 5 && value >= kFrameSize && value <= 0xffffff);
      if (!r.Ok() || !good) {
        return false;
      }
    }
    return true;
  }

  // The fields of one header block on their way to the host.
  struct Report {
    Session<Http2> *s;
    Side *side;
    uint8_t kind; // 1: a request's, 2: a response's
    bool quiet;   // a promised request's: decoded, not reported
  };

  static bool Named(const HpackField &f, const char *name) {
    const size_t n = strlen(name);
    return f.name_length == n && memcmp(f.name, name, n) == 0;
  }

  // The identifier a host holds for a member of the HTTP decoder's header
  // families ("http.request.header.<name>"), whoever registered the family
  // on this thread: a member's identifier lives with the family's
  // registration, under the rest of its name, as the host spelled it.
  static int Member(bool request, const uint8_t *name, uint32_t n) {
    const oru::AttributeMgr *manager = oru::AttributeMgr::Peek();
    if (manager == nullptr) {
      return 0;
    }
    const char *family = kFamilies[request ? 0 : 1];
    const auto found = manager->m_registrations.find(family);
    if (found == manager->m_registrations.end() || found->first.size() != strlen(family)) {
      return 0;
    }
    for (auto it = found->second.ids.begin(); it != found->second.ids.end(); ++it) {
      const char *rest = it->first.c_str();
      bool same = it->first.size() == n;
      for (uint32_t i = 0; same && i < n; ++i) {
        const char c = rest[i] >= 'A' && rest[i] <= 'Z' ? static_cast<char>(rest[i] + 32) : rest[i];
        same = c == static_cast<char>(name[i]);
      }
      if (same) {
        return it->second;
      }
    }
    return 0;
  }

  static void Visit(void *context, const HpackField &f) {
    Report &report = *static_cast<Report *>(context);
    if (report.quiet) {
      return;
    }
    Session<Http2> &s = *report.s;
    if (f.name_length != 0 && f.name[0] == ':') {
      report.kind = Named(f, ":status") ? 2 : 1;
      if (Named(f, ":method")) {
        s.Publish(kMethod, f.value, f.value_length);
      } else if (Named(f, ":path")) {
        s.Publish(kUri, f.value, f.value_length);
      } else if (Named(f, ":status")) {
        s.Publish(kCode, f.value, f.value_length);
      } else if (Named(f, ":authority")) {
        PublishAttribute(Member(true, reinterpret_cast<const uint8_t *>("host"), 4), f.value,
                         f.value_length);
        oru::kit::ReportServerName(f.value, f.value_length, oru::SERVICE_SOURCE_HOST);
      }
      return;
    }
    if (report.kind == 0) {
      report.kind = report.side->role; // trailers
    }
    if (report.kind != 0) {
      PublishAttribute(Member(report.kind == 1, f.name, f.name_length), f.value, f.value_length);
    }
  }

  // A header block is whole: decode it, report it.
  static void Decode(Session<Http2> &s, Side &side, bool quiet) {
    Report report{&s, &side, 0, quiet};
    if (side.overflow ||
        !side.hpack.Block(side.block, side.have, s.thread().scratch, Visit, &report)) {
      side.lost = true;
    }
    if (report.kind != 0 && !quiet) {
      side.role = report.kind;
    }
    side.have = 0;
    side.open = 0;
    side.overflow = false;
    side.over = side.lost || ++side.blocks >= kBlocks;
  }

  // A frame's payload is in: SETTINGS checked, header blocks assembled.
  static Verdict Frame(Session<Http2> &s, Side &side) {
    const uint32_t length =
        static_cast<uint32_t>(side.head[0]) << 16 | side.head[1] << 8 | side.head[2];
    const uint8_t type = side.head[3], flags = side.head[4];
    const uint32_t stream = ByteReader(side.head + 5, 4).U32() & 0x7fffffff;
    ++side.frames;
    if (!side.keep) {
      return Verdict::kNeedMore;
    }
    if (type == kSettings) {
      // Judged only while it may name the protocol: later, settings of no
      // known meaning are the peer's to ignore.
      const bool sound = !side.overflow && side.have - side.frame_at == length &&
                         SoundSettings(ByteReader(side.block + side.frame_at, length));
      side.have = side.frame_at;
      side.overflow = false;
      if (!sound && !s.named()) {
        return Refuse(s);
      }
      return side.with_preface && !s.Name() ? Verdict::kNotMine : Verdict::kNeedMore;
    }
    // HEADERS and PUSH_PROMISE lose their padding and the fields before
    // the block; CONTINUATION carries block alone.
    if (type != kContinuation && !side.overflow) {
      const uint8_t *p = side.block + side.frame_at;
      const uint32_t pad = (flags & kPadded) != 0 ? p[0] : 0;
      const uint32_t lead = ((flags & kPadded) != 0 ? 1 : 0) + (type == kPushPromise           ? 4
                                                                : (flags & kPriorityFlag) != 0 ? 5
                                                                                               : 0);
      if (lead + pad > length) {
        return Refuse(s);
      }
      memmove(side.block + side.frame_at, p + lead, length - lead - pad);
      side.have = side.frame_at + length - lead - pad;
    }
    if ((flags & kEndHeaders) == 0) {
      side.open = stream;
      return Verdict::kNeedMore;
    }
    Decode(s, side, type == kPushPromise);
    return Verdict::kNeedMore;
  }

  // A frame's head is in: judged, and its payload kept or passed over.
  static Verdict Head(Session<Http2> &s, Side &side) {
    if (!SoundHead(side, !s.named())) {
      return Refuse(s);
    }
    if (side.frames == 1 && !side.with_preface && !s.Name()) {
      return Verdict::kNotMine; // a sound frame after the first SETTINGS
    }
    const uint8_t type = side.head[3];
    side.left = static_cast<uint32_t>(side.head[0]) << 16 | side.head[1] << 8 | side.head[2];
    side.keep = (side.frames == 0 && type == kSettings) || type == kHeaders ||
                type == kPushPromise || type == kContinuation;
    side.frame_at = side.have;
    return Verdict::kNeedMore;
  }

  static Verdict Feed(Session<Http2> &s, ByteReader r) {
    State &st = s.state();
    Side &side = st.side[s.side()];
    if (side.frames == 0 && side.preface == 0 && side.head_have == 0 && !r.Empty()) {
      side.with_preface = r.Peek() == 'P';
    }
    while (!r.Empty() && !side.over) {
      if (side.with_preface && side.preface < kPrefaceLength) {
        if (r.Peek() != static_cast<uint8_t>(kPreface[side.preface])) {
          return Refuse(s);
        }
        r.Skip(1);
        ++side.preface;
        continue;
      }
      if (side.head_have < 9) {
        const uint32_t take =
            static_cast<uint32_t>(r.Left() < 9u - side.head_have ? r.Left() : 9u - side.head_have);
        memcpy(side.head + side.head_have, r.Here(), take);
        side.head_have = static_cast<uint8_t>(side.head_have + take);
        r.Skip(take);
        if (side.frames == 0 && !s.named() && !FirstHead(side.head, side.head_have)) {
          return Refuse(s);
        }
        if (side.head_have < 9) {
          break;
        }
        const Verdict v = Head(s, side);
        if (v != Verdict::kNeedMore) {
          return v;
        }
      }
      const uint32_t take = static_cast<uint32_t>(r.Left() < side.left ? r.Left() : side.left);
      if (side.keep) {
        const uint32_t room = kBlock - side.have;
        const uint32_t copy = take < room ? take : room;
        memcpy(side.block + side.have, r.Here(), copy);
        side.have += copy;
        side.overflow = side.overflow || copy < take;
      }
      r.Skip(take);
      side.left -= take;
      if (side.left == 0) {
        side.head_have = 0;
        const Verdict v = Frame(s, side);
        if (v != Verdict::kNeedMore) {
          return v;
        }
      }
    }
    if (st.side[0].over && st.side[1].over) {
      return Verdict::kDone;
    }
    return s.named() ? Verdict::kNamed : Verdict::kNeedMore;
  }
};

} // namespace

KEST_DECODER(Http2)
