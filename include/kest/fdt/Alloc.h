// The two container allocators. They hold no state: the type of a container
// alone says which hook heap its memory comes from, and so which threads may
// touch it. Local memory belongs to one thread; shared memory is for data that
// several threads reach under the owner's lock.
#ifndef KEST_FDT_ALLOC_H
#define KEST_FDT_ALLOC_H

#include <kest.h>
#include <kest/Export.h>
#include <stddef.h>
#include <stdint.h>

namespace oru {

// Memory from kest_malloc_local, returned with kest_free_local.
template <class T> struct KEST_API local_container_alloc {
  using value_type = T;
  static constexpr bool is_shared = false;

  template <class U> struct rebind { using other = local_container_alloc<U>; };

  // Room for n objects, uninitialised; null when the hook has none or the
  // byte count would not fit a size_t.
  static T *allocate(size_t n) {
    if (n == 0 || n > SIZE_MAX / sizeof(T)) {
      return nullptr;
    }
    return static_cast<T *>(kest_malloc_local(n * sizeof(T)));
  }

  static void deallocate(T *p, size_t /*n*/) {
    if (p != nullptr) {
      kest_free_local(p);
    }
  }
};

// Memory from kest_malloc_shared, returned with kest_free_shared.
template <class T> struct KEST_API shared_container_alloc {
  using value_type = T;
  static constexpr bool is_shared = true;

  template <class U> struct rebind { using other = shared_container_alloc<U>; };

  static T *allocate(size_t n) {
    if (n == 0 || n > SIZE_MAX / sizeof(T)) {
      return nullptr;
    }
    return static_cast<T *>(kest_malloc_shared(n * sizeof(T)));
  }

  static void deallocate(T *p, size_t /*n*/) {
    if (p != nullptr) {
      kest_free_shared(p);
    }
  }
};

} // namespace oru

#endif
