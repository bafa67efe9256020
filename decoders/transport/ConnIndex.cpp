#include "transport/ConnIndex.h"

#include <kest.h>

namespace kest_decoders {

namespace {

constexpr size_t kFirstSize = 64;

bool Before(const oru::IpAddr &a, uint16_t port_a, const oru::IpAddr &b, uint16_t port_b) {
  return a < b || (a == b && port_a < port_b);
}

void Put(uint64_t *out, const oru::IpAddr &addr) {
  __builtin_memcpy(out, &addr, 16);
}

bool Matches(const TransportConn *c, const oru::IpAddr &src, uint16_t src_port,
             const oru::IpAddr &dst, uint16_t dst_port, uint8_t protocol) {
  const oru::Tuple &t = c->m_tuple;
  return t.protocol == protocol &&
         ((t.src == src && t.src_port == src_port && t.dst == dst && t.dst_port == dst_port) ||
          (t.src == dst && t.src_port == dst_port && t.dst == src && t.dst_port == src_port));
}

} // namespace

ConnIndex::~ConnIndex() {
  if (m_buckets != nullptr) {
    kest_free_local(m_buckets);
  }
}

uint64_t ConnIndex::Hash(const oru::IpAddr &a, uint16_t port_a, const oru::IpAddr &b,
                         uint16_t port_b) const {
  // The lower end point first, so both directions hash alike.
  const bool a_first = Before(a, port_a, b, port_b);
  const oru::IpAddr &lo = a_first ? a : b;
  const oru::IpAddr &hi = a_first ? b : a;
  const uint64_t ports = a_first ? static_cast<uint64_t>(port_a) << 16 | port_b
                                 : static_cast<uint64_t>(port_b) << 16 | port_a;
  if ((lo.m_high | hi.m_high | (lo.m_low >> 32) | (hi.m_low >> 32)) == 0) {
    // Two IPv4 addresses fill one word: two words to hash, not five.
    const uint64_t words[2] = {lo.m_low << 32 | hi.m_low, ports};
    return SipHash13(m_key, words, 2);
  }
  uint64_t words[5];
  Put(words, lo);
  Put(words + 2, hi);
  words[4] = ports;
  return SipHash13(m_key, words, 5);
}

void ConnIndex::Insert(TransportConn *conn) {
  if (m_count >= m_size) {
    Grow();
  }
  if (m_size == 0) {
    // Not even the first buckets: the connection stays out of the index.
    conn->m_index_next = nullptr;
    return;
  }
  const oru::Tuple &t = conn->m_tuple;
  conn->m_index_hash = Hash(t.src, t.src_port, t.dst, t.dst_port);
  TransportConn *&head = m_buckets[Bucket(conn->m_index_hash)];
  conn->m_index_next = head;
  head = conn;
  ++m_count;
}

void ConnIndex::Remove(TransportConn *conn) {
  if (m_size == 0) {
    return;
  }
  for (TransportConn **link = &m_buckets[Bucket(conn->m_index_hash)]; *link != nullptr;
       link = &(*link)->m_index_next) {
    if (*link == conn) {
      *link = conn->m_index_next;
      conn->m_index_next = nullptr;
      --m_count;
      return;
    }
  }
}

TransportConn *ConnIndex::Find(const oru::IpAddr &src, uint16_t src_port, const oru::IpAddr &dst,
                               uint16_t dst_port, uint8_t protocol) const {
  if (m_size == 0) {
    return nullptr;
  }
  const uint64_t hash = Hash(src, src_port, dst, dst_port);
  for (TransportConn *c = m_buckets[Bucket(hash)]; c != nullptr; c = c->m_index_next) {
    if (c->m_index_hash == hash && Matches(c, src, src_port, dst, dst_port, protocol)) {
      return c;
    }
  }
  return nullptr;
}

void ConnIndex::Grow() {
  const size_t size = m_size == 0 ? kFirstSize : m_size * 2;
  TransportConn **buckets =
      static_cast<TransportConn **>(kest_malloc_local(size * sizeof(TransportConn *)));
  if (buckets == nullptr) {
    return;
  }
  for (size_t i = 0; i < size; ++i) {
    buckets[i] = nullptr;
  }
  TransportConn **old = m_buckets;
  const size_t old_size = m_size;
  m_buckets = buckets;
  m_size = size;
  for (size_t i = 0; i < old_size; ++i) {
    for (TransportConn *c = old[i]; c != nullptr;) {
      TransportConn *next = c->m_index_next;
      TransportConn *&head = m_buckets[Bucket(c->m_index_hash)];
      c->m_index_next = head;
      head = c;
      c = next;
    }
  }
  if (old != nullptr) {
    kest_free_local(old);
  }
}

} // namespace kest_decoders
