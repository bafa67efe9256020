#include "message/MessageInspector.h"

#include <kest/kit/FlowView.h>

#include <kest/FlowString.h>
#include <kest/fdt/ObjectPrefix.h>

namespace kest_message {

namespace {

const oru::IpAddr &AddrOf(const oru::Conn &conn, unsigned char side) {
  return side == 0 ? conn.m_tuple.src : conn.m_tuple.dst;
}

// Whether a header line's name is `name` (any case); blanks before the
// colon do not count.
bool KeyIs(const oru::FlowBuffer &flow, const oru::KeyValueRecord &r, const char *name,
           unsigned int n) {
  uint64_t end = r.key_end;
  while (end > r.key_start && (flow.At(end - 1) == ' ' || flow.At(end - 1) == '\t')) {
    --end;
  }
  return end - r.key_start == n && flow.CaseCompare(r.key_start, name, n) == 0;
}

// The first header line named `name` or, in SIP's compact form, `compact`
// (may be null).
const oru::KeyValueRecord *Field(const oru::WebHeader &header, const char *name,
                                 const char *compact) {
  if (header.m_flow == nullptr) {
    return nullptr;
  }
  const unsigned int n = static_cast<unsigned int>(kest_strlen(name));
  for (const oru::KeyValueRecord &r : header.m_records) {
    if (KeyIs(*header.m_flow, r, name, n) ||
        (compact != nullptr && KeyIs(*header.m_flow, r, compact, 1))) {
      return &r;
    }
  }
  return nullptr;
}

// The body's length from Content-Length ("l"); -1 without one, and a
// value beyond 16 MiB or not a number counts as none.
int64_t ContentLength(const oru::WebHeader &header) {
  const oru::KeyValueRecord *r = Field(header, "Content-Length", "l");
  if (r == nullptr) {
    return -1;
  }
  int64_t length = 0;
  uint64_t p = r->value_start;
  for (; p < r->value_end; ++p) {
    const char c = header.m_flow->At(p);
    if (c < '0' || c > '9') {
      break;
    }
    length = length * 10 + (c - '0');
    if (length > (1 << 24)) {
      return -1;
    }
  }
  return p == r->value_start ? -1 : length;
}

bool IsSdp(const oru::WebHeader &header) {
  const oru::KeyValueRecord *r = Field(header, "Content-Type", "c");
  return r != nullptr && r->value_end - r->value_start >= 15 &&
         header.m_flow->CaseCompare(r->value_start, "application/sdp", 15) == 0;
}

void ReportPiece(oru::WebAttributes &attributes, const oru::FlowBuffer &flow, bool request,
                 uint64_t from, uint64_t to, bool more) {
  const uint32_t length = from < to ? static_cast<uint32_t>(to - from) : 0;
  attributes.ProcessBodyData(request, oru::FlowString(&flow, from, length), more);
}

// The bytes [from, to) of `flow`, the first `room` of them at most, in one
// piece: in place, or copied into `scratch`. Their number in `n`.
const char *Bytes(const oru::FlowBuffer &flow, uint64_t from, uint64_t to, char *scratch,
                  size_t room, size_t &n) {
  n = from < to ? static_cast<size_t>(to - from) : 0;
  if (n > room) {
    n = room;
  }
  const uint8_t *bytes =
      oru::kit::FlowSpan(flow, from, n, reinterpret_cast<uint8_t *>(scratch), room);
  if (bytes == nullptr) {
    n = 0;
    return scratch;
  }
  return reinterpret_cast<const char *>(bytes);
}

} // namespace

bool MessageLauncher::Start(const oru::kit::Spec &spec, const MessageOptions &options) {
  if (!LineLauncher::Start(spec, options)) {
    return false;
  }
  if (options.sdp || options.transport) {
    m_media = oru::fdt::CreateObject<MediaInspector>(oru::fdt::OBJECT_LOCAL, Proto(1), Proto(2));
    if (m_media == nullptr) {
      return false;
    }
    m_media->add_ref();
  }
  return true;
}

void MessageLauncher::Stop() {
  if (m_media != nullptr) {
    m_media->Withdraw();
    m_media->release();
    m_media = nullptr;
  }
  LineLauncher::Stop();
}

void MessageLauncher::AnnounceBody(oru::Conn &conn, unsigned char side, const oru::FlowBuffer &flow,
                                   uint64_t from, uint64_t to) {
  if (!Announcing(conn)) {
    return;
  }
  char scratch[kMaxSdp];
  size_t n = 0;
  const char *body = Bytes(flow, from, to, scratch, sizeof scratch, n);
  MediaList media;
  ParseSdp(body, n, media);
  m_media->Expect(conn, media, AddrOf(conn, side));
}

void MessageLauncher::AnnounceHead(oru::Conn &conn, unsigned char side, bool request,
                                   const oru::WebHeader &header) {
  if (!options().transport || !Announcing(conn)) {
    return;
  }
  const oru::KeyValueRecord *r = Field(header, "Transport", nullptr);
  if (r == nullptr) {
    return;
  }
  char scratch[1024];
  size_t n = 0;
  const char *value =
      Bytes(*header.m_flow, r->value_start, r->value_end, scratch, sizeof scratch, n);
  // The client is whoever sends the requests.
  const unsigned char client = request ? side : static_cast<unsigned char>(1 - side);
  MediaList media;
  ParseTransport(value, n, AddrOf(conn, client),
                 AddrOf(conn, static_cast<unsigned char>(1 - client)), media);
  m_media->Expect(conn, media, AddrOf(conn, side));
}

unsigned int MessageLauncher::Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                                      oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  if (tuple.protocol == 17) {
    return Datagram(pkt, *conn);
  }
  return LineLauncher::Inspect(parent, pkt, tuple, conn);
}

oru::WebDpi *MessageLauncher::MakeInspector(oru::fdt::intrusive_ptr<oru::Conn> & /*conn*/) {
  return oru::fdt::CreateObject<MessageInspector>(oru::fdt::OBJECT_LOCAL, this);
}

unsigned int MessageLauncher::Datagram(oru::PktInfo &pkt, oru::Conn &conn) {
  const MessageOptions &info = options();
  const unsigned char side = SideOf(conn);
  oru::FlowBuffer &flow = conn.m_flow[side];
  const bool named = Holds(conn, Proto());
  // Once named, datagrams of other kinds (keep-alives) are passed over.
  const unsigned int other = named ? oru::INSPECT_STAY : oru::INSPECT_FINISHED;
  const uint64_t from = pkt.stream_pos;
  const uint64_t end = from + pkt.length < flow.End() ? from + pkt.length : flow.End();
  if (from < flow.Begin() || from >= end) {
    return other;
  }
  const FirstLine line = SniffFirstLine(flow, from, end, *info.dialect);
  if (line != FirstLine::kRequest && line != FirstLine::kResponse) {
    return other;
  }
  const bool request = line == FirstLine::kRequest;
  oru::WebHeader header;
  header.m_methods = &methods();
  header.m_protocol = info.dialect->protocol;
  unsigned long long pos = from;
  header.WebLine::Parse(flow, pos, true);
  // A head without its blank line (a datagram cut short) gives what it has.
  header.KeyValueHeader::Parse(flow, pos);
  if (pos > end) {
    pos = end;
  }
  if (!request && info.search_response && Field(header, "ST", nullptr) == nullptr &&
      Field(header, "USN", nullptr) == nullptr) {
    return other;
  }
  if (!named && !conn.PushProtocol(Proto())) {
    return oru::INSPECT_FINISHED;
  }
  // The head runs to the read position.
  flow.m_read_pos = pos;
  attributes().ProcessHeader(request, header);
  // Over UDP the body is the rest of the datagram, unless a length cuts it.
  uint64_t stop = end;
  const int64_t length = ContentLength(header);
  if (length >= 0 && pos + static_cast<uint64_t>(length) < stop) {
    stop = pos + static_cast<uint64_t>(length);
  }
  if (stop > pos) {
    ReportPiece(attributes(), flow, request, pos, stop, false);
    if (info.sdp && (IsSdp(header) || (length < 0 && flow.Compare(pos, "v=0", 3) == 0))) {
      AnnounceBody(conn, side, flow, pos, stop);
    }
  }
  AnnounceHead(conn, side, request, header);
  return oru::INSPECT_STAY;
}

bool MessageInspector::OnNewMessage(oru::fdt::intrusive_ptr<oru::Conn> &conn,
                                    oru::WebHeader &header) {
  const unsigned char side = SideOf(*conn);
  const oru::FlowBuffer &flow = conn->m_flow[side];
  const bool request = header.m_type == oru::WebLine::LINE_REQUEST;
  m_launcher->AnnounceHead(*conn, side, request, header);
  const int64_t length = ContentLength(header);
  m_body_end[side] = 0;
  if (length > 0) {
    m_body_start[side] = flow.m_read_pos;
    m_body_end[side] = flow.m_read_pos + static_cast<uint64_t>(length);
    m_body_request[side] = request;
    m_body_sdp[side] = m_launcher->options().sdp && m_launcher->Announcing(*conn) &&
                       length <= static_cast<int64_t>(kMaxSdp) && IsSdp(header);
  }
  return true;
}

bool MessageInspector::Body(oru::Conn &conn, unsigned char side) {
  oru::FlowBuffer &flow = conn.m_flow[side];
  const uint64_t begin = flow.Begin();
  const uint64_t end = flow.End();
  const uint64_t from = flow.m_read_pos < begin ? begin : flow.m_read_pos;
  const uint64_t stop = m_body_end[side];
  if (end < stop) {
    // An SDP body is kept until it is whole; others are reported as they
    // pass.
    if (m_body_sdp[side] && !flow.Sync()) {
      m_body_sdp[side] = false;
    }
    if (!m_body_sdp[side]) {
      ReportPiece(m_launcher->attributes(), flow, m_body_request[side], from, end, true);
      if (end > from) {
        flow.m_read_pos = end;
      }
    }
    return false;
  }
  ReportPiece(m_launcher->attributes(), flow, m_body_request[side], from, stop, false);
  if (m_body_sdp[side] && begin <= m_body_start[side]) {
    m_launcher->AnnounceBody(conn, side, flow, m_body_start[side], stop);
  }
  flow.m_read_pos = stop;
  m_body_end[side] = 0;
  m_body_sdp[side] = false;
  return true;
}

unsigned int MessageInspector::Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                                       oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  const unsigned char side = SideOf(*conn);
  if (m_body_end[side] != 0 && !Body(*conn, side)) {
    // The parent may drop its reference while it stores the new one.
    oru::fdt::intrusive_ptr<oru::Inspector> hold(this), again(this);
    parent->RegisterCallback(conn, side, oru::InspectorCallback(this), EVENT_DATA);
    return m_result;
  }
  m_open.Open(*this, *conn, side);
  return InspectLine(parent, pkt, tuple, conn);
}

} // namespace kest_message
