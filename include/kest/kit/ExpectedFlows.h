// Connections that a control connection announces before they start: the
// media ports of an SDP body, FTP's data connections. While the control
// connection's policy allows future flows, each announced end point is
// expected for a while on the transport's rule store, so that the first
// packet of a matching connection reaches the inspector that knows what
// it is.
//
// ExpectedFlows keeps the rules it added (a bounded number, the oldest
// dropped first) so that it can take them back when its thread ends; every
// call runs on that thread. Derived inspectors judge the connections the
// rules bring; ExpectedProtocol names them outright.
#ifndef KEST_KIT_EXPECTEDFLOWS_H
#define KEST_KIT_EXPECTEDFLOWS_H

#include <kest/Conn.h>
#include <kest/Inspector.h>
#include <kest/IpAddr.h>
#include <kest/IpPortRuleStore.h>
#include <kest/kit/Attach.h>

#include <stddef.h>
#include <stdint.h>

namespace oru::kit {

class ExpectedFlows : public oru::Inspector {
public:
  // Seconds an expectation waits for its connection.
  static constexpr unsigned int kTimeout = 120;
  static constexpr size_t kMaxRules = 64;

  // `ip_protocol`: 6 for TCP, 17 for UDP. A one-shot expectation is taken
  // back by Used once its connection came.
  ExpectedFlows(uint8_t ip_protocol, bool one_shot)
      : m_ip_protocol(ip_protocol), m_one_shot(one_shot) {}

  // Whether announcements on `conn` may be followed.
  static bool Allowed(const oru::Conn &conn) {
    return (conn.m_policy & oru::POLICY_FUTUREFLOWS) != 0;
  }

  // Expects a connection with `port` on `addr` at one of its ends; nothing
  // for port 0 or a zero address. Announced again, the wait starts anew.
  void Expect(const oru::IpAddr &addr, uint16_t port);
  // The expectation that brought `conn` is dropped, when one-shot.
  void Used(const oru::Conn &conn);
  // Removes every rule still held.
  void Withdraw();
  // Rules held now.
  size_t Held() const { return m_count; }

private:
  struct Rule {
    oru::IpAddr addr;
    uint16_t port;
  };
  void Remove(size_t i);

  uint8_t m_ip_protocol;
  bool m_one_shot;
  Rule m_held[kMaxRules] = {};
  size_t m_count = 0;
};

// Names every expected connection with one protocol, on its first packet.
class ExpectedProtocol final : public ExpectedFlows {
public:
  ExpectedProtocol(uint8_t ip_protocol, uint32_t proto)
      : ExpectedFlows(ip_protocol, true), m_proto(proto) {}

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;

private:
  uint32_t m_proto;
};

inline void ExpectedFlows::Expect(const oru::IpAddr &addr, uint16_t port) {
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

inline void ExpectedFlows::Used(const oru::Conn &conn) {
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

inline void ExpectedFlows::Withdraw() {
  oru::IpPortRuleStore *rules = AppRules(m_ip_protocol);
  for (size_t i = 0; rules != nullptr && i < m_count; ++i) {
    rules->RemoveRuleFast(m_ip_protocol, oru::InspectorCallback(this), m_held[i].port,
                          m_held[i].addr, m_held[i].addr);
  }
  m_count = 0;
}

inline void ExpectedFlows::Remove(size_t i) {
  for (size_t k = i + 1; k < m_count; ++k) {
    m_held[k - 1] = m_held[k];
  }
  --m_count;
}

inline unsigned int ExpectedProtocol::Inspect(oru::ParentDpi * /*parent*/, oru::PktInfo & /*pkt*/,
                                              oru::Tuple & /*tuple*/,
                                              oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  if (conn.get() != nullptr) {
    conn->PushProtocol(m_proto);
    Used(*conn);
  }
  // The connection's own bytes may still say more to the other decoders.
  return oru::INSPECT_FINISHED;
}

} // namespace oru::kit

#endif
