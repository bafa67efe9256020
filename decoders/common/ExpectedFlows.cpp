#include "common/ExpectedFlows.h"

#include "common/AppAttach.h"

#include <kest/IpPortRuleStore.h>

namespace kest_decoders {

void ExpectedFlows::Expect(const oru::IpAddr &addr, uint16_t port) {
  oru::IpPortRuleStore *rules = AppRules(m_ip_protocol);
  if (rules == nullptr || addr.is_zero() || port == 0) {
    return;
  }
  const oru::InspectorCallback cb(this);
  size_t at = m_count;
  for (size_t i = 0; i < m_count; ++i) {
    if (m_held[i].addr == addr && m_held[i].port == port) {
      at = i;
    }
  }
  if (at < m_count) {
    // Announced again (a re-INVITE, a second PASV): the wait starts anew.
    rules->RemoveRuleFast(m_ip_protocol, cb, port, addr, addr);
    Remove(at);
  } else if (m_count == kMaxRules) {
    // The oldest expectation makes room, in the store too.
    rules->RemoveRuleFast(m_ip_protocol, cb, m_held[0].port, m_held[0].addr, m_held[0].addr);
    Remove(0);
  }
  // Held in announcement order, the oldest first.
  m_held[m_count++] = Rule{addr, port};
  // Local expiry: the rule lives in this thread's store alone, so there is
  // nobody to tell of its use. A store that refuses time-outs still gets the
  // rule; the bound on held rules then keeps their number small.
  if (!rules->AddRule(m_ip_protocol, cb, port, addr, addr, kTimeout,
                      oru::IpPortRuleStore::EXPIRY_LOCAL, true) &&
      !rules->m_allow_expiry) {
    rules->AddRule(m_ip_protocol, cb, port, addr, addr, 0, oru::IpPortRuleStore::EXPIRY_LOCAL,
                   true);
  }
}

void ExpectedFlows::Used(const oru::Conn &conn) {
  if (!m_one_shot) {
    return;
  }
  const oru::Tuple &t = conn.m_tuple;
  for (size_t i = m_count; i-- > 0;) {
    const Rule &r = m_held[i];
    if ((r.addr == t.dst && r.port == t.dst_port) || (r.addr == t.src && r.port == t.src_port)) {
      if (oru::IpPortRuleStore *rules = AppRules(m_ip_protocol)) {
        rules->RemoveRuleFast(m_ip_protocol, oru::InspectorCallback(this), r.port, r.addr, r.addr);
      }
      Remove(i);
      return;
    }
  }
}

void ExpectedFlows::Withdraw() {
  oru::IpPortRuleStore *rules = AppRules(m_ip_protocol);
  for (size_t i = 0; rules != nullptr && i < m_count; ++i) {
    rules->RemoveRuleFast(m_ip_protocol, oru::InspectorCallback(this), m_held[i].port,
                          m_held[i].addr, m_held[i].addr);
  }
  m_count = 0;
}

void ExpectedFlows::Remove(size_t i) {
  for (size_t k = i + 1; k < m_count; ++k) {
    m_held[k - 1] = m_held[k];
  }
  --m_count;
}

unsigned int ExpectedProtocol::Inspect(oru::ParentDpi * /*parent*/, oru::PktInfo & /*pkt*/,
                                       oru::Tuple & /*tuple*/,
                                       oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  if (conn.get() != nullptr) {
    conn->PushProtocol(m_proto);
    Used(*conn);
  }
  // The connection's own bytes may still say more to the other decoders.
  return oru::INSPECT_FINISHED;
}

} // namespace kest_decoders
