#include <kest.h>
#include <kest/capi.h>

namespace oru {
namespace capi {

const void *memmem(const void *haystack, size_t haystack_len, const void *needle,
                   size_t needle_len) {
  if (haystack == nullptr || needle == nullptr || needle_len == 0 || haystack_len < needle_len) {
    return nullptr;
  }
  const unsigned char *hay = static_cast<const unsigned char *>(haystack);
  const unsigned char *pin = static_cast<const unsigned char *>(needle);
  const size_t last = haystack_len - needle_len;
  // The cheap first-byte test rejects most positions before the hook call.
  for (size_t pos = 0; pos <= last; ++pos) {
    if (hay[pos] == pin[0] && kest_memcmp(hay + pos, pin, needle_len) == 0) {
      return hay + pos;
    }
  }
  return nullptr;
}

} // namespace capi
} // namespace oru
