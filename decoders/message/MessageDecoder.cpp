#include "message/MessageDecoder.h"

#include <kest/WebLine.h>

namespace kest_message {

bool Holds(oru::Conn &conn, uint32_t proto) {
  for (const oru::AppEntry &entry : conn.GetAppStack()->entries) {
    if (entry.proto == proto) {
      return true;
    }
  }
  return false;
}

namespace {

const oru::WebTransaction *Last(const oru::WebDpi::TransactionList &list) {
  return list.empty() ? nullptr : &list.back();
}

} // namespace

int32_t OpenTransactions::Count(const oru::WebDpi::TransactionList &list,
                                unsigned char side) const {
  if (list.empty()) {
    return 0;
  }
  // While a node known at the last Open remains (the count after the
  // removals is above zero), the one node the base may have appended since
  // is the only way the last node can change. Once none remains, the list
  // holds at most that node.
  return m_count[side] > 0 ? m_count[side] + (Last(list) != m_last[side] ? 1 : 0) : 1;
}

void OpenTransactions::Known(const oru::WebDpi::TransactionList &list, unsigned char side,
                             int32_t count) {
  m_count[side] = count;
  m_last[side] = Last(list);
}

void OpenTransactions::Open(oru::WebDpi &inspector, const oru::Conn &conn, unsigned char side) {
  oru::WebDpi::TransactionList &mine = inspector.m_transactions[side];
  int32_t open = Count(mine, side);
  for (; open >= static_cast<int32_t>(kMaxOpen) && !mine.empty(); --open) {
    mine.pop_front();
  }
  Known(mine, side, open);
  oru::WebDpi::TransactionList &theirs = inspector.m_transactions[1 - side];
  if (theirs.empty()) {
    const oru::FlowBuffer &flow = conn.m_flow[side];
    const char *word = inspector.GetProtocolWord();
    unsigned long long pos = flow.m_read_pos;
    // A response begins with the protocol word, after blanks the line reader
    // passes over: most lines (requests) are settled by their first byte.
    if (pos >= flow.End() || word == nullptr) {
      return;
    }
    const char first = flow.At(pos);
    if (first != word[0] && !Blank(static_cast<unsigned char>(first))) {
      return;
    }
    oru::WebLine line(inspector.m_methods, word);
    if (line.Parse(flow, pos, true) && line.m_type == oru::WebLine::LINE_RESPONSE &&
        theirs.emplace_back() != theirs.end()) {
      Known(theirs, 1 - side, 1);
    }
  }
}

bool LineLauncher::Start(const oru::kit::Spec &spec, const MessageOptions &options) {
  m_options = &options;
  const Dialect &d = *options.dialect;
  const auto lead = [this](unsigned char c) { m_leads[c >> 6] |= uint64_t{1} << (c & 63); };
  for (unsigned char c : kBlanks) {
    lead(c);
  }
  if (d.protocol != nullptr) {
    lead(static_cast<unsigned char>(d.protocol[0]));
  }
  for (size_t i = 0; i < d.method_count; ++i) {
    if (!m_methods.push_back(oru::WebMethod{d.methods[i].text, d.methods[i].length})) {
      return false;
    }
    lead(static_cast<unsigned char>(d.methods[i].text[0]));
  }
  if (!m_reg.Start(spec)) {
    return false;
  }
  m_attributes.Initialize(options.prefix);
  return true;
}

void LineLauncher::Stop() {
  if (m_options != nullptr) {
    m_attributes.ExitThread(m_options->prefix);
  }
  m_reg.Stop();
}

bool LineLauncher::Name(oru::ParentDpi * /*parent*/, oru::Conn &conn) {
  return conn.PushProtocol(Proto());
}

unsigned int LineLauncher::Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                                   oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  const Dialect &dialect = *m_options->dialect;
  const unsigned char side = SideOf(*conn);
  oru::FlowBuffer &own = conn->m_flow[side];
  const oru::FlowBuffer &other = conn->m_flow[1 - side];
  const FirstLine line = JudgeOpening(own, dialect);
  if (line == FirstLine::kRequest || line == FirstLine::kResponse) {
    if (!Name(parent, *conn)) {
      return oru::INSPECT_FINISHED;
    }
    return Launch(parent, pkt, tuple, conn);
  }
  if (line == FirstLine::kNeedMore) {
    // The line's bytes must outlive the packet until it is whole.
    return own.Sync() ? oru::INSPECT_STAY : oru::INSPECT_FINISHED;
  }
  if (other.m_next_pos == 0 ? HintsAtProtocol(own, dialect)
                            : JudgeOpening(other, dialect) == FirstLine::kNeedMore) {
    // The other side decides; this side's bytes need not stay.
    if (own.m_next_pos < dialect.max_first_line) {
      return oru::INSPECT_STAY;
    }
  }
  return oru::INSPECT_FINISHED;
}

} // namespace kest_message
