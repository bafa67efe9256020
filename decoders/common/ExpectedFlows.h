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
#ifndef KEST_DECODERS_EXPECTEDFLOWS_H
#define KEST_DECODERS_EXPECTEDFLOWS_H

#include <kest/Conn.h>
#include <kest/Inspector.h>
#include <kest/IpAddr.h>

#include <stddef.h>
#include <stdint.h>

namespace kest_decoders {

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

} // namespace kest_decoders

#endif
