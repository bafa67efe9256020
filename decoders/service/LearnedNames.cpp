#include "service/LearnedNames.h"

#include <kest.h>

#include <new>

namespace kest_service {

LearnedNames *LearnedNames::Create() {
  void *place = kest_malloc_shared(sizeof(LearnedNames));
  if (place == nullptr) {
    return nullptr;
  }
  return new (place) LearnedNames();
}

void LearnedNames::Destroy(LearnedNames *store) {
  if (store != nullptr) {
    if (store->m_slots != nullptr) {
      kest_free_shared(store->m_slots);
    }
    kest_free_shared(store);
  }
}

uint32_t LearnedNames::Home(const oru::IpAddr &address) {
  uint64_t h = (address.m_high ^ (address.m_low * 0x9E3779B97F4A7C15ull)) * 0xff51afd7ed558ccdull;
  h ^= h >> 29;
  return static_cast<uint32_t>(h) & (kSlots - 1);
}

void LearnedNames::Learn(const oru::IpAddr &address, uint64_t key, uint32_t ttl, uint64_t now) {
  if (key == 0 || address.is_zero()) {
    return;
  }
  const uint64_t expiry = now + (ttl < kMaxTtl ? ttl : kMaxTtl);
  const uint32_t home = Home(address);
  oru::SpinGuard hold(m_lock);
  if (m_slots == nullptr) {
    // The slots come with the first answer: a host that sees no DNS never
    // pays for them.
    m_slots = static_cast<Slot *>(kest_malloc_shared(sizeof(Slot) * kSlots));
    if (m_slots == nullptr) {
      return;
    }
    kest_memset(m_slots, 0, sizeof(Slot) * kSlots);
  }
  Slot *victim = nullptr;
  for (uint32_t i = 0; i < kProbe; ++i) {
    Slot &slot = m_slots[(home + i) & (kSlots - 1)];
    if (slot.key != 0 && slot.address == address) {
      victim = &slot;
      break;
    }
    if (slot.key == 0 || slot.expiry < now) {
      if (victim == nullptr || victim->key != 0) {
        victim = &slot;
      }
    } else if (victim == nullptr || (victim->key != 0 && slot.expiry < victim->expiry)) {
      victim = &slot;
    }
  }
  if (victim->key == 0) {
    __atomic_store_n(&m_used, m_used + 1, __ATOMIC_RELAXED);
  }
  victim->address = address;
  victim->key = key;
  victim->expiry = expiry;
}

uint64_t LearnedNames::Find(const oru::IpAddr &address, uint64_t now) {
  if (__atomic_load_n(&m_used, __ATOMIC_RELAXED) == 0) {
    // Nothing learned yet: most connections of a host that sees no DNS.
    return 0;
  }
  const uint32_t home = Home(address);
  oru::SpinGuard hold(m_lock);
  for (uint32_t i = 0; i < kProbe; ++i) {
    const Slot &slot = m_slots[(home + i) & (kSlots - 1)];
    if (slot.key == 0) {
      // Slots are never emptied, and an entry never goes past an empty one.
      return 0;
    }
    if (slot.address == address) {
      return slot.expiry >= now ? slot.key : 0;
    }
  }
  return 0;
}

uint32_t LearnedNames::Alive(uint64_t now) {
  oru::SpinGuard hold(m_lock);
  uint32_t n = 0;
  for (uint32_t i = 0; m_slots != nullptr && i < kSlots; ++i) {
    n += m_slots[i].key != 0 && m_slots[i].expiry >= now ? 1 : 0;
  }
  return n;
}

} // namespace kest_service
