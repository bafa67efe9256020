// Small C-style routines that the library offers plug-ins.
#ifndef KEST_CAPI_H
#define KEST_CAPI_H

#include <kest/Export.h>
#include <stddef.h>

namespace oru {
namespace capi {

// The first occurrence of `needle` in `haystack`, or null. Null as well when
// either pointer is null, `needle_len` is 0 or the haystack is shorter than the
// needle. Bytes are compared with kest_memcmp.
KEST_API const void *memmem(const void *haystack, size_t haystack_len, const void *needle,
                            size_t needle_len);

} // namespace capi
} // namespace oru

#endif
