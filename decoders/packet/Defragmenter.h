// IPv4 and IPv6 fragments of one thread put back together: fragments wait in
// owned copies by datagram (addresses, protocol, identification); where they
// overlap, the bytes that came first win; a datagram whose pieces cover it
// from 0 to the last fragment's end comes out as one IP packet. Datagrams
// that do not complete within the time-out, or that the memory cap pushes
// out (the oldest first), are dropped.
#ifndef KEST_DECODERS_DEFRAGMENTER_H
#define KEST_DECODERS_DEFRAGMENTER_H

#include "packet/PacketParser.h"

#include <kest/fdt/List.h>
#include <stdint.h>

namespace kest_decoders {

class Defragmenter {
public:
  static constexpr uint64_t kTimeoutMs = 30000;
  static constexpr uint32_t kMaxBytes = 1u << 20;

  Defragmenter() = default;
  ~Defragmenter();
  Defragmenter(const Defragmenter &) = delete;
  Defragmenter &operator=(const Defragmenter &) = delete;

  // Takes a fragment (ParsePacket's kFragment) at time `now`. When it
  // completes its datagram: a new IP packet (IPv4, or IPv6 without extension
  // headers) from kest_malloc_local, which the caller frees with
  // kest_free_local, and its length. Null otherwise, also without memory.
  uint8_t *Add(const ParsedPacket &fragment, uint64_t now, uint32_t &length);

  // Drops the datagrams whose time is up at `now`.
  void Expire(uint64_t now);

  uint32_t Bytes() const { return m_bytes; }
  size_t Datagrams() const { return m_datagrams.size(); }

private:
  struct Piece {
    uint32_t offset;
    uint32_t length;
    uint8_t *data;
  };
  struct Datagram {
    uint8_t ip_version;
    uint8_t protocol;
    oru::IpAddr src;
    oru::IpAddr dst;
    uint32_t id;
    uint64_t first_ms;
    // The end of the last fragment, once it came; 0 before.
    uint32_t total;
    oru::List<Piece> pieces; // by offset, not overlapping
  };
  using DatagramList = oru::List<Datagram>;

  void Drop(DatagramList::iterator it);
  uint8_t *Complete(Datagram &d, uint32_t &length);

  DatagramList m_datagrams; // oldest first
  uint32_t m_bytes = 0;
};

} // namespace kest_decoders

#endif
