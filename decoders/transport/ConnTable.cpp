#include "transport/ConnTable.h"

#include "transport/LimitSettings.h"

#include <kest/MemTag.h>
#include <kest/Runtime.h>
#include <kest/kit/Risks.h>

namespace kest_decoders {

ConnTable::ConnTable(uint8_t ip_protocol, uint32_t proto, uint16_t context, const char *name)
    : m_ip_protocol(ip_protocol), m_context(context), m_rules(name), m_custom(m_rules, ip_protocol),
      m_classify(proto, context, this), m_count(0), m_index(RandomSipKey()) {}

ConnTable::~ConnTable() {
  if (m_settings != nullptr) {
    m_settings->Unwatch();
  }
  Clear();
  if (m_gate != nullptr) {
    m_gate->release();
  }
}

oru::Conn *ConnTable::Create(const oru::Tuple &tuple) {
  oru::Tuple own = tuple;
  if (m_ip_protocol != 0) {
    own.protocol = m_ip_protocol;
  }
  TransportConn *conn;
  {
    oru::ScopedMemTag tag(oru::ScopedMemTag::WHOLE,
                          (uint32_t{oru::MemTag::OBJ_CONNCACHE_CONNECTION} << 16) | m_context);
    conn = TransportConn::Make(own, &m_classify, this);
  }
  if (conn == nullptr) {
    return nullptr;
  }
  {
    oru::ScopedMemTag tag(oru::ScopedMemTag::CONTEXT, m_context);
    m_rules.SetupInspection(own.src, own.dst, own.src_port, own.dst_port, own.protocol,
                            conn->m_chain);
  }
  conn->add_ref();
  LinkFirst(conn, kHost);
  ++m_count;
  m_index.Insert(conn);
  return conn;
}

void ConnTable::LinkFirst(TransportConn *conn, AgeClass age) {
  conn->m_age = age;
  conn->m_prev = nullptr;
  conn->m_next = m_head[age];
  if (m_head[age] != nullptr) {
    m_head[age]->m_prev = conn;
  } else {
    m_tail[age] = conn;
  }
  m_head[age] = conn;
}

void ConnTable::UnlinkList(TransportConn *conn) {
  const uint8_t age = conn->m_age;
  if (conn->m_prev != nullptr) {
    conn->m_prev->m_next = conn->m_next;
  } else {
    m_head[age] = conn->m_next;
  }
  if (conn->m_next != nullptr) {
    conn->m_next->m_prev = conn->m_prev;
  } else {
    m_tail[age] = conn->m_prev;
  }
  conn->m_prev = nullptr;
  conn->m_next = nullptr;
}

ConnTable::AgeClass ConnTable::ClassOf(const TransportConn &conn) const {
  if (conn.m_aged == 0) {
    return kHost;
  }
  if (conn.m_closed != 0) {
    return kClosed;
  }
  if (conn.m_fin[0] != 0 || conn.m_fin[1] != 0) {
    return kClosing;
  }
  return conn.m_seen[0] != 0 && conn.m_seen[1] != 0 ? kEstablished : kOpening;
}

uint64_t ConnTable::Timeout(AgeClass age) const {
  switch (age) {
  case kOpening:
    return m_limits.opening_ms;
  case kEstablished:
    return m_limits.established_ms;
  case kClosing:
    return m_limits.closing_ms;
  default:
    return m_limits.closed_ms;
  }
}

void ConnTable::Used(TransportConn *conn) {
  if (conn->m_table != this) {
    return;
  }
  const AgeClass age = ClassOf(*conn);
  if (m_head[age] != conn) {
    UnlinkList(conn);
    LinkFirst(conn, age);
  }
}

void ConnTable::Sweep(uint64_t now, int budget) {
  for (int age = kOpening; age < kHost && budget > 0; ++age) {
    const uint64_t timeout = Timeout(static_cast<AgeClass>(age));
    while (budget > 0 && m_tail[age] != nullptr && now - m_tail[age]->Touched() > timeout) {
      Destroy(m_tail[age]);
      --budget;
    }
  }
}

TransportConn *ConnTable::Oldest() const {
  TransportConn *oldest = nullptr;
  for (int age = kOpening; age < kHost; ++age) {
    TransportConn *last = m_tail[age];
    if (last != nullptr && (oldest == nullptr || last->Touched() < oldest->Touched())) {
      oldest = last;
    }
  }
  return oldest;
}

void ConnTable::MakeRoom() {
  // Connections the host made are the host's to end: it holds them by a
  // plain pointer.
  while (m_count >= m_limits.max_connections) {
    TransportConn *oldest = Oldest();
    if (oldest == nullptr) {
      return;
    }
    Destroy(oldest);
  }
}

void ConnTable::Idle() {
  Sweep(oru::now(), kIdleBudget);
}

void ConnTable::Destroy(oru::Conn *conn) {
  if (conn == nullptr || conn->GetInterface(TransportConn::INTERFACE_OWNER_TABLE) != this) {
    return;
  }
  TransportConn *own = static_cast<TransportConn *>(conn);
  Unlink(own);
  Drop(own);
}

void ConnTable::Clear() {
  for (;;) {
    // The most recently used of all lists first.
    TransportConn *conn = nullptr;
    for (TransportConn *first : m_head) {
      if (first != nullptr && (conn == nullptr || first->Touched() > conn->Touched())) {
        conn = first;
      }
    }
    if (conn == nullptr) {
      return;
    }
    Unlink(conn);
    // No packet is under way when the thread ends, and the connection the
    // thread touched last may be gone already: the expiry report reads the
    // active connection's policy, so make this live one the active one.
    conn->Touch();
    Drop(conn);
  }
}

void ConnTable::OnRuleUsed(const void *data, uint32_t length) {
  m_rules.ApplyAnnouncement(data, length);
}

void ConnTable::EndRisks(TransportConn &conn) {
  using oru::kit::Risk;
  const oru::AppStack &stack = *conn.GetAppStack();
  const bool named = !stack.entries.empty() && stack.app != stack.entries.front().proto;
  const bool spoke[2] = {(conn.m_spoke & 1) != 0, (conn.m_spoke & 2) != 0};
  // Most connections stop at one of the first tests: named and two-way.
  bool unknown = false;
  bool one_way = false;
  if (!named) {
    unknown = spoke[0] && spoke[1] && m_gate != nullptr && m_gate->KnownPort(conn.m_tuple.dst_port);
  } else if (spoke[0] != spoke[1]) {
    // Only a TCP connection seen from its SYN to its end, and not of a
    // protocol that is one-way by design.
    one_way = m_ip_protocol == 6 && conn.m_opened != 0 &&
              (conn.m_closed != 0 || conn.m_fin[0] != 0 || conn.m_fin[1] != 0) &&
              stack.app != m_one_way[0] && stack.app != m_one_way[1];
  }
  const bool other_port = conn.m_port_judged == 2;
  if (!unknown && !one_way && !other_port) {
    return;
  }
  // The dying connection is the one the report is about, for a moment.
  oru::Conn *&active = oru::ThreadPointer<oru::Conn>(oru::Conn::l_active_conn);
  oru::Conn *const was = active;
  active = &conn;
  if (other_port) {
    oru::kit::RaiseOnActive(Risk::kProtocolOnOtherPort);
  }
  if (unknown || one_way) {
    oru::kit::RaiseOnActive(unknown ? Risk::kUnknownOnKnownPort : Risk::kOneDirection);
  }
  active = was;
}

void ConnTable::Drop(TransportConn *conn) {
  // Inspectors hear of the end before anyone hears of the expiry, and the
  // host hears of the connection's last risks before its expiry.
  conn->EndInspection();
  EndRisks(*conn);
  oru::Conn *&active = oru::ThreadPointer<oru::Conn>(oru::Conn::l_active_conn);
  if (active == nullptr) {
    // Nothing live is active (see below): report under the dying one.
    conn->Touch();
  }
  conn->Expired();
  // The active-connection cell holds no reference. When the table's reference
  // is the last one, the cell must not be left pointing at freed memory for
  // the next report or endpoint query on this thread.
  if (conn->use_count() == 1 && active == conn) {
    active = nullptr;
  }
  conn->release();
}

void ConnTable::Unlink(TransportConn *conn) {
  m_index.Remove(conn);
  UnlinkList(conn);
  conn->m_table = nullptr;
  --m_count;
}

} // namespace kest_decoders
