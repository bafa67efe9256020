// A transport's connections on one thread, its connection factory, and its
// IP/port rule store.
//
// The store is the one other plug-ins reach through the broker
// (INTERFACE_IPPORT_RULE_STORE): Create fills each new connection's chain
// from it. The table is also the thread's handler of the store's rule-use
// announcements.
//
// The table holds one reference on every connection it made, from Create
// until Destroy or until the thread ends; the host's kest_conn_t is a plain
// pointer to such a connection. Whole-packet forms look connections up here
// by their tuple. Ageing sweeps the list from its least recently used end,
// a few connections per packet and more in kest_idle (INTERFACE_IDLE).
#ifndef KEST_DECODERS_CONNTABLE_H
#define KEST_DECODERS_CONNTABLE_H

#include "transport/ConnIndex.h"
#include "transport/CustomRules.h"
#include "transport/DecoderGate.h"
#include "transport/PayloadClassifier.h"
#include "transport/TransportConn.h"

#include <kest/IConnFactory.h>
#include <kest/IIdle.h>
#include <kest/IpPortRuleStore.h>
#include <kest/SyncEventQueue.h>
#include <stddef.h>
#include <stdint.h>

namespace kest_decoders {

class LimitSettings;

class ConnTable final : public oru::IConnFactory, public oru::EventTarget, public oru::IIdle {
public:
  // Connections looked at per kest_idle, at most.
  static constexpr int kIdleBudget = 1024;

  // How long a connection may stay silent, by its state, in milliseconds,
  // and how many connections the table holds at most.
  struct Limits {
    uint64_t opening_ms = 30000;      // before both sides spoke
    uint64_t established_ms = 600000; // after
    uint64_t closing_ms = 30000;      // TCP after a FIN
    uint64_t closed_ms = 5000;        // TCP after FINs both ways or a RST
    size_t max_connections = 1000000;
  };

  // A connection's list: one per time-out, each ordered from the most to the
  // least recently used, so that a sweep stops at the first connection whose
  // time is not up. The host's own connections are never aged.
  enum AgeClass : uint8_t { kOpening, kEstablished, kClosing, kClosed, kHost, kClasses };

  // `ip_protocol` is the IP protocol of all its connections, or 0 for a
  // table of whatever number each connection's tuple says; `proto` the transport's protocol index
  // on this thread, `context` the memory context of the transport, `name` the store's name (kept as
  // a pointer).
  ConnTable(uint8_t ip_protocol, uint32_t proto, uint16_t context, const char *name);
  // Drops every connection still held, as Clear().
  ~ConnTable();
  ConnTable(const ConnTable &) = delete;
  ConnTable &operator=(const ConnTable &) = delete;

  // A connection for the tuple, whose protocol becomes this table's (if it
  // has one), with its
  // chain filled from the store (source as the first end point); null
  // without memory.
  oru::Conn *Create(const oru::Tuple &tuple) override;
  // Expires the connection and drops the table's reference. A connection the
  // table does not hold is left alone.
  void Destroy(oru::Conn *conn) override;

  // Expires and drops every connection, newest first.
  void Clear();
  // The connection of these end points, in either direction, or null; of
  // IP protocol `protocol` in the table of any number (IpProtocol() 0).
  TransportConn *Find(const oru::IpAddr &src, uint16_t src_port, const oru::IpAddr &dst,
                      uint16_t dst_port, uint8_t protocol = 0) const {
    return m_index.Find(src, src_port, dst, dst_port,
                        m_ip_protocol != 0 ? m_ip_protocol : protocol);
  }
  const ConnIndex &Index() const { return m_index; }
  size_t Count() const { return m_count; }
  uint8_t IpProtocol() const { return m_ip_protocol; }
  PayloadClassifier &Classifier() { return m_classify; }
  oru::IpPortRuleStore &Rules() { return m_rules; }
  CustomRules &Custom() { return m_custom; }

  void SetLimits(const Limits &limits) { m_limits = limits; }
  const Limits &GetLimits() const { return m_limits; }
  // The connection was used now, or changed its state: it goes to the front
  // of the list of its state, away from ageing.
  void Used(TransportConn *conn);
  // Ends the connections whose time is up at `now`, least recently used
  // first, looking at `budget` of them at most; each reports "conn.expired".
  void Sweep(uint64_t now, int budget);
  // Makes room for one more connection: at the limit, the least recently
  // used of all goes.
  void MakeRoom();
  // kest_idle's share of the sweep.
  void Idle() override;

  // The handler of the store's event: another thread (or this one) used a
  // synced rule.
  void OnRuleUsed(const void *data, uint32_t length);

  // The watcher that keeps the limits in step with the configuration, held
  // for the thread by the plug-in's thread start-up.
  LimitSettings *m_settings = nullptr;
  // The decoders' gate, on the store with one rule; the table holds a
  // reference from the thread's start-up.
  DecoderGate *m_gate = nullptr;
  // Protocols that carry data one way by design (a data connection, a log
  // stream), not judged one_direction; 0 where a protocol is not known.
  uint32_t m_one_way[2] = {};

private:
  void Unlink(TransportConn *conn);
  // Puts the connection first in the list of `age`.
  void LinkFirst(TransportConn *conn, AgeClass age);
  // Takes the connection out of its list (not the index).
  void UnlinkList(TransportConn *conn);
  AgeClass ClassOf(const TransportConn &conn) const;
  uint64_t Timeout(AgeClass age) const;
  // The least recently used of the aged lists' last connections, or null.
  TransportConn *Oldest() const;
  // Reports the connection expired and drops the table's reference.
  void Drop(TransportConn *conn);
  // The risks known only at the connection's end, raised on it before its
  // expiry is reported.
  void EndRisks(TransportConn &conn);

  uint8_t m_ip_protocol;
  uint16_t m_context;
  oru::IpPortRuleStore m_rules;
  CustomRules m_custom;
  PayloadClassifier m_classify;
  TransportConn *m_head[kClasses] = {};
  TransportConn *m_tail[kClasses] = {};
  size_t m_count;
  Limits m_limits;
  ConnIndex m_index;
};

} // namespace kest_decoders

#endif
