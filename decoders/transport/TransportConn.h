// A connection of the transport decoders: the library's connection record
// with the links of the per-thread table that holds it, and its inspection.
//
// Inspection state lives in the connection itself, so that it goes wherever
// the connection goes and dies with it:
//  - m_chain is filled once, when the table makes the connection, from the
//    transport's IP/port rule store; every payload of either side runs it
//    (ParentDpi::Handoff), and entries leave it as they finish.
//  - m_callback/m_event hold what an inspector registered with the
//    transport as its parent, one per side, for when the chain is empty.
// The table drains both when it lets the connection go (each chain entry
// then gets OnChainExit); the destructor releases whatever a later holder
// left, without calling anyone.
//
// Protocol() is the IP protocol of the tuple the connection was made for, so
// the library hands it back to the factory of that transport for destruction.
// Its payload entry point is the IClassify of the table that made it.
#ifndef KEST_DECODERS_TRANSPORTCONN_H
#define KEST_DECODERS_TRANSPORTCONN_H

#include <kest/Conn.h>
#include <kest/IClassify.h>
#include <kest/InspectorChain.h>

namespace kest_decoders {

class ConnTable;

class TransportConn : public oru::Conn {
public:
  // Asked of a connection, answers with the table that holds it: a table
  // destroys only connections that name it, whatever else carries the same
  // IP protocol.
  static constexpr oru::InterfaceId INTERFACE_OWNER_TABLE = 0x10301;
  // Asked of a connection, answers with the TransportConn itself: how the
  // transport tells its own connections from others it is handed.
  static constexpr oru::InterfaceId INTERFACE_TRANSPORT_CONN = 0x10302;

  // A new connection with the next number of the instance, from
  // kest_malloc_local, with no holder yet. Null without memory.
  static TransportConn *Make(const oru::Tuple &tuple, oru::IClassify *classify, ConnTable *table);

  // The transport's connection behind `conn`, or null.
  static TransportConn *Of(oru::Conn *conn) {
    return conn != nullptr
               ? static_cast<TransportConn *>(conn->GetInterface(INTERFACE_TRANSPORT_CONN))
               : nullptr;
  }

  void *GetInterface(oru::InterfaceId id) override;
  uint8_t Protocol() const override { return m_tuple.protocol; }

  // Lets go of the chain (OnChainExit for each entry) and of both
  // registered callbacks.
  void EndInspection();

  // Links of the owning table's list; null while the connection is in none.
  TransportConn *m_prev;
  TransportConn *m_next;
  // The next connection of the same index bucket, and the keyed hash of
  // its end points, kept so that growing or leaving the index does not hash
  // them again.
  TransportConn *m_index_next;
  uint64_t m_index_hash;

  oru::InspectorChain m_chain;
  oru::InspectorCallback m_callback[2];
  uint32_t m_event[2];
  // TCP, by side: whether the sequence number of position 0 is known (kept
  // in the flow's m_base_pos), and whether a FIN came.
  uint8_t m_seq_known[2];
  uint8_t m_fin[2];
  // Whether each side has sent a packet.
  uint8_t m_seen[2];
  // Made for whole packets, so the table ages it; the host's own
  // connections (kest_conn_create) are never ended behind its back.
  uint8_t m_aged;
  // TCP: over (FINs both ways, or a RST). It stays a short while, so that
  // the last acknowledgements and retransmissions find it.
  uint8_t m_closed;
  // The table's list it is in (ConnTable::AgeClass).
  uint8_t m_age;
  // Whether the decoder gate started its members (m_gate below), for its
  // chain and for an inner chain. The bytes sit together ahead of the
  // masks so that no padding falls between them.
  uint8_t m_gate_started[2];
  // A bit per side that carried payload.
  uint8_t m_spoke;
  // TCP: the client's SYN was seen, so the connection's start is in view.
  uint8_t m_opened;
  // The first naming of the connection by a decoder of the gate was judged
  // against the ports: 1, or 2 for a known protocol on another protocol's
  // port (raised at the end).
  uint8_t m_port_judged;
  // The decoder gate's record (DecoderGate): which of its members are still
  // on the connection, for its chain and for an inner chain.
  struct GateMask {
    uint64_t bits[2];
  };
  GateMask m_gate[2];
  // Of those, the ones on their own ports, tried first.
  GateMask m_gate_first[2];

private:
  // The table clears m_table when it lets a connection go, so that a late
  // Destroy of a connection someone still holds finds no owner.
  friend class ConnTable;

  TransportConn(const oru::Tuple &tuple, oru::IClassify *classify, ConnTable *table);

  oru::IClassify *m_classify;
  ConnTable *m_table;
};

// A busy link holds tens of thousands of these at once; a few bytes more
// would move every one of them to the allocators' next size class (448 to
// 512 bytes with jemalloc), a seventh more memory.
static_assert(sizeof(void *) != 8 || sizeof(TransportConn) <= 448,
              "a transport connection outgrew its allocation size class");

} // namespace kest_decoders

#endif
