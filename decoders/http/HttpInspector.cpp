#include "http/HttpInspector.h"

#include "http/HttpRisks.h"
#include "http/HttpRules.h"
#include <kest/kit/Attach.h>
#include <kest/kit/FlowView.h>
#include <kest/kit/Risks.h>
#include <kest/kit/Services.h>
#include <kest/kit/TextLine.h>

#include <kest/InterfaceBroker.h>
#include <kest/MemTag.h>
#include <kest/fdt/ObjectPrefix.h>

namespace kest_http {

using kest_message::SideOf;

namespace {

// Marks a request head by its method once the head is parsed: the request's
// bytes are gone by the time its response needs to know (a response to HEAD
// has no body, one to CONNECT opens a tunnel). The mark lives in the head's
// protocol word, which is read only while a first line is parsed.
const char kHeadMark[] = "HTTP\0HEAD";
const char kConnectMark[] = "HTTP\0CONNECT";

// Whether a header line's name is `name` (any case).
bool KeyIs(const oru::FlowBuffer &flow, const oru::KeyValueRecord &r, const char *name,
           unsigned int n) {
  return r.key_end - r.key_start == n && flow.CaseCompare(r.key_start, name, n) == 0;
}

// Whether the value of a header line holds `token` (lower case), in any case.
bool ValueHas(const oru::FlowBuffer &flow, const oru::KeyValueRecord &r, const char *token,
              unsigned int n) {
  for (uint64_t p = r.value_start; p + n <= r.value_end; ++p) {
    if (flow.CaseCompare(p, token, n) == 0) {
      return true;
    }
  }
  return false;
}

// The value of a header line, cut to `max` bytes, copied a block at a time;
// its length.
uint32_t CopyValue(const oru::FlowBuffer &flow, const oru::KeyValueRecord &r, char *out,
                   uint32_t max) {
  const uint64_t length = r.value_end - r.value_start;
  return oru::kit::CopyFlow(flow, r.value_start, out,
                            length < max ? static_cast<uint32_t>(length) : max);
}

// A request's Host names the server for service naming.
void ReportHost(const oru::FlowBuffer &flow, const oru::WebHeader &header) {
  for (const oru::KeyValueRecord &r : header.m_records) {
    if (KeyIs(flow, r, "Host", 4) && r.value_end > r.value_start) {
      char host[256];
      oru::kit::ReportServerName(host, CopyValue(flow, r, host, sizeof host),
                                 oru::SERVICE_SOURCE_HOST);
      return;
    }
  }
}

} // namespace

void HttpInspector::RequestRisks(const oru::FlowBuffer &flow, const oru::WebHeader &header) {
  if (!oru::kit::RisksWantedOnThread()) {
    return;
  }
  char value[kRiskValueMax];
  for (const oru::KeyValueRecord &r : header.m_records) {
    if (KeyIs(flow, r, "Host", 4)) {
      if (NumericHost(value, CopyValue(flow, r, value, sizeof value))) {
        oru::kit::RaiseOnce(m_raised, oru::kit::Risk::kHttpNumericHost);
      }
    } else if (KeyIs(flow, r, "Authorization", 13)) {
      if (BasicCredentials(value, CopyValue(flow, r, value, sizeof value))) {
        oru::kit::RaiseOnce(m_raised, oru::kit::Risk::kClearTextCredentials);
      }
    } else if (KeyIs(flow, r, "User-Agent", 10)) {
      if (SuspiciousAgent(value, CopyValue(flow, r, value, sizeof value))) {
        oru::kit::RaiseOnce(m_raised, oru::kit::Risk::kSuspiciousUserAgent);
      }
    }
  }
}

bool HttpLauncher::Start(const oru::kit::Spec &spec, const kest_message::MessageOptions &options) {
  m_module = spec.module;
  if (!LineLauncher::Start(spec, options)) {
    return false;
  }
  m_rules = oru::fdt::CreateObject<oru::KeyValueRuleStore>(oru::fdt::OBJECT_LOCAL, options.prefix);
  if (m_rules == nullptr) {
    return false;
  }
  m_custom = oru::fdt::CreateObject<HttpCustomRules>(oru::fdt::OBJECT_LOCAL, *m_rules);
  oru::InterfaceBroker *broker = oru::InterfaceBroker::Instance();
  if (m_custom == nullptr || broker == nullptr ||
      !broker->RegisterInterface(m_module, oru::INTERFACE_CUSTOM_RULE,
                                 static_cast<oru::ICustomRule *>(m_custom))) {
    oru::fdt::DestroyObject(m_custom);
    m_custom = nullptr;
    return false;
  }
  return true;
}

void HttpLauncher::Stop() {
  oru::InterfaceBroker *broker = oru::InterfaceBroker::Instance();
  if (m_custom != nullptr && broker != nullptr) {
    broker->UnregisterInterface(m_module, oru::INTERFACE_CUSTOM_RULE,
                                static_cast<oru::ICustomRule *>(m_custom));
  }
  oru::fdt::DestroyObject(m_custom);
  m_custom = nullptr;
  oru::fdt::DestroyObject(m_rules);
  m_rules = nullptr;
  LineLauncher::Stop();
}

bool HttpLauncher::Name(oru::ParentDpi *parent, oru::Conn &conn) {
  const oru::AppStack &stack = *conn.GetAppStack();
  m_name_stack = stack.entries.empty() || stack.entries.back().proto == parent->GetProtocol();
  return !m_name_stack || conn.PushProtocol(Proto(kHttpProto));
}

oru::WebDpi *HttpLauncher::MakeInspector(oru::fdt::intrusive_ptr<oru::Conn> & /*conn*/) {
  return oru::fdt::CreateObject<HttpInspector>(oru::fdt::OBJECT_LOCAL, this, m_name_stack);
}

unsigned int HttpInspector::Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                                    oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  if (m_switch != kNone) {
    return StartTunnel(parent, pkt, tuple, conn);
  }
  const unsigned char side = SideOf(*conn);
  oru::FlowBuffer &flow = conn->m_flow[side];
  if (flow.End() > 0xFFFFFFFFull) {
    return InspectLine(parent, pkt, tuple, conn);
  }
  if (flow.m_read_pos < flow.Begin() && !m_lost[side]) {
    // Where the side's next message begins fell into a hole.
    m_lost[side] = true;
    m_lost_at[side] = flow.Begin();
  }
  if (m_lost[side] && !Resync(flow, side)) {
    return WaitForLine(parent, conn, side);
  }
  m_open.Open(*this, *conn, side);
  oru::ScopedMemTag tag(oru::ScopedMemTag::CONTEXT, GetMemoryContext());
  oru::WebLine line(m_methods, GetProtocolWord());
  uint64_t next = 0;
  // A loose request line (blanks in the target, a version cut short or
  // missing), which the line reader turns away or misreads.
  const oru::kit::Match loose = kest_message::ReadLooseRequest(
      flow, flow.m_read_pos, kest_message::kHttp, *m_methods, line, next);
  if (loose == oru::kit::Match::kYes) {
    flow.m_read_pos = next;
    if (oru::kit::RisksWantedOnThread()) {
      oru::kit::RaiseOnce(m_raised, oru::kit::Risk::kHttpMalformedRequest);
    }
    return HandleNewMessage(line, parent, pkt, tuple, conn);
  }
  if (loose == oru::kit::Match::kMore) {
    flow.Sync();
    return WaitForLine(parent, conn, side);
  }
  unsigned long long pos = flow.m_read_pos;
  const bool decided = line.Parse(flow, pos, false);
  flow.m_read_pos = pos;
  if (decided && line.m_type == oru::WebLine::LINE_UNKNOWN) {
    // Not a message's first line where one should begin: the side's
    // message before it was cut short, or its beginning was never
    // captured. Its next message is looked for; the other side reads on.
    m_lost[side] = true;
    m_lost_at[side] = flow.m_read_pos;
    if (!Resync(flow, side)) {
      return WaitForLine(parent, conn, side);
    }
    // A response found so gets a request of its own when none waits.
    m_open.Open(*this, *conn, side);
    oru::WebLine found(m_methods, GetProtocolWord());
    pos = flow.m_read_pos;
    if (!found.Parse(flow, pos, false) || (found.m_type != oru::WebLine::LINE_REQUEST &&
                                           found.m_type != oru::WebLine::LINE_RESPONSE)) {
      return WaitForLine(parent, conn, side);
    }
    flow.m_read_pos = pos;
    return HandleNewMessage(found, parent, pkt, tuple, conn);
  }
  if (decided) {
    return HandleNewMessage(line, parent, pkt, tuple, conn);
  }
  if (flow.End() > flow.m_read_pos) {
    flow.Sync();
  }
  return WaitForLine(parent, conn, side);
}

unsigned int HttpInspector::WaitForLine(oru::ParentDpi *parent,
                                        oru::fdt::intrusive_ptr<oru::Conn> &conn,
                                        unsigned char side) {
  // The parent may drop its reference while it stores the new one.
  oru::fdt::intrusive_ptr<oru::Inspector> hold(this), again(this);
  parent->RegisterCallback(conn, side, oru::InspectorCallback(this), EVENT_DATA);
  return m_result;
}

bool HttpInspector::Resync(oru::FlowBuffer &flow, unsigned char side) {
  uint64_t &at = m_lost_at[side];
  if (at < flow.Begin()) {
    // Another hole given up.
    at = flow.Begin();
  }
  const uint64_t end = flow.End();
  // A body's lines mostly lie in one block: read in place.
  const oru::kit::FlowTail tail(flow, at);
  const auto next_line = [&](uint64_t from) {
    const uint64_t nl = tail.Whole() ? tail.Find(from, '\n', end) : flow.Find(from, '\n', end);
    return nl == end ? end : nl + 1;
  };
  for (int lines = 0; at < end; ++lines) {
    if (lines == kResyncLines) {
      // A long message's bytes: the next packet's are tried.
      at = end;
      break;
    }
    const char lead = tail.Whole() ? tail.At(at) : flow.At(at);
    if (!m_launcher->MayLead(static_cast<unsigned char>(lead))) {
      // No first line begins so (the line reader would turn it away): the
      // bytes of a body, passed over without reading the line.
      at = next_line(at);
      continue;
    }
    oru::WebLine line(m_methods, GetProtocolWord());
    unsigned long long pos = at;
    if (!line.Parse(flow, pos, true)) {
      // A line not whole yet, waited for within the first line's bound.
      if (end - at < kest_message::kHttp.max_first_line && flow.Sync()) {
        return false;
      }
    } else if (line.m_type == oru::WebLine::LINE_REQUEST ||
               line.m_type == oru::WebLine::LINE_RESPONSE) {
      flow.m_read_pos = at;
      m_lost[side] = false;
      return true;
    }
    at = next_line(at);
  }
  return false;
}

oru::WebTransaction *HttpInspector::AnsweredBy(const oru::WebHeader &header) {
  for (TransactionList &list : m_transactions) {
    if (!list.empty() && &list.front().header[1] == &header) {
      return &list.front();
    }
  }
  return nullptr;
}

bool HttpInspector::HasMessageBody(oru::WebHeader &header) {
  const oru::FlowBuffer *flow = header.m_flow;
  if (flow == nullptr) {
    return false;
  }
  if (header.m_type == oru::WebLine::LINE_REQUEST) {
    ReportHost(*flow, header);
    // A request has a body only when its head says so.
    for (const oru::KeyValueRecord &r : header.m_records) {
      if (KeyIs(*flow, r, "Content-Length", 14) || KeyIs(*flow, r, "Transfer-Encoding", 17)) {
        return true;
      }
    }
    return false;
  }
  // A new response: the body of the last one was looked at, or never will be.
  m_body_flow = nullptr;
  unsigned int code = 0;
  for (uint32_t i = 0; i < header.m_second.length && i < 3; ++i) {
    code = code * 10u + static_cast<unsigned int>(flow->At(header.m_second.pos + i) - '0');
  }
  const oru::WebTransaction *t = AnsweredBy(header);
  const char *mark = t != nullptr ? t->header[0].m_protocol : nullptr;
  if (code == 101) {
    m_switch = kUpgrade;
    for (const oru::KeyValueRecord &r : header.m_records) {
      if (KeyIs(*flow, r, "Upgrade", 7) && ValueHas(*flow, r, "websocket", 9)) {
        m_switch = kWebSocket;
      }
    }
    return false;
  }
  if (code < 200 || code == 204 || code == 304 || mark == kHeadMark) {
    return false;
  }
  if (mark == kConnectMark && code < 300) {
    m_switch = kConnect;
    return false;
  }
  // The body follows the head; a chunked one begins with a size line, and
  // is not looked at.
  bool chunked = false;
  for (const oru::KeyValueRecord &r : header.m_records) {
    chunked =
        chunked || (KeyIs(*flow, r, "Transfer-Encoding", 17) && ValueHas(*flow, r, "chunked", 7));
  }
  if (!chunked && (m_raised & oru::kit::RiskBit(oru::kit::Risk::kHttpExecutable)) == 0 &&
      oru::kit::RisksWantedOnThread()) {
    m_body_at = flow->m_read_pos;
    m_body_flow = flow;
    m_magic_have = 0;
  }
  return true;
}

bool HttpInspector::OnNewMessage(oru::fdt::intrusive_ptr<oru::Conn> &conn, oru::WebHeader &header) {
  if (header.m_type == oru::WebLine::LINE_REQUEST) {
    const oru::FlowBuffer &flow = conn->m_flow[SideOf(*conn)];
    RequestRisks(flow, header);
    const oru::FlowString &method = header.m_first;
    if (method.length == 4 && flow.Compare(method.pos, "HEAD", 4) == 0) {
      header.m_protocol = kHeadMark;
    } else if (method.length == 7 && flow.Compare(method.pos, "CONNECT", 7) == 0) {
      header.m_protocol = kConnectMark;
    }
  }
  if (!m_name_stack) {
    return true;
  }
  // Once named, HTTP stays where it is: a custom protocol a rule put above
  // it keeps the top of the stack for the connection's later messages.
  const uint32_t http = m_launcher->Proto(kHttpProto);
  return kest_message::Holds(*conn, http) || conn->PushProtocol(http);
}

bool HttpInspector::OnNewPacket(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                                oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  const oru::FlowBuffer &flow = conn->m_flow[SideOf(*conn)];
  if (m_body_flow == &flow) {
    for (uint64_t at = m_body_at + m_magic_have; m_magic_have < 4 && at < flow.End(); ++at) {
      if (at < flow.Begin()) {
        // Bytes lost to a gap: the body is not judged.
        m_body_flow = nullptr;
        break;
      }
      m_magic[m_magic_have++] = static_cast<unsigned char>(flow.At(at));
    }
    if (m_body_flow != nullptr && m_magic_have == 4) {
      // The body's first four bytes are in: a program or not.
      m_body_flow = nullptr;
      if (ExecutableMagic(m_magic)) {
        oru::kit::RaiseOnce(m_raised, oru::kit::Risk::kHttpExecutable);
      }
    }
  }
  return WebDpi::OnNewPacket(parent, pkt, tuple, conn);
}

unsigned int HttpInspector::StartTunnel(oru::ParentDpi *parent, oru::PktInfo &pkt,
                                        oru::Tuple &tuple,
                                        oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  if (!m_tunnel) {
    if (m_switch == kWebSocket && m_name_stack &&
        !conn->PushProtocol(m_launcher->Proto(kWebSocketProto))) {
      return AbandonConnection(parent, conn);
    }
    // WebSocket frames say nothing more; and only a connection that may
    // change its protocol is handed to the other inspectors.
    oru::IpPortRuleStore *rules = oru::kit::AppRules(6);
    if (m_switch == kWebSocket || (conn->m_policy & oru::POLICY_CHAMELEON) == 0 ||
        rules == nullptr) {
      return AbandonConnection(parent, conn);
    }
    const oru::Tuple &t = conn->m_tuple;
    rules->SetupInspection(t.src, t.dst, t.src_port, t.dst_port, 6, m_chain);
    m_tunnel = true;
    const unsigned char other = static_cast<unsigned char>(1 - SideOf(*conn));
    parent->RegisterCallback(
        conn, other, oru::InspectorCallback(this, oru::MakeInspectorMethod(&HttpInspector::Tunnel)),
        EVENT_DATA);
  }
  return Tunnel(parent, pkt, tuple, conn);
}

unsigned int HttpInspector::Tunnel(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                                   oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  // The parent may drop its reference while the new registration is stored.
  oru::fdt::intrusive_ptr<oru::Inspector> hold(this);
  const unsigned char side = SideOf(*conn);
  const oru::FlowBuffer &flow = conn->m_flow[side];
  // The inner protocol begins behind the last HTTP message: the head that
  // switched may share the packet with it.
  oru::PktInfo inner = pkt;
  const uint64_t from = flow.m_read_pos;
  if (from > inner.stream_pos) {
    const uint64_t skip = from - inner.stream_pos;
    inner.data = skip < inner.length ? inner.data + skip : nullptr;
    inner.length = skip < inner.length ? inner.length - static_cast<uint32_t>(skip) : 0;
    inner.stream_pos = from;
  }
  unsigned int result = oru::INSPECT_STAY;
  if (inner.length != 0) {
    result = Handoff(m_chain, inner, tuple, conn);
    if (m_chain.empty()) {
      // The inner inspectors are done: so is this one.
      parent->RegisterCallback(conn, static_cast<unsigned char>(1 - side), oru::InspectorCallback(),
                               EVENT_NONE);
      return result == oru::INSPECT_STAY ? oru::INSPECT_FINISHED : result;
    }
  }
  parent->RegisterCallback(
      conn, side, oru::InspectorCallback(this, oru::MakeInspectorMethod(&HttpInspector::Tunnel)),
      EVENT_DATA);
  return result;
}

} // namespace kest_http
