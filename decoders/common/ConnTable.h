// A transport's connections on one thread, and its connection factory.
//
// The table holds one reference on every connection it made, from Create
// until Destroy or until the thread ends; the host's kest_conn_t is a plain
// pointer to such a connection. Whole-packet forms will look connections up
// here by their tuple, and ageing (Conn::Idle) will sweep this list.
#ifndef KEST_DECODERS_CONNTABLE_H
#define KEST_DECODERS_CONNTABLE_H

#include "common/PayloadClassifier.h"
#include "common/TransportConn.h"

#include <kest/IConnFactory.h>
#include <stddef.h>
#include <stdint.h>

namespace kest_decoders {

class ConnTable final : public oru::IConnFactory {
public:
  // `ip_protocol` is 6 or 17, `proto` the transport's protocol index on this
  // thread, `context` the memory context of the transport.
  ConnTable(uint8_t ip_protocol, uint32_t proto, uint16_t context);
  // Drops every connection still held, as Clear().
  ~ConnTable();
  ConnTable(const ConnTable &) = delete;
  ConnTable &operator=(const ConnTable &) = delete;

  // A connection for the tuple, whose protocol becomes this table's; null
  // without memory.
  oru::Conn *Create(const oru::Tuple &tuple) override;
  // Expires the connection and drops the table's reference. A connection the
  // table does not hold is left alone.
  void Destroy(oru::Conn *conn) override;

  // Expires and drops every connection, newest first.
  void Clear();
  size_t Count() const { return m_count; }
  PayloadClassifier &Classifier() { return m_classify; }

private:
  void Unlink(TransportConn *conn);
  // Reports the connection expired and drops the table's reference.
  void Drop(TransportConn *conn);

  uint8_t m_ip_protocol;
  uint16_t m_context;
  PayloadClassifier m_classify;
  TransportConn *m_head;
  size_t m_count;
};

} // namespace kest_decoders

#endif
