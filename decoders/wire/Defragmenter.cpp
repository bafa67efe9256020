#include "wire/Defragmenter.h"

#include <kest.h>

namespace kest_decoders {

// A datagram's and a piece's list nodes, and the allocator's header of a
// piece's copy.
const uint32_t Defragmenter::kDatagramCost = sizeof(oru::fdt::list_node<Datagram>);
const uint32_t Defragmenter::kPieceCost = sizeof(oru::fdt::list_node<Piece>) + 16;

Defragmenter::Defragmenter() : m_key(RandomSipKey()) {}

Defragmenter::~Defragmenter() {
  while (!m_datagrams.empty()) {
    Drop(m_datagrams.begin());
  }
}

size_t Defragmenter::BucketOf(uint8_t ip_version, uint8_t protocol, const oru::IpAddr &src,
                              const oru::IpAddr &dst, uint32_t id) const {
  uint64_t words[5];
  __builtin_memcpy(words, &src, 16);
  __builtin_memcpy(words + 2, &dst, 16);
  words[4] = uint64_t{id} | uint64_t{protocol} << 32 | uint64_t{ip_version} << 40;
  return static_cast<size_t>(SipHash13(m_key, words, 5) % kBuckets);
}

Defragmenter::DatagramList::iterator Defragmenter::Find(const ParsedPacket &f, size_t bucket) {
  for (oru::fdt::list_link *link = m_buckets[bucket]; link != nullptr;) {
    DatagramList::iterator d(link);
    if (d->id == f.frag_id && d->protocol == f.protocol && d->ip_version == f.ip_version &&
        d->src == f.src && d->dst == f.dst) {
      return d;
    }
    link = d->bucket_next;
  }
  return m_datagrams.end();
}

void Defragmenter::Drop(DatagramList::iterator it) {
  oru::fdt::list_link **link =
      &m_buckets[BucketOf(it->ip_version, it->protocol, it->src, it->dst, it->id)];
  while (*link != nullptr && *link != it.node()) {
    link = &DatagramList::iterator(*link)->bucket_next;
  }
  if (*link != nullptr) {
    *link = it->bucket_next;
  }
  for (Piece &piece : it->pieces) {
    m_bytes -= piece.length;
    m_held -= piece.length + kPieceCost;
    kest_free_local(piece.data);
  }
  m_held -= kDatagramCost;
  m_datagrams.erase(it);
}

void Defragmenter::Expire(uint64_t now) {
  while (!m_datagrams.empty() && now - m_datagrams.front().first_ms > kTimeoutMs) {
    Drop(m_datagrams.begin());
  }
}

uint8_t *Defragmenter::Add(const ParsedPacket &f, uint64_t now, uint32_t &length,
                           uint32_t *frames) {
  length = 0;
  // Time-outs first, then room for this fragment under the cap.
  Expire(now);
  if (f.payload_length == 0 || f.payload_length > kMaxBytes ||
      f.frag_offset + f.payload_length > 0xFFFF) {
    return nullptr;
  }
  // Room for the bytes, a piece, and a datagram should this be the first
  // fragment. A fragment that fills several holes at once makes a piece per
  // hole, and may go over by their book-keeping until the next one.
  while (!m_datagrams.empty() &&
         m_held + f.payload_length + kPieceCost + kDatagramCost > kMaxBytes) {
    Drop(m_datagrams.begin());
  }
  const size_t bucket = BucketOf(f.ip_version, f.protocol, f.src, f.dst, f.frag_id);
  DatagramList::iterator d = Find(f, bucket);
  if (d == m_datagrams.end()) {
    d = m_datagrams.emplace_back();
    if (d == m_datagrams.end()) {
      return nullptr;
    }
    d->ip_version = f.ip_version;
    d->protocol = f.protocol;
    d->src = f.src;
    d->dst = f.dst;
    d->id = f.frag_id;
    d->first_ms = now;
    d->total = 0;
    d->frames = 0;
    d->bucket_next = m_buckets[bucket];
    m_buckets[bucket] = d.node();
    m_held += kDatagramCost;
  }
  ++d->frames;
  uint32_t offset = f.frag_offset;
  uint32_t end = offset + f.payload_length;
  const uint8_t *bytes = f.payload;
  if (!f.frag_more) {
    d->total = end;
  }
  // First come, first kept: cut this fragment around what is held.
  oru::List<Piece>::iterator at = d->pieces.begin();
  while (at != d->pieces.end() && at->offset + at->length <= offset) {
    ++at;
  }
  while (offset < end) {
    if (at != d->pieces.end() && at->offset <= offset) {
      // Held already from here on: skip past that piece.
      const uint32_t held_end = at->offset + at->length;
      bytes += (held_end < end ? held_end : end) - offset;
      offset = held_end < end ? held_end : end;
      ++at;
      continue;
    }
    const uint32_t stop = at != d->pieces.end() && at->offset < end ? at->offset : end;
    uint8_t *copy = static_cast<uint8_t *>(kest_malloc_local(stop - offset));
    if (copy == nullptr) {
      return nullptr;
    }
    kest_memcpy(copy, bytes, stop - offset);
    if (d->pieces.insert(at, Piece{offset, stop - offset, copy}) == d->pieces.end()) {
      kest_free_local(copy);
      return nullptr;
    }
    m_bytes += stop - offset;
    m_held += stop - offset + kPieceCost;
    bytes += stop - offset;
    offset = stop;
  }
  if (d->total == 0) {
    return nullptr;
  }
  // Whole when the pieces run without a hole from 0 to the end.
  uint32_t covered = 0;
  for (const Piece &piece : d->pieces) {
    if (piece.offset != covered) {
      return nullptr;
    }
    covered += piece.length;
  }
  if (covered < d->total) {
    return nullptr;
  }
  if (frames != nullptr) {
    *frames = d->frames;
  }
  uint8_t *packet = Complete(*d, length);
  Drop(d);
  return packet;
}

uint8_t *Defragmenter::Complete(Datagram &d, uint32_t &length) {
  const uint32_t header = d.ip_version == 4 ? 20 : 40;
  length = header + d.total;
  uint8_t *p = static_cast<uint8_t *>(kest_malloc_local(length));
  if (p == nullptr) {
    length = 0;
    return nullptr;
  }
  kest_memset(p, 0, header);
  if (d.ip_version == 4) {
    p[0] = 0x45;
    p[2] = static_cast<uint8_t>(length >> 8);
    p[3] = static_cast<uint8_t>(length);
    p[8] = 64;
    p[9] = d.protocol;
    const uint32_t src = d.src.v4(), dst = d.dst.v4();
    for (int i = 0; i < 4; ++i) {
      p[12 + i] = static_cast<uint8_t>(src >> (24 - 8 * i));
      p[16 + i] = static_cast<uint8_t>(dst >> (24 - 8 * i));
    }
  } else {
    p[0] = 0x60;
    p[4] = static_cast<uint8_t>(d.total >> 8);
    p[5] = static_cast<uint8_t>(d.total);
    p[6] = d.protocol;
    p[7] = 64;
    d.src.ToV6(p + 8);
    d.dst.ToV6(p + 24);
  }
  uint32_t at = header;
  for (const Piece &piece : d.pieces) {
    if (piece.offset >= d.total) {
      break; // beyond the last fragment's end
    }
    const uint32_t n =
        piece.offset + piece.length > d.total ? d.total - piece.offset : piece.length;
    kest_memcpy(p + at, piece.data, n);
    at += n;
  }
  return p;
}

} // namespace kest_decoders
