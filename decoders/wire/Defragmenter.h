// IPv4 and IPv6 fragments of one thread put back together: fragments wait in
// owned copies by datagram (addresses, protocol, identification); where they
// overlap, the bytes that came first win; a datagram whose pieces cover it
// from 0 to the last fragment's end comes out as one IP packet. Datagrams
// that do not complete within the time-out, or that the memory cap pushes
// out (the oldest first), are dropped.
//
// Fragments that never complete are what an attacker sends most cheaply, so
// a fragment finds its datagram through a keyed hash rather than a walk over
// all that wait, and the cap counts the book-keeping of every datagram and
// piece as well as its bytes: a flood of one-byte fragments would otherwise
// hold a million datagrams under a cap of a megabyte.
#ifndef KEST_DECODERS_DEFRAGMENTER_H
#define KEST_DECODERS_DEFRAGMENTER_H

#include "transport/SipHash.h"
#include "wire/WireParser.h"

#include <kest/fdt/List.h>
#include <stdint.h>

namespace kest_decoders {

class Defragmenter {
public:
  static constexpr uint64_t kTimeoutMs = 30000;
  // What waiting datagrams may hold at most, book-keeping included.
  static constexpr uint32_t kMaxBytes = 1u << 20;

  Defragmenter();
  ~Defragmenter();
  Defragmenter(const Defragmenter &) = delete;
  Defragmenter &operator=(const Defragmenter &) = delete;

  // Takes a fragment (ParsePacket's kFragment) at time `now`. When it
  // completes its datagram: a new IP packet (IPv4, or IPv6 without extension
  // headers) from kest_malloc_local, which the caller frees with
  // kest_free_local, and its length, and in `frames` (when given) the
  // number of fragments the datagram took, duplicates included. Null
  // otherwise, also without memory.
  uint8_t *Add(const ParsedPacket &fragment, uint64_t now, uint32_t &length,
               uint32_t *frames = nullptr);

  // Drops the datagrams whose time is up at `now`.
  void Expire(uint64_t now);

  // The fragments' bytes held, and those with the book-keeping: what the
  // cap bounds.
  uint32_t Bytes() const { return m_bytes; }
  uint32_t Held() const { return m_held; }
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
    // Fragments taken, duplicates included.
    uint32_t frames;
    oru::List<Piece> pieces; // by offset, not overlapping
    // The next datagram's node in the same bucket.
    oru::fdt::list_link *bucket_next;
  };
  using DatagramList = oru::List<Datagram>;

  static constexpr size_t kBuckets = 1024;
  static const uint32_t kDatagramCost;
  static const uint32_t kPieceCost;

  size_t BucketOf(uint8_t ip_version, uint8_t protocol, const oru::IpAddr &src,
                  const oru::IpAddr &dst, uint32_t id) const;
  // The datagram of the fragment in its bucket, or the end.
  DatagramList::iterator Find(const ParsedPacket &f, size_t bucket);
  void Drop(DatagramList::iterator it);
  uint8_t *Complete(Datagram &d, uint32_t &length);

  DatagramList m_datagrams; // oldest first
  uint32_t m_bytes = 0;
  uint32_t m_held = 0;
  SipKey m_key;
  oru::fdt::list_link *m_buckets[kBuckets] = {};
};

} // namespace kest_decoders

#endif
