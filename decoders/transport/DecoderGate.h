// The transport's decoder gate (kest/IDecoderGate.h): one chain entry that
// runs every joined decoder on a connection as a chain would, so that a
// connection costs one entry, not one per decoder.
//
// Which decoders are still on a connection lives in the connection itself
// (TransportConn::m_gate), once for its chain and once for an inner chain:
// a decoder that hands a connection on (an accepted STARTTLS) runs a fresh
// chain of the transport's decoders on it, and that chain holds the gate
// again while the outer one is still running it.
#ifndef KEST_DECODERS_DECODERGATE_H
#define KEST_DECODERS_DECODERGATE_H

#include "transport/TransportConn.h"

#include <kest/IDecoderGate.h>
#include <kest/Inspector.h>
#include <kest/IpPortRuleStore.h>
#include <kest/fdt/ObjectPrefix.h>

namespace kest_decoders {

class DecoderGate final : public oru::Inspector, public oru::IDecoderGate {
public:
  KEST_DELETE_BY_PREFIX

  // The gate of the transport of IP protocol `ip_protocol`, whose rule
  // store is `rules`: it is on the store (one rule, every port) while at
  // least one decoder has joined, so that a transport alone keeps empty
  // chains.
  DecoderGate(oru::IpPortRuleStore &rules, uint8_t ip_protocol)
      : m_rules(rules), m_ip_protocol(ip_protocol) {}

  bool Join(oru::Inspector *inspector, const uint16_t *ports, size_t port_count) override;
  void Leave(oru::Inspector *inspector) override;
  void Narrow(oru::Inspector *inspector, const oru::FirstBytes &first) override;

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;
  void OnChainExit(oru::fdt::intrusive_ptr<oru::Conn> &conn) override;

  // Whether `port` is on some joined decoder's list: a well-known port.
  bool KnownPort(uint16_t port) const {
    Mask mask = {};
    MarkPort(port, mask);
    return !Empty(mask);
  }

private:
  struct Member {
    oru::InspectorCallback callback;
    uint8_t port_count;
  };
  // One port of one member.
  struct PortEntry {
    uint16_t port;
    uint8_t member;
  };
  using Mask = TransportConn::GateMask;

  // The level of a call for `conn`: 0 for its chain, 1 while the gate runs
  // it already (an inner chain), 2 beyond (not followed).
  int LevelOf(const oru::Conn *conn) const { return m_busy == conn ? m_level + 1 : 0; }
  // Sets in `mask` the bit of every member tried first on `port`.
  void MarkPort(uint16_t port, Mask &mask) const;
  // Member `i` named the connection first: a known protocol on another
  // protocol's port when the server's port is some decoder's and neither
  // of the connection's ports is the namer's own.
  void JudgePorts(TransportConn &own, size_t i, const Mask &first) const;
  // Every member still on the connection at `level` leaves it.
  void ExitAll(TransportConn &own, int level, oru::fdt::intrusive_ptr<oru::Conn> &conn);

  static bool Has(const Mask &m, size_t i) { return (m.bits[i / 64] >> (i % 64) & 1) != 0; }
  static void Put(Mask &m, size_t i) { m.bits[i / 64] |= uint64_t{1} << (i % 64); }
  static void Drop(Mask &m, size_t i) { m.bits[i / 64] &= ~(uint64_t{1} << (i % 64)); }
  static bool Empty(const Mask &m) { return (m.bits[0] | m.bits[1]) == 0; }

  oru::IpPortRuleStore &m_rules;
  uint8_t m_ip_protocol;

  // Members in the order they joined; a place is never reused, so that a
  // connection's bits keep naming the decoder they named.
  Member m_members[kMaxMembers];
  size_t m_count = 0;
  // Every member's ports, sorted by port: a new connection finds the
  // decoders of its two ports by two searches rather than by a walk over
  // every member's list.
  static_assert(kMaxMembers <= 256, "a port entry names its member in a byte");
  PortEntry m_by_port[kMaxMembers * kMaxPorts];
  size_t m_port_entries = 0;
  // Who new connections get.
  Mask m_joined = {};
  // By side and first byte of a connection's first payload, the members
  // worth trying on it.
  Mask m_opens[2][256] = {};
  // The connection the gate runs now, and at which level.
  const oru::Conn *m_busy = nullptr;
  int m_level = 0;
};

} // namespace kest_decoders

#endif
