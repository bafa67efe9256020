// A single-producer, single-consumer ring of packets: the reading thread
// copies each packet in, one worker takes them out in order. Records are a
// fixed header and the bytes, padded to 8; a record never wraps (the
// producer skips the ring's tail end with a filler record instead).
#ifndef KESTCAP_SPSCRING_H
#define KESTCAP_SPSCRING_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

namespace kestcap {

class SpscRing {
public:
  struct Header {
    uint32_t length; // bytes of packet; kFiller marks the skipped tail end
    int32_t form;
    uint64_t ts_us;
  };
  static constexpr uint32_t kFiller = 0xFFFFFFFFu;

  explicit SpscRing(size_t capacity) : m_size(capacity), m_data(new uint8_t[capacity]) {}

  // Producer: false when the record does not fit now (the caller waits).
  bool Push(const Header &header, const uint8_t *bytes) {
    const size_t need = Record(header.length);
    const size_t head = m_head.load(std::memory_order_relaxed);
    const size_t tail = m_tail.load(std::memory_order_acquire);
    size_t at = head % m_size;
    size_t used = head - tail;
    size_t skip = 0;
    if (m_size - at < need) {
      skip = m_size - at; // the rest of the ring is too short: start over at 0
    }
    if (used + skip + need > m_size) {
      return false;
    }
    if (skip != 0) {
      const Header filler{kFiller, 0, 0};
      if (skip >= sizeof(Header)) {
        std::memcpy(m_data.get() + at, &filler, sizeof filler);
      }
      at = 0;
    }
    std::memcpy(m_data.get() + at, &header, sizeof header);
    std::memcpy(m_data.get() + at + sizeof header, bytes, header.length);
    m_head.store(head + skip + need, std::memory_order_release);
    return true;
  }

  // Consumer: the oldest record, or null when the ring is empty. The bytes
  // stay valid until Pop.
  const Header *Peek(const uint8_t *&bytes) {
    for (;;) {
      const size_t tail = m_tail.load(std::memory_order_relaxed);
      if (tail == m_head.load(std::memory_order_acquire)) {
        return nullptr;
      }
      const size_t at = tail % m_size;
      // A tail end too short for a header is a skip as well.
      if (m_size - at < sizeof(Header) ||
          reinterpret_cast<const Header *>(m_data.get() + at)->length == kFiller) {
        m_tail.store(tail + (m_size - at), std::memory_order_release);
        continue;
      }
      const Header *header = reinterpret_cast<const Header *>(m_data.get() + at);
      bytes = m_data.get() + at + sizeof(Header);
      return header;
    }
  }
  // For the producer: every record pushed so far has been popped.
  bool Drained() const {
    return m_tail.load(std::memory_order_acquire) == m_head.load(std::memory_order_relaxed);
  }
  void Pop(const Header &header) {
    m_tail.store(m_tail.load(std::memory_order_relaxed) + Record(header.length),
                 std::memory_order_release);
  }

private:
  static size_t Record(uint32_t length) { return (sizeof(Header) + length + 7) & ~size_t{7}; }

  const size_t m_size;
  std::unique_ptr<uint8_t[]> m_data;
  alignas(64) std::atomic<size_t> m_head{0};
  alignas(64) std::atomic<size_t> m_tail{0};
};

} // namespace kestcap

#endif
