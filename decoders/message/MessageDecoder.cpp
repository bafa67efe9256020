#include "message/MessageDecoder.h"

#include "transport/TransportPlugin.h"
#include <kest/kit/Attach.h>

#include <kest/FlowString.h>
#include <kest/ProtocolRegistry.h>
#include <kest/fdt/ObjectPrefix.h>

namespace kest_message {

namespace {

unsigned char SideOf(const oru::Conn &conn) {
  return conn.m_side != 0 ? 1 : 0;
}

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

void ReportPiece(MessageThread &thread, const oru::Conn &conn, const oru::FlowBuffer &flow,
                 bool request, uint64_t from, uint64_t to, bool more) {
  if ((conn.m_policy & oru::POLICY_ATTRIBUTES) == 0) {
    return;
  }
  const uint32_t length = from < to ? static_cast<uint32_t>(to - from) : 0;
  thread.attributes.ProcessBodyData(request, oru::FlowString(&flow, from, length), more);
}

bool Named(oru::Conn &conn, uint32_t proto) {
  for (const oru::AppEntry &entry : conn.GetAppStack()->entries) {
    if (entry.proto == proto) {
      return true;
    }
  }
  return false;
}

} // namespace

void AnnounceBody(MessageThread &thread, oru::Conn &conn, unsigned char side,
                  const oru::FlowBuffer &flow, uint64_t from, uint64_t to) {
  if (thread.media == nullptr || (conn.m_policy & oru::POLICY_FUTUREFLOWS) == 0) {
    return;
  }
  char body[kMaxSdp];
  const size_t n = CopyOut(flow, from, to, body, sizeof body);
  MediaList media;
  ParseSdp(body, n, media);
  thread.media->Expect(conn, media, AddrOf(conn, side));
}

void AnnounceHead(MessageThread &thread, oru::Conn &conn, unsigned char side, bool request,
                  const oru::WebHeader &header) {
  if (thread.media == nullptr || !thread.info->transport ||
      (conn.m_policy & oru::POLICY_FUTUREFLOWS) == 0) {
    return;
  }
  const oru::KeyValueRecord *r = Field(header, "Transport", nullptr);
  if (r == nullptr) {
    return;
  }
  char value[1024];
  const size_t n = CopyOut(*header.m_flow, r->value_start, r->value_end, value, sizeof value);
  // The client is whoever sends the requests.
  const unsigned char client = request ? side : static_cast<unsigned char>(1 - side);
  MediaList media;
  ParseTransport(value, n, AddrOf(conn, client),
                 AddrOf(conn, static_cast<unsigned char>(1 - client)), media);
  thread.media->Expect(conn, media, AddrOf(conn, side));
}

unsigned int MessageLauncher::Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                                      oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  const Dialect &dialect = *m_thread->info->dialect;
  const unsigned char side = SideOf(*conn);
  oru::FlowBuffer &own = conn->m_flow[side];
  const oru::FlowBuffer &other = conn->m_flow[1 - side];
  const FirstLine line = JudgeOpening(own, dialect);
  if (line == FirstLine::kRequest || line == FirstLine::kResponse) {
    if (!conn->PushProtocol(m_thread->proto)) {
      return oru::INSPECT_FINISHED;
    }
    return Launch(parent, pkt, tuple, conn);
  }
  if (line == FirstLine::kNeedMore) {
    return own.Sync() ? oru::INSPECT_STAY : oru::INSPECT_FINISHED;
  }
  if (other.m_next_pos == 0 ? HintsAtProtocol(own, dialect)
                            : JudgeOpening(other, dialect) == FirstLine::kNeedMore) {
    if (own.m_next_pos < dialect.max_first_line) {
      return oru::INSPECT_STAY;
    }
  }
  return oru::INSPECT_FINISHED;
}

oru::WebDpi *MessageLauncher::MakeInspector(oru::fdt::intrusive_ptr<oru::Conn> & /*conn*/) {
  return oru::fdt::CreateObject<MessageDpi>(oru::fdt::OBJECT_LOCAL, m_thread);
}

bool MessageDpi::OnNewMessage(oru::fdt::intrusive_ptr<oru::Conn> &conn, oru::WebHeader &header) {
  const unsigned char side = SideOf(*conn);
  const oru::FlowBuffer &flow = conn->m_flow[side];
  const bool request = header.m_type == oru::WebLine::LINE_REQUEST;
  AnnounceHead(*m_thread, *conn, side, request, header);
  const int64_t length = ContentLength(header);
  m_body_end[side] = 0;
  if (length > 0) {
    m_body_start[side] = flow.m_read_pos;
    m_body_end[side] = flow.m_read_pos + static_cast<uint64_t>(length);
    m_body_request[side] = request;
    m_body_sdp[side] = m_thread->info->sdp && m_thread->media != nullptr &&
                       (conn->m_policy & oru::POLICY_FUTUREFLOWS) != 0 &&
                       length <= static_cast<int64_t>(kMaxSdp) && IsSdp(header);
  }
  return true;
}

bool MessageDpi::Body(oru::Conn &conn, unsigned char side) {
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
      ReportPiece(*m_thread, conn, flow, m_body_request[side], from, end, true);
      if (end > from) {
        flow.m_read_pos = end;
      }
    }
    return false;
  }
  ReportPiece(*m_thread, conn, flow, m_body_request[side], from, stop, false);
  if (m_body_sdp[side] && begin <= m_body_start[side]) {
    AnnounceBody(*m_thread, conn, side, flow, m_body_start[side], stop);
  }
  flow.m_read_pos = stop;
  m_body_end[side] = 0;
  m_body_sdp[side] = false;
  return true;
}

unsigned int MessageDpi::Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                                 oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  const unsigned char side = SideOf(*conn);
  const oru::FlowBuffer &flow = conn->m_flow[side];
  if (m_body_end[side] != 0 && !Body(*conn, side)) {
    // The parent may drop its reference while it stores the new one.
    oru::fdt::intrusive_ptr<oru::Inspector> hold(this), again(this);
    parent->RegisterCallback(conn, side, oru::InspectorCallback(this), EVENT_DATA);
    return m_result;
  }
  // Requests nobody answers (one direction captured) must not pile up.
  TransactionList &mine = m_transactions[side];
  while (mine.size() >= kMaxOpen) {
    mine.pop_front();
  }
  TransactionList &theirs = m_transactions[1 - side];
  if (theirs.empty()) {
    // A response whose request was not seen answers a request of its own.
    oru::WebLine line(m_methods, GetProtocolWord());
    unsigned long long pos = flow.m_read_pos;
    if (line.Parse(flow, pos, true) && line.m_type == oru::WebLine::LINE_RESPONSE) {
      theirs.emplace_back();
    }
  }
  return InspectLine(parent, pkt, tuple, conn);
}

unsigned int DatagramInspector::Inspect(oru::ParentDpi * /*parent*/, oru::PktInfo &pkt,
                                        oru::Tuple & /*tuple*/,
                                        oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  const PluginInfo &info = *m_thread->info;
  const unsigned char side = SideOf(*conn);
  oru::FlowBuffer &flow = conn->m_flow[side];
  const bool named = Named(*conn, m_thread->proto);
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
  header.m_methods = &m_thread->methods;
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
  if (!named && !conn->PushProtocol(m_thread->proto)) {
    return oru::INSPECT_FINISHED;
  }
  if ((conn->m_policy & oru::POLICY_ATTRIBUTES) != 0) {
    flow.m_read_pos = pos;
    m_thread->attributes.ProcessHeader(request, header);
  }
  // Over UDP the body is the rest of the datagram, unless a length cuts it.
  uint64_t stop = end;
  const int64_t length = ContentLength(header);
  if (length >= 0 && pos + static_cast<uint64_t>(length) < stop) {
    stop = pos + static_cast<uint64_t>(length);
  }
  if (stop > pos) {
    ReportPiece(*m_thread, *conn, flow, request, pos, stop, false);
    if (info.sdp && (IsSdp(header) || (length < 0 && flow.Compare(pos, "v=0", 3) == 0))) {
      AnnounceBody(*m_thread, *conn, side, flow, pos, stop);
    }
  }
  AnnounceHead(*m_thread, *conn, side, request, header);
  return oru::INSPECT_STAY;
}

const char *PluginName(const PluginInfo &info) {
  return info.name;
}

bool PluginVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
  if (own != nullptr) {
    *own = oru::VersionRecord{kest_decoders::TransportPlugin::kMajor, 0, 0, 1, "decoders"};
  }
  return library != nullptr && library->major == kest_decoders::TransportPlugin::kMajor;
}

namespace {

// Plain pointers: a thread-local with a destructor may be gone before the
// thread's kest_fini runs.
thread_local MessageThread *t_thread = nullptr;
thread_local MessageLauncher *t_launcher = nullptr;
thread_local DatagramInspector *t_datagram = nullptr;

oru::kit::AppPorts Tcp(const PluginInfo &info) {
  return oru::kit::AppPorts{6, info.tcp_ports, info.tcp_port_count};
}

oru::kit::AppPorts Udp(const PluginInfo &info) {
  return oru::kit::AppPorts{17, info.udp_ports, info.udp_port_count};
}

template <class T> void Release(T *&object) {
  if (object != nullptr) {
    object->release();
    object = nullptr;
  }
}

} // namespace

bool PluginInitInstance(const PluginInfo &info) {
  oru::RegisterProtocol(info.protocol);
  if (info.sdp || info.transport) {
    oru::RegisterProtocol("RTP");
    oru::RegisterProtocol("RTCP");
  }
  return oru::WebAttributes::InitInstance(info.prefix) &&
         oru::InterfaceBroker::RegisterModule(info.module, info.module_name);
}

namespace {

bool StartThreadState(const PluginInfo &info) {
  t_thread = oru::fdt::CreateObject<MessageThread>(oru::fdt::OBJECT_LOCAL);
  if (t_thread == nullptr) {
    return false;
  }
  t_thread->info = &info;
  const Dialect &d = *info.dialect;
  for (size_t i = 0; i < d.method_count; ++i) {
    if (!t_thread->methods.push_back(oru::WebMethod{d.methods[i].text, d.methods[i].length})) {
      return false;
    }
  }
  const int proto = oru::GetProtocolId(info.protocol);
  if (proto <= 0) {
    return false;
  }
  t_thread->proto = static_cast<uint32_t>(proto);
  t_thread->attributes.Initialize(info.prefix);
  if (info.sdp || info.transport) {
    const int rtp = oru::GetProtocolId("RTP");
    const int rtcp = oru::GetProtocolId("RTCP");
    if (rtp <= 0 || rtcp <= 0) {
      return false;
    }
    t_thread->media = oru::fdt::CreateObject<MediaInspector>(
        oru::fdt::OBJECT_LOCAL, static_cast<uint32_t>(rtp), static_cast<uint32_t>(rtcp));
    if (t_thread->media == nullptr) {
      return false;
    }
    t_thread->media->add_ref();
  }
  if (info.tcp) {
    t_launcher = oru::fdt::CreateObject<MessageLauncher>(oru::fdt::OBJECT_LOCAL, t_thread);
    if (t_launcher == nullptr) {
      return false;
    }
    t_launcher->add_ref();
  }
  if (info.udp) {
    t_datagram = oru::fdt::CreateObject<DatagramInspector>(oru::fdt::OBJECT_LOCAL, t_thread);
    if (t_datagram == nullptr) {
      return false;
    }
    t_datagram->add_ref();
  }
  return true;
}

} // namespace

// A failed start gives back what it took itself: the plug-in manager calls
// no ExitThread for a plug-in whose InitThread failed.
bool PluginInitThread(const PluginInfo &info) {
  if (StartThreadState(info)) {
    return true;
  }
  PluginExitThread(info);
  return false;
}

void PluginLinkThread(const PluginInfo &info) {
  if (t_launcher != nullptr) {
    oru::kit::Attach(t_launcher, Tcp(info));
  }
  if (t_datagram != nullptr) {
    oru::kit::Attach(t_datagram, Udp(info));
  }
}

void PluginExitThread(const PluginInfo &info) {
  // The transports' threads may have ended first, and their stores with
  // them.
  oru::kit::Detach(t_launcher, Tcp(info));
  oru::kit::Detach(t_datagram, Udp(info));
  Release(t_launcher);
  Release(t_datagram);
  if (t_thread != nullptr) {
    if (t_thread->media != nullptr) {
      t_thread->media->Withdraw();
      Release(t_thread->media);
    }
    t_thread->attributes.ExitThread(info.prefix);
    oru::fdt::DestroyObject(t_thread);
    t_thread = nullptr;
  }
}

void PluginExitInstance(const PluginInfo &info) {
  oru::InterfaceBroker::UnregisterModule(info.module, info.module_name);
}

} // namespace kest_message
