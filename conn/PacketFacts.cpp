// kest_packet_facts_get and kest_packet_shard: what a host needs to account
// for a whole packet and to pick its thread.
#include <kest.h>
#include <kest/PacketFacts.h>
#include <kest/Runtime.h>

#include "conn/PacketFacts.h"
#include "runtime/ApiFrame.h"

namespace oru {

namespace {

// One record per thread, whatever the instance: it names the instance of
// the classifying call that last marked it.
struct FactsCell {
  int instance;
  kest_packet_facts_t facts;
};
__thread FactsCell t_facts;

// Ether types that the shard key's link reader steps over or stops at.
enum : uint16_t {
  kEtherIpv4 = 0x0800,
  kEtherIpv6 = 0x86DD,
  kEtherVlan = 0x8100,
  kEtherQinQ = 0x88A8,
  kEtherQinQOld = 0x9100,
  kEtherPppoe = 0x8864,
  kEtherMpls = 0x8847,
  kEtherMplsMulticast = 0x8848,
  kPppIpv4 = 0x0021,
  kPppIpv6 = 0x0057,
};

uint16_t Be16(const uint8_t *p) {
  return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

// The offset of the IP header behind the link layer, or false when the
// frame carries no IP or is too short to say.
bool IpOffset(int selector, const uint8_t *data, uint32_t length, uint32_t &at) {
  if (selector == KEST_SELECTOR_IP) {
    at = 0;
    return true;
  }
  if (selector != KEST_SELECTOR_ETHERNET && selector != KEST_SELECTOR_LINUX_SLL) {
    return false;
  }
  at = selector == KEST_SELECTOR_ETHERNET ? 14 : 16;
  if (length < at) {
    return false;
  }
  uint16_t type = Be16(data + at - 2);
  while (type == kEtherVlan || type == kEtherQinQ || type == kEtherQinQOld) {
    if (length < at + 4) {
      return false;
    }
    type = Be16(data + at + 2);
    at += 4;
  }
  if (type == kEtherMpls || type == kEtherMplsMulticast) {
    for (;;) {
      if (length < at + 4) {
        return false;
      }
      const bool bottom = (data[at + 2] & 0x01) != 0;
      at += 4;
      if (bottom) {
        return true; // the version nibble says the rest
      }
    }
  }
  if (type == kEtherPppoe) {
    if (length < at + 8) {
      return false;
    }
    const uint16_t ppp = Be16(data + at + 6);
    at += 8;
    return ppp == kPppIpv4 || ppp == kPppIpv6;
  }
  return type == kEtherIpv4 || type == kEtherIpv6;
}

uint64_t Mix(uint64_t h) {
  h ^= h >> 33;
  h *= 0xFF51AFD7ED558CCDull;
  h ^= h >> 33;
  h *= 0xC4CEB9FE1A85EC53ull;
  return h ^ (h >> 33);
}

// A hash of `n` address bytes, 8 at a time, the last word zero-padded.
uint64_t HashAddress(const uint8_t *p, uint32_t n) {
  uint64_t h = n;
  for (uint32_t i = 0; i < n; i += 8) {
    uint64_t word = 0;
    for (uint32_t j = i; j < n && j < i + 8; ++j) {
      word = word << 8 | p[j];
    }
    h = Mix(h ^ word);
  }
  return h;
}

} // namespace

kest_packet_facts_t *PacketFactsRecord() {
  return &t_facts.facts;
}

void MarkPacketFacts() {
  t_facts.instance = Runtime::l_instance_id;
  t_facts.facts.status = KEST_PACKET_NONE;
  t_facts.facts.conn_id = 0;
}

} // namespace oru

using namespace oru;

extern "C" KEST_EXPORT int kest_packet_facts_get(kest_handle_t handle, kest_packet_facts_t *facts) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT);
  if (!frame.ok()) {
    return -1;
  }
  if (facts == nullptr) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  if (t_facts.instance != handle) {
    ThrowError(ERR_NOENT);
    return -1;
  }
  *facts = t_facts.facts;
  return 0;
}

extern "C" KEST_EXPORT uint32_t kest_packet_shard(int selector, const void *data, uint32_t length) {
  const uint8_t *p = static_cast<const uint8_t *>(data);
  uint32_t at = 0;
  if (p == nullptr || !IpOffset(selector, p, length, at) || length <= at) {
    return 0;
  }
  // IPv4 addresses at 12 and 16, IPv6 at 8 and 24.
  const uint8_t version = p[at] >> 4;
  const uint32_t size = version == 4 ? 4 : version == 6 ? 16 : 0;
  const uint32_t first = version == 4 ? 12 : 8;
  if (size == 0 || length < at + first + 2 * size) {
    return 0;
  }
  const uint64_t a = HashAddress(p + at + first, size);
  const uint64_t b = HashAddress(p + at + first + size, size);
  // Either order gives the same key.
  const uint64_t h = Mix((a < b ? a : b) * 0x9E3779B97F4A7C15ull ^ (a < b ? b : a));
  return static_cast<uint32_t>(h ^ (h >> 32));
}
