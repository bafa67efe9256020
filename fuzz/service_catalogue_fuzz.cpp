// The service catalogue's reader on any text: no read outside it, no crash,
// and whatever it took answers look-ups of names and addresses drawn from
// the same bytes. The input is read twice, the second time as a user's
// catalogue over the first.
#include "service/Catalogue.h"

#include <kest.h>
#include <kest_host.h>

#include <stdlib.h>
#include <string.h>

namespace {

// The local heap's hooks, counting live blocks and failing the n-th
// allocation from when a countdown is set.
void *(*g_malloc)(size_t) = nullptr;
void (*g_free)(void *) = nullptr;
long g_live = 0;
long g_fail_in = 0;

void *CountingMalloc(size_t size) {
  if (g_fail_in > 0 && --g_fail_in == 0) {
    return nullptr;
  }
  void *block = g_malloc(size);
  g_live += block != nullptr ? 1 : 0;
  return block;
}

void CountingFree(void *block) {
  g_live -= block != nullptr ? 1 : 0;
  g_free(block);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (g_malloc == nullptr) {
    kest_host_use_libc();
    g_malloc = kest_malloc_local;
    g_free = kest_free_local;
    kest_malloc_local = CountingMalloc;
    kest_free_local = CountingFree;
  }
  // A block of exactly the input's size, so that a read past the end is one
  // past the block.
  char *copy = static_cast<char *>(malloc(size != 0 ? size : 1));
  if (copy == nullptr) {
    return 0;
  }
  if (size != 0) {
    memcpy(copy, data, size);
  }
  {
    kest_service::Catalogue catalogue;
    unsigned skipped = 0;
    // An allocation chosen by the input fails: what loaded stays usable.
    g_fail_in = size != 0 ? data[0] % 64 : 0;
    catalogue.Load(copy, size, &skipped);
    g_fail_in = 0;
    catalogue.Load(copy, size, &skipped);
    for (size_t at = 0; at < size; at += 1 + size / 16) {
      const int found = catalogue.Match(copy + at, size - at < 300 ? size - at : 300);
      if (found >= static_cast<int>(catalogue.services())) {
        abort();
      }
      uint8_t bytes[16] = {};
      memcpy(bytes, copy + at, size - at < 16 ? size - at : 16);
      if (catalogue.MatchAddress(oru::IpAddr::FromV6(bytes)) >=
          static_cast<int>(catalogue.services())) {
        abort();
      }
    }
  }
  if (g_live != 0) {
    abort();
  }
  free(copy);
  return 0;
}
