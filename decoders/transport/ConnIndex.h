// The connections of a transport on one thread by their end points: both
// directions of a flow find the same connection. Buckets are chosen by a
// keyed hash (SipHash with a random key per table), so that addresses that
// differ only where an attacker chooses still spread over the buckets.
#ifndef KEST_DECODERS_CONNINDEX_H
#define KEST_DECODERS_CONNINDEX_H

#include "transport/SipHash.h"
#include "transport/TransportConn.h"

#include <stddef.h>

namespace kest_decoders {

class ConnIndex {
public:
  explicit ConnIndex(const SipKey &key) : m_key(key) {}
  ~ConnIndex();
  ConnIndex(const ConnIndex &) = delete;
  ConnIndex &operator=(const ConnIndex &) = delete;

  // Files the connection under its tuple. Growing the buckets may fail for
  // want of memory; the connection is filed all the same, in longer chains.
  void Insert(TransportConn *conn);
  void Remove(TransportConn *conn);
  // The connection of these end points in either direction and of this IP
  // protocol, or null. The protocol is not hashed: one table holds one
  // protocol, but for the transport of the rarely seen numbers.
  TransportConn *Find(const oru::IpAddr &src, uint16_t src_port, const oru::IpAddr &dst,
                      uint16_t dst_port, uint8_t protocol) const;

  size_t Count() const { return m_count; }
  size_t BucketCount() const { return m_size; }

private:
  uint64_t Hash(const oru::IpAddr &a, uint16_t port_a, const oru::IpAddr &b, uint16_t port_b) const;
  size_t Bucket(uint64_t hash) const { return static_cast<size_t>(hash) & (m_size - 1); }
  void Grow();

  SipKey m_key;
  TransportConn **m_buckets = nullptr;
  size_t m_size = 0;
  size_t m_count = 0;
};

} // namespace kest_decoders

#endif
