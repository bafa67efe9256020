// A connection of the transport decoders: the library's connection record
// with the links of the per-thread table that holds it.
//
// Protocol() is the IP protocol of the tuple the connection was made for, so
// the library hands it back to the factory of that transport for destruction.
// Its payload entry point is the IClassify of the table that made it.
#ifndef KEST_DECODERS_TRANSPORTCONN_H
#define KEST_DECODERS_TRANSPORTCONN_H

#include <kest/Conn.h>
#include <kest/IClassify.h>

namespace kest_decoders {

class ConnTable;

class TransportConn : public oru::Conn {
public:
  // Asked of a connection, answers with the table that holds it: a table
  // destroys only connections that name it, whatever else carries the same
  // IP protocol.
  static constexpr oru::InterfaceId INTERFACE_OWNER_TABLE = 0x10301;

  // A new connection with the next number of the instance, from
  // kest_malloc_local, with no holder yet. Null without memory.
  static TransportConn *Make(const oru::Tuple &tuple, oru::IClassify *classify, ConnTable *table);

  void *GetInterface(oru::InterfaceId id) override;
  uint8_t Protocol() const override { return m_tuple.protocol; }

  // Links of the owning table's list; null while the connection is in none.
  TransportConn *m_prev;
  TransportConn *m_next;

private:
  // The table clears m_table when it lets a connection go, so that a late
  // Destroy of a connection someone still holds finds no owner.
  friend class ConnTable;

  TransportConn(const oru::Tuple &tuple, oru::IClassify *classify, ConnTable *table);

  oru::IClassify *m_classify;
  ConnTable *m_table;
};

} // namespace kest_decoders

#endif
