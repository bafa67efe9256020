// Server addresses learned from DNS answers: which catalogue suffix a client
// asked for to reach an address, until the answer's time to live runs out.
// A later connection to that address without a server name of its own is
// then named after that suffix's service.
//
// One store per instance, shared by its classifying threads: a host spreads
// connections over threads by their addresses and ports, so the DNS answer
// and the connection it announces usually land on different threads. One
// look-up under a spin lock costs a few tens of nanoseconds per new
// connection (bench/service_bench.cpp).
//
// Bounds: kSlots entries (16 bytes of address, the suffix key, the expiry:
// 32 bytes each, 512 KiB), open addressing over a window of kProbe slots; a
// full window gives up the entry closest to its expiry. A record's time to
// live counts at most kMaxTtl seconds. Only names with a catalogue service
// are stored: nothing else could name a connection.
#ifndef KEST_DECODERS_SERVICE_LEARNEDNAMES_H
#define KEST_DECODERS_SERVICE_LEARNEDNAMES_H

#include <kest/IpAddr.h>
#include <kest/SpinLock.h>

#include <stddef.h>
#include <stdint.h>

namespace kest_service {

class LearnedNames {
public:
  static constexpr uint32_t kSlots = 16384;
  static constexpr uint32_t kProbe = 8;
  static constexpr uint32_t kMaxTtl = 3600;

  // A store, from the shared hooks (its slots come with the first answer);
  // null without memory.
  static LearnedNames *Create();
  static void Destroy(LearnedNames *store);

  // `address` resolves for the suffix `key` (Catalogue::Match) from `now`
  // (seconds) for `ttl` seconds, capped.
  void Learn(const oru::IpAddr &address, uint64_t key, uint32_t ttl, uint64_t now);
  // The suffix key learned for `address` and still alive at `now`; 0 when none.
  uint64_t Find(const oru::IpAddr &address, uint64_t now);
  // Entries alive at `now` (a walk of every slot: for tests and reports).
  uint32_t Alive(uint64_t now);

private:
  struct Slot {
    oru::IpAddr address;
    uint64_t key; // 0: empty
    uint64_t expiry;
  };
  static uint32_t Home(const oru::IpAddr &address);

  oru::SpinLock m_lock = 0;
  // Slots taken, ever (they are reused, never emptied).
  uint32_t m_used = 0;
  Slot *m_slots = nullptr;
};

} // namespace kest_service

#endif
