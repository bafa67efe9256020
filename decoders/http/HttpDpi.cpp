#include "http/HttpDpi.h"

#include "message/MessageLine.h"
#include <kest/kit/Attach.h>

#include <kest/fdt/ObjectPrefix.h>

namespace kest_http {

using kest_message::FirstLine;
using kest_message::HintsAtProtocol;
using kest_message::JudgeOpening;
using kest_message::kHttp;

namespace {

// Marks a request head by its method once the head is parsed: the request's
// bytes are gone by the time its response needs to know (a response to HEAD
// has no body, one to CONNECT opens a tunnel). The mark lives in the head's
// protocol word, which is read only while a first line is parsed.
const char kHeadMark[] = "HTTP\0HEAD";
const char kConnectMark[] = "HTTP\0CONNECT";

unsigned char SideOf(const oru::Conn &conn) {
  return conn.m_side != 0 ? 1 : 0;
}

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

} // namespace

unsigned int HttpLauncher::Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                                   oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  const unsigned char side = SideOf(*conn);
  oru::FlowBuffer &own = conn->m_flow[side];
  const oru::FlowBuffer &other = conn->m_flow[1 - side];
  const FirstLine line = JudgeOpening(own, kHttp);
  if (line == FirstLine::kRequest || line == FirstLine::kResponse) {
    // A connection that something named before (a host's rule on the
    // transport) keeps that name: its messages are read, its stack is left.
    const oru::AppStack &stack = *conn->GetAppStack();
    m_name_stack = stack.entries.empty() || stack.entries.back().proto == parent->GetProtocol();
    if (m_name_stack && !conn->PushProtocol(m_thread->http)) {
      return oru::INSPECT_FINISHED;
    }
    return Launch(parent, pkt, tuple, conn);
  }
  if (line == FirstLine::kNeedMore) {
    // The line's bytes must outlive the packet until it is whole.
    return own.Sync() ? oru::INSPECT_STAY : oru::INSPECT_FINISHED;
  }
  if (other.m_next_pos == 0 ? HintsAtProtocol(own, kHttp)
                            : JudgeOpening(other, kHttp) == FirstLine::kNeedMore) {
    // The other side decides; this side's bytes need not stay.
    if (own.m_next_pos < kHttp.max_first_line) {
      return oru::INSPECT_STAY;
    }
  }
  return oru::INSPECT_FINISHED;
}

oru::WebDpi *HttpLauncher::MakeInspector(oru::fdt::intrusive_ptr<oru::Conn> & /*conn*/) {
  return oru::fdt::CreateObject<HttpDpi>(oru::fdt::OBJECT_LOCAL, m_thread, m_name_stack);
}

unsigned int HttpDpi::Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                              oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  if (m_switch != kNone) {
    return StartTunnel(parent, pkt, tuple, conn);
  }
  const unsigned char side = SideOf(*conn);
  // Requests nobody answers (one direction captured) must not pile up.
  TransactionList &mine = m_transactions[side];
  while (mine.size() >= kMaxOpen) {
    mine.pop_front();
  }
  TransactionList &theirs = m_transactions[1 - side];
  if (theirs.empty()) {
    // A response whose request was not seen answers a request of its own,
    // so that the rest of the connection is still read.
    const oru::FlowBuffer &flow = conn->m_flow[side];
    oru::WebLine line(m_methods, GetProtocolWord());
    unsigned long long pos = flow.m_read_pos;
    if (line.Parse(flow, pos, true) && line.m_type == oru::WebLine::LINE_RESPONSE) {
      theirs.emplace_back();
    }
  }
  return InspectLine(parent, pkt, tuple, conn);
}

oru::WebTransaction *HttpDpi::AnsweredBy(const oru::WebHeader &header) {
  for (TransactionList &list : m_transactions) {
    if (!list.empty() && &list.front().header[1] == &header) {
      return &list.front();
    }
  }
  return nullptr;
}

bool HttpDpi::HasMessageBody(oru::WebHeader &header) {
  const oru::FlowBuffer *flow = header.m_flow;
  if (flow == nullptr) {
    return false;
  }
  if (header.m_type == oru::WebLine::LINE_REQUEST) {
    // A request has a body only when its head says so.
    for (const oru::KeyValueRecord &r : header.m_records) {
      if (KeyIs(*flow, r, "Content-Length", 14) || KeyIs(*flow, r, "Transfer-Encoding", 17)) {
        return true;
      }
    }
    return false;
  }
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
  return true;
}

bool HttpDpi::OnNewMessage(oru::fdt::intrusive_ptr<oru::Conn> &conn, oru::WebHeader &header) {
  if (header.m_type == oru::WebLine::LINE_REQUEST) {
    const oru::FlowBuffer &flow = conn->m_flow[SideOf(*conn)];
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
  for (const oru::AppEntry &entry : conn->GetAppStack()->entries) {
    if (entry.proto == m_thread->http) {
      return true;
    }
  }
  return conn->PushProtocol(m_thread->http);
}

unsigned int HttpDpi::StartTunnel(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                                  oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  if (!m_tunnel) {
    if (m_switch == kWebSocket && m_name_stack && !conn->PushProtocol(m_thread->websocket)) {
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
        conn, other, oru::InspectorCallback(this, oru::MakeInspectorMethod(&HttpDpi::Tunnel)),
        EVENT_DATA);
  }
  return Tunnel(parent, pkt, tuple, conn);
}

unsigned int HttpDpi::Tunnel(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
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
  parent->RegisterCallback(conn, side,
                           oru::InspectorCallback(this, oru::MakeInspectorMethod(&HttpDpi::Tunnel)),
                           EVENT_DATA);
  return result;
}

} // namespace kest_http
