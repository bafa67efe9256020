#include <kest.h>
#include <kest/Log.h>
#include <kest/MemTag.h>
#include <kest/WebDpi.h>

namespace oru {

namespace {

constexpr uint64_t kLimit32 = 0xFFFFFFFFull;

unsigned char SideOf(const Conn &conn) {
  return conn.m_side != 0 ? 1 : 0;
}

bool Digit(char c) {
  return c >= '0' && c <= '9';
}

int HexDigit(char c) {
  if (Digit(c)) {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

// Reads a chunk size line at `at`. False while the line is unfinished; else
// `c` holds its length, its size and state 1, or state -1 when invalid. The
// size is read in unsigned arithmetic and then taken as signed: a value
// above 0x7fffffff is negative and invalid, and 2^32 wraps to 0.
bool SizeLine(const FlowBuffer &flow, uint64_t at, ChunkState &c) {
  const uint64_t end = flow.End();
  const uint64_t nl = flow.Find(at, "\r\n", 2, end);
  if (nl == end) {
    return false;
  }
  c.line_length = static_cast<uint32_t>(nl - at + 2);
  const uint64_t semi = flow.Find(at, ';', nl);
  const uint64_t stop = semi != end ? semi : nl;
  uint32_t value = 0;
  int digits = 0;
  for (uint64_t p = at; p < stop; ++p) {
    const int d = HexDigit(flow.At(p));
    if (d < 0) {
      break;
    }
    value = value * 16u + static_cast<uint32_t>(d);
    ++digits;
  }
  const int32_t size = static_cast<int32_t>(value);
  if (digits == 0 || size < 0) {
    c.state = -1;
  } else {
    c.size = size;
    c.state = 1;
  }
  return true;
}

// Whether a record's key begins with `name`, in any case. A shorter key ends
// at the separator, which no name asked for holds: it is passed over without
// reading the flow.
bool KeyIs(const FlowBuffer &flow, const KeyValueRecord &r, const char *name, unsigned int n) {
  return r.key_end - r.key_start >= n && flow.CaseCompare(r.key_start, name, n) == 0;
}

} // namespace

void WebDpi::ReleaseAll() {
  m_pending_callback = InspectorCallback();
  m_transactions[1].clear();
  m_transactions[0].clear();
}

WebDpi::TransactionList &WebDpi::CurrentList(unsigned char side) {
  return m_response[side] != 0 ? m_transactions[1 - side] : m_transactions[side];
}

WebTransaction *WebDpi::CurrentTransaction(unsigned char side) {
  TransactionList &list = CurrentList(side);
  if (list.empty()) {
    return nullptr;
  }
  return m_response[side] != 0 ? &list.front() : &list.back();
}

WebHeader *WebDpi::CurrentHeader(unsigned char side) {
  WebTransaction *t = CurrentTransaction(side);
  return t == nullptr ? nullptr : &t->header[m_response[side] != 0 ? 1 : 0];
}

bool WebDpi::GetMethod(FlowString &out) const {
  if (m_current == nullptr || m_current->m_type != WebLine::LINE_REQUEST) {
    return false;
  }
  out = m_current->m_first;
  return true;
}

bool WebDpi::GetUrl(FlowString &out) const {
  if (m_current == nullptr || m_current->m_type != WebLine::LINE_REQUEST) {
    return false;
  }
  out = m_current->m_second;
  return true;
}

bool WebDpi::GetCode(FlowString &out) const {
  if (m_current == nullptr || m_current->m_type != WebLine::LINE_RESPONSE) {
    return false;
  }
  out = m_current->m_second;
  return true;
}

bool WebDpi::GetVersion(FlowString &out) const {
  if (m_current == nullptr) {
    return false;
  }
  out = m_current->m_type == WebLine::LINE_REQUEST ? m_current->m_third : m_current->m_first;
  return true;
}

bool WebDpi::ValidateTransaction(fdt::intrusive_ptr<Conn> &conn) {
  if (!CurrentList(SideOf(*conn)).empty()) {
    return true;
  }
  KEST_LOG_WARNING("ValidateTransaction",
                   "No valid Web transaction for this connection - abandoning flow");
  return false;
}

void WebDpi::FindRules(const FlowBuffer &flow, WebHeader &header, InspectorChain &chain) {
  if (m_rules == nullptr) {
    return;
  }
  for (const KeyValueRecord &r : header.m_records) {
    m_rules->SetupRule(flow, static_cast<uint32_t>(r.key_start), static_cast<uint32_t>(r.key_end),
                       static_cast<uint32_t>(r.value_start), static_cast<uint32_t>(r.value_end),
                       chain);
  }
}

void WebDpi::Normalise(uint32_t old) {
  if ((m_result & (INSPECT_STAY | INSPECT_FINISHED)) != 0) {
    m_result = (old & INSPECT_NOTHING) != 0 ? INSPECT_NOTHING : old;
  } else if ((m_result & INSPECT_NOTHING) != 0 && (old & INSPECT_NOTHING) == 0) {
    m_result = old;
  }
}

unsigned int WebDpi::ProcessRules(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                                  fdt::intrusive_ptr<Conn> &conn) {
  const uint32_t old = m_result;
  m_result = Handoff(m_chain, pkt, tuple, conn);
  Normalise(old);
  // Subscribed attributes keep the connection under inspection.
  if ((conn->m_policy & POLICY_ATTRIBUTES) != 0 && m_attributes != nullptr &&
      m_attributes->AnySubscribed()) {
    m_result |= 16;
  }
  if (OnNewPacket(parent, pkt, tuple, conn)) {
    Normalise(old);
    if (m_result != INSPECT_ABANDON) {
      return m_result;
    }
  } else {
    m_result = INSPECT_ABANDON;
  }
  parent->RegisterCallback(conn, static_cast<unsigned char>(1 - SideOf(*conn)), InspectorCallback(),
                           EVENT_NONE);
  return m_result;
}

void WebDpi::ReportBody(Conn &conn, FlowBuffer &flow, uint64_t from, uint64_t to, bool more) {
  if ((conn.m_policy & POLICY_ATTRIBUTES) == 0 || m_attributes == nullptr) {
    return;
  }
  const uint32_t length = from < to ? static_cast<uint32_t>(to - from) : 0;
  m_attributes->ProcessBodyData(m_response[SideOf(conn)] == 0, FlowString(&flow, from, length),
                                more);
}

unsigned int WebDpi::AbandonConnection(ParentDpi *parent, fdt::intrusive_ptr<Conn> &conn) {
  parent->RegisterCallback(conn, static_cast<unsigned char>(1 - SideOf(*conn)), InspectorCallback(),
                           EVENT_NONE);
  return INSPECT_ABANDON;
}

unsigned int WebDpi::Wait(ParentDpi *parent, fdt::intrusive_ptr<Conn> &conn,
                          InspectorMethod method) {
  // The parent may drop references it holds while it stores the new one.
  fdt::intrusive_ptr<Inspector> hold(this), again(this);
  parent->RegisterCallback(conn, SideOf(*conn), InspectorCallback(this, method), EVENT_DATA);
  return m_result;
}

unsigned int WebDpi::Next(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                          fdt::intrusive_ptr<Conn> &conn) {
  return Inspect(parent, pkt, tuple, conn);
}

bool WebDpi::CallbackDue(fdt::intrusive_ptr<Conn> &conn, unsigned int &result) {
  result = m_result;
  const unsigned char side = SideOf(*conn);
  WebTransaction *t = CurrentTransaction(side);
  return t != nullptr && t->event[side] != 0;
}

void WebDpi::StoreCallback(fdt::intrusive_ptr<Conn> &conn, unsigned char side,
                           InspectorCallback callback, Inspector::Event event) {
  if (event == EVENT_NEXT_TRANSACTION) {
    m_pending_callback = callback;
    return;
  }
  WebTransaction *t = CurrentTransaction(SideOf(*conn));
  if (t == nullptr) {
    return;
  }
  const unsigned char index = side != 0 ? 1 : 0;
  t->callback[index] = callback;
  t->event[index] = event;
}

unsigned int WebDpi::RunCallback(PktInfo &pkt, Tuple &tuple, fdt::intrusive_ptr<Conn> &conn) {
  const unsigned char side = SideOf(*conn);
  WebTransaction *t = CurrentTransaction(side);
  if (t == nullptr) {
    return INSPECT_NOTHING;
  }
  const InspectorCallback callback = t->callback[side];
  t->callback[side] = InspectorCallback();
  t->event[side] = EVENT_NONE;
  if (callback.object.get() == nullptr) {
    return INSPECT_NOTHING;
  }
  return callback.Call(this, pkt, tuple, conn);
}

unsigned int WebDpi::InspectLine(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                                 fdt::intrusive_ptr<Conn> &conn) {
  ScopedMemTag tag(ScopedMemTag::CONTEXT, GetMemoryContext());
  FlowBuffer &flow = conn->m_flow[SideOf(*conn)];
  if (flow.End() > kLimit32) {
    return AbandonConnection(parent, conn);
  }
  WebLine line(m_methods, GetProtocolWord());
  unsigned long long pos = flow.m_read_pos;
  const bool decided = line.Parse(flow, pos, false);
  flow.m_read_pos = pos;
  if (decided && line.m_type == WebLine::LINE_UNKNOWN) {
    AppStack &stack = *conn->GetAppStack();
    if (stack.app == GetProtocol()) {
      stack.app = stack.entries.empty() ? 0 : stack.entries.back().proto;
    }
    return AbandonConnection(parent, conn);
  }
  if (decided) {
    return HandleNewMessage(line, parent, pkt, tuple, conn);
  }
  if (flow.End() > flow.m_read_pos) {
    flow.Sync();
  }
  return Wait(parent, conn, &Inspector::Inspect);
}

unsigned int WebDpi::HandleNewMessage(WebLine &line, ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                                      fdt::intrusive_ptr<Conn> &conn) {
  const unsigned char side = SideOf(*conn);
  if (line.m_type != WebLine::LINE_REQUEST) {
    TransactionList &other = m_transactions[1 - side];
    if (other.empty()) {
      return AbandonConnection(parent, conn);
    }
    static_cast<WebLine &>(other.front().header[1]) = line;
    m_response[side] = 1;
    return InspectMessage(parent, pkt, tuple, conn);
  }
  ScopedMemTag tag(ScopedMemTag::CONTEXT, GetMemoryContext());
  if (!Pipelining()) {
    m_transactions[side].clear();
  }
  TransactionList::iterator t = m_transactions[side].emplace_back();
  if (t == m_transactions[side].end()) {
    return AbandonConnection(parent, conn);
  }
  static_cast<WebLine &>(t->header[0]) = line;
  if (m_pending_callback.object.get() != nullptr &&
      SplitMethod(m_pending_callback.method).function != 0) {
    t->callback[side] = m_pending_callback;
    t->event[side] = EVENT_DATA;
    m_pending_callback = InspectorCallback();
  }
  m_response[side] = 0;
  return InspectMessage(parent, pkt, tuple, conn);
}

bool WebDpi::MessageEnd(fdt::intrusive_ptr<Conn> &conn) {
  const unsigned char side = SideOf(*conn);
  if (m_response[side] != 1) {
    return true;
  }
  TransactionList &other = m_transactions[1 - side];
  if (other.empty()) {
    return true;
  }
  WebTransaction &t = other.front();
  if (EndOfTransaction(t.code)) {
    other.pop_front();
    return OnTransactionDone(conn);
  }
  // An interim response: the next one of this transaction starts afresh.
  WebHeader &response = t.header[1];
  response.Reset();
  response.m_first = FlowString();
  response.m_second = FlowString();
  response.m_third = FlowString();
  response.m_type = WebLine::LINE_UNKNOWN;
  return true;
}

unsigned int WebDpi::InspectMessage(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                                    fdt::intrusive_ptr<Conn> &conn) {
  ScopedMemTag tag(ScopedMemTag::CONTEXT, GetMemoryContext());
  const unsigned char side = SideOf(*conn);
  FlowBuffer &flow = conn->m_flow[side];
  if (!ValidateTransaction(conn)) {
    return AbandonConnection(parent, conn);
  }
  WebTransaction *t = CurrentTransaction(side);
  WebHeader *header = CurrentHeader(side);
  if (header->m_state == KeyValueHeader::HEADER_PARSING && !header->KeyValueHeader::Parse(flow)) {
    flow.Sync();
    return Wait(parent, conn, MakeInspectorMethod(&WebDpi::InspectMessage));
  }
  if (header->m_state == KeyValueHeader::HEADER_FAILED) {
    return AbandonConnection(parent, conn);
  }
  const bool request = m_response[side] == 0;
  if (request) {
    // The method and target take part in rule look-up like a header line.
    const FlowString &method = header->m_first;
    const FlowString &target = header->m_second;
    header->m_records.push_back(KeyValueRecord{method.pos, method.pos + method.length, target.pos,
                                               target.pos + target.length});
  } else {
    uint32_t code = 0;
    for (uint64_t p = header->m_second.pos; Digit(flow.At(p)); ++p) {
      code = code * 10u + static_cast<uint32_t>(flow.At(p) - '0');
    }
    t->code = code;
  }
  if ((conn->m_policy & POLICY_ATTRIBUTES) != 0 && m_attributes != nullptr) {
    m_attributes->ProcessHeader(header->m_type == WebLine::LINE_REQUEST, *header);
  }
  if (!OnNewMessage(conn, *header)) {
    return AbandonConnection(parent, conn);
  }
  const AppStack &stack = *conn->GetAppStack();
  if ((m_result & INSPECT_ABANDON) == 0 && t->event[0] == 0 && t->event[1] == 0 &&
      m_pending_callback.object.get() == nullptr && !stack.entries.empty() &&
      stack.entries.back().proto == GetProtocol()) {
    FindRules(flow, *header, m_chain);
  }
  m_current = header;
  ProcessRules(parent, pkt, tuple, conn);
  m_current = nullptr;
  if (m_result == INSPECT_ABANDON) {
    return m_result;
  }
  header = CurrentHeader(side);
  if (header == nullptr) {
    return AbandonConnection(parent, conn);
  }
  if (!HasMessageBody(*header)) {
    if (!MessageEnd(conn)) {
      return AbandonConnection(parent, conn);
    }
    return Next(parent, pkt, tuple, conn);
  }
  for (const KeyValueRecord &r : header->m_records) {
    if (KeyIs(flow, r, "Transfer-Encoding", 17)) {
      if (r.value_end - r.value_start > 6 && flow.Compare(r.value_start, "chunked", 7) == 0) {
        m_message_end[side] = flow.m_read_pos;
        return InspectChunk(parent, pkt, tuple, conn);
      }
      break;
    }
  }
  for (const KeyValueRecord &r : header->m_records) {
    if (KeyIs(flow, r, "Content-Length", 14)) {
      uint32_t length = 0;
      for (uint64_t p = r.value_start; p < r.value_end && Digit(flow.At(p)); ++p) {
        length = length * 10u + static_cast<uint32_t>(flow.At(p) - '0');
      }
      m_message_end[side] = flow.m_read_pos + length;
      return InspectData(parent, pkt, tuple, conn);
    }
  }
  return InspectUntilClose(parent, pkt, tuple, conn);
}

unsigned int WebDpi::InspectData(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                                 fdt::intrusive_ptr<Conn> &conn) {
  ScopedMemTag tag(ScopedMemTag::CONTEXT, GetMemoryContext());
  const unsigned char side = SideOf(*conn);
  FlowBuffer &flow = conn->m_flow[side];
  if (!ValidateTransaction(conn)) {
    return AbandonConnection(parent, conn);
  }
  const uint64_t begin = flow.Begin();
  const uint64_t end = flow.End();
  const uint64_t start = flow.m_read_pos < begin ? begin : flow.m_read_pos;
  uint64_t stop = m_message_end[side];
  bool done = true;
  if (end < stop) {
    stop = end;
    done = false;
  }
  if (start < stop || done) {
    ReportBody(*conn, flow, start, stop, !done);
  }
  ProcessRules(parent, pkt, tuple, conn);
  if (m_result == INSPECT_ABANDON) {
    return m_result;
  }
  if (!done) {
    return Wait(parent, conn, MakeInspectorMethod(&WebDpi::InspectData));
  }
  flow.m_read_pos = stop;
  if (!MessageEnd(conn)) {
    return AbandonConnection(parent, conn);
  }
  return Next(parent, pkt, tuple, conn);
}

unsigned int WebDpi::InspectChunk(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                                  fdt::intrusive_ptr<Conn> &conn) {
  ScopedMemTag tag(ScopedMemTag::CONTEXT, GetMemoryContext());
  const unsigned char side = SideOf(*conn);
  FlowBuffer &flow = conn->m_flow[side];
  if (!ValidateTransaction(conn)) {
    return AbandonConnection(parent, conn);
  }
  ChunkState &c = m_chunk[side];
  const InspectorMethod again = MakeInspectorMethod(&WebDpi::InspectChunk);
  while (true) {
    if (flow.End() > kLimit32) {
      return AbandonConnection(parent, conn);
    }
    if (c.state == 0) {
      const uint64_t at = static_cast<uint32_t>(m_message_end[side]);
      if (!SizeLine(flow, at, c)) {
        flow.Sync();
        return Wait(parent, conn, again);
      }
      if (c.state == -1) {
        return AbandonConnection(parent, conn);
      }
      m_message_end[side] = static_cast<uint32_t>(at + c.line_length);
      flow.m_read_pos = m_message_end[side];
      m_message_end[side] += static_cast<uint32_t>(c.size);
      if (c.size != 0) {
        m_message_end[side] += 2;
      }
    }
    const uint64_t end = flow.End();
    const bool has_data = c.size != 0;
    bool more = has_data;
    if (has_data && m_message_end[side] < end) {
      ChunkState next = {0, 0, 0};
      more = SizeLine(flow, m_message_end[side], next) && next.state == 1 && next.size != 0;
    }
    const uint64_t from = flow.m_read_pos;
    uint64_t to = m_message_end[side] - (has_data ? 2 : 0);
    if (to > end) {
      to = end;
    }
    if (from < to || from - c.line_length == flow.m_last_start) {
      ReportBody(*conn, flow, from, to, more);
    }
    if (!has_data) {
      // The last chunk: the trailer ends at an empty line.
      for (uint64_t s = m_message_end[side];;) {
        const uint64_t f = flow.Find(s, "\r\n", 2, end);
        if (f == end) {
          flow.Sync();
          return Wait(parent, conn, again);
        }
        if (f == s) {
          flow.m_read_pos = static_cast<uint32_t>(f + 2);
          c = ChunkState{0, 0, 0};
          if (!MessageEnd(conn)) {
            return AbandonConnection(parent, conn);
          }
          return Next(parent, pkt, tuple, conn);
        }
        s = f + 2;
      }
    }
    ProcessRules(parent, pkt, tuple, conn);
    if (m_result == INSPECT_ABANDON) {
      return m_result;
    }
    if (end < m_message_end[side]) {
      return Wait(parent, conn, again);
    }
    c = ChunkState{0, 0, 0};
    if (end == m_message_end[side]) {
      return Wait(parent, conn, again);
    }
  }
}

unsigned int WebDpi::InspectUntilClose(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                                       fdt::intrusive_ptr<Conn> &conn) {
  ScopedMemTag tag(ScopedMemTag::CONTEXT, GetMemoryContext());
  const unsigned char side = SideOf(*conn);
  FlowBuffer &flow = conn->m_flow[side];
  if (flow.End() > kLimit32) {
    return AbandonConnection(parent, conn);
  }
  // 32-bit positions, as everywhere in a message.
  ReportBody(*conn, flow, static_cast<uint32_t>(flow.m_read_pos),
             static_cast<uint32_t>(flow.End()), false);
  ProcessRules(parent, pkt, tuple, conn);
  if (m_result == INSPECT_ABANDON) {
    return m_result;
  }
  return Wait(parent, conn, MakeInspectorMethod(&WebDpi::InspectUntilClose));
}

} // namespace oru
