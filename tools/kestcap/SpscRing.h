// A single-producer, single-consumer ring of packets: the reading thread
// copies each packet in, one worker takes them out in order. Records are a
// fixed header and the bytes, padded to 8; a record never wraps (the
// producer skips the ring's tail end with a filler record instead).
//
// A side that finds the ring empty (the worker) or full (the reader) sleeps
// rather than spins: with more threads than cores, a spinning thread takes
// the core that the other side needs. The sleeper says so before it checks
// the ring a last time; the other side looks at that word after each record
// it moves and wakes it. That look has no fence (a fence per packet cost
// more than the rest of the push), so it may miss a sleeper that has just
// spoken: the next record's look sees it, and a sleep never lasts beyond
// its time limit. A full reader is woken once half the ring is free, not
// after every packet taken.
#ifndef KESTCAP_SPSCRING_H
#define KESTCAP_SPSCRING_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <semaphore>

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
    if (m_consumer_waiting.load(std::memory_order_relaxed)) {
      Wake(m_consumer_waiting, m_records);
    }
    return true;
  }

  // Producer: sleeps until half the ring is free, or `most` has passed.
  void WaitForRoom(std::chrono::microseconds most) {
    m_producer_waiting.store(true, std::memory_order_seq_cst);
    if (!HalfFree()) {
      (void)m_room.try_acquire_for(most);
    }
    m_producer_waiting.store(false, std::memory_order_relaxed);
  }

  // Producer: no more records come. A sleeping consumer wakes.
  void Close() {
    m_closed.store(true, std::memory_order_release);
    m_records.release();
  }
  // Consumer: the producer has closed the ring; what it pushed before is
  // visible to Peek.
  bool Closed() const { return m_closed.load(std::memory_order_acquire); }

  // Consumer: sleeps until a record comes, the ring is closed, or `most`
  // has passed.
  void WaitForRecord(std::chrono::microseconds most) {
    m_consumer_waiting.store(true, std::memory_order_seq_cst);
    if (m_head.load(std::memory_order_acquire) == m_tail.load(std::memory_order_relaxed) &&
        !Closed()) {
      (void)m_records.try_acquire_for(most);
    }
    m_consumer_waiting.store(false, std::memory_order_relaxed);
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
    if (m_producer_waiting.load(std::memory_order_relaxed) && HalfFree()) {
      Wake(m_producer_waiting, m_room);
    }
  }

private:
  static size_t Record(uint32_t length) { return (sizeof(Header) + length + 7) & ~size_t{7}; }

  bool HalfFree() const {
    return m_head.load(std::memory_order_acquire) - m_tail.load(std::memory_order_acquire) <=
           m_size / 2;
  }

  // After the ring moved: the other side, which said it sleeps, wakes. A
  // wake-up given to a side that found work anyway only makes its next wait
  // return early.
  static void Wake(std::atomic<bool> &waiting, std::counting_semaphore<> &signal) {
    if (waiting.exchange(false)) {
      signal.release();
    }
  }

  const size_t m_size;
  std::unique_ptr<uint8_t[]> m_data;
  alignas(64) std::atomic<size_t> m_head{0};
  std::atomic<bool> m_consumer_waiting{false};
  std::atomic<bool> m_closed{false};
  std::counting_semaphore<> m_records{0};
  alignas(64) std::atomic<size_t> m_tail{0};
  std::atomic<bool> m_producer_waiting{false};
  std::counting_semaphore<> m_room{0};
};

} // namespace kestcap

#endif
