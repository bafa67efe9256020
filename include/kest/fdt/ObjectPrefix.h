// The object prefix: two 32-bit words in front of an object created whole on a
// hook heap. They say how to release it, so that the releasing code need not
// know where the object came from.
#ifndef KEST_FDT_OBJECTPREFIX_H
#define KEST_FDT_OBJECTPREFIX_H

#include <kest.h>
#include <new>
#include <stdint.h>
#include <utility>

namespace oru::fdt {

// Layout fixed: kind, then reserved.
struct ObjectPrefix {
  uint32_t kind;
  uint32_t reserved;
};
static_assert(sizeof(ObjectPrefix) == 8, "the object prefix is two 32-bit words");

enum ObjectKind : uint32_t {
  OBJECT_LOCAL = 0,  // block from kest_malloc_local
  OBJECT_SHARED = 1, // block from kest_malloc_shared
};

// Allocates prefix and object from the heap of `kind` and constructs the
// object. Null when the allocation fails; nothing is constructed then.
template <class T, class... Args> T *CreateObject(ObjectKind kind, Args &&...args) {
  const size_t size = sizeof(ObjectPrefix) + sizeof(T);
  void *block = kind == OBJECT_SHARED ? kest_malloc_shared(size) : kest_malloc_local(size);
  if (block == nullptr) {
    return nullptr;
  }
  ObjectPrefix *prefix = static_cast<ObjectPrefix *>(block);
  prefix->kind = kind;
  prefix->reserved = 0;
  return ::new (static_cast<void *>(prefix + 1)) T(std::forward<Args>(args)...);
}

// Frees the block of a prefixed object according to its prefix. A prefix that
// is neither local nor shared marks a block that is not ours to free.
inline void ReleasePrefixedBlock(void *object) {
  ObjectPrefix *prefix = static_cast<ObjectPrefix *>(object) - 1;
  if (prefix->reserved != 0) {
    return;
  }
  if (prefix->kind == OBJECT_LOCAL) {
    kest_free_local(prefix);
  } else if (prefix->kind == OBJECT_SHARED) {
    kest_free_shared(prefix);
  }
}

// Runs the destructor, then releases by the prefix. `object` must be the
// pointer CreateObject returned (not a base-class pointer into it).
template <class T> void DestroyObject(T *object) {
  if (object == nullptr) {
    return;
  }
  // The object is exactly a T: a qualified call, never through a virtual
  // table (some T have virtual functions but no virtual destructor).
  object->T::~T();
  ReleasePrefixedBlock(object);
}

} // namespace oru::fdt

#endif
