// Base of reference-counted objects held through intrusive_ptr.
#ifndef KEST_FDT_REFCNT_H
#define KEST_FDT_REFCNT_H

#include <kest.h>
#include <kest/Export.h>
#include <kest/fdt/ObjectPrefix.h>
#include <stdint.h>

namespace oru::fdt {

// Layout fixed: the virtual table (destructor, deleting destructor), then the
// 32-bit count, which starts at 0. The count is a plain integer, not atomic:
// an object belongs to one thread or is reached only under its owner's lock.
//
// When the count drops to 0 the object deletes itself through its virtual
// destructor, so the deallocation function of the most-derived class releases
// the memory. Each derived class names it according to where its objects come
// from, with one of the macros below; without one, the global operator delete
// is used, which suits only objects made with the global operator new.
class KEST_API refcnt {
public:
  refcnt() : m_count(0) {}
  // A copy is a new object: it starts without holders.
  refcnt(const refcnt &) : m_count(0) {}
  refcnt &operator=(const refcnt &) { return *this; }
  virtual ~refcnt() {}

  void add_ref() { ++m_count; }

  // Drops one reference; at 0 the object is destroyed and its memory released.
  void release() {
    if (--m_count == 0) {
      delete this;
    }
  }

  int32_t use_count() const { return m_count; }

private:
  int32_t m_count;
};

} // namespace oru::fdt

// Put in the body of a class whose objects are allocated with
// kest_malloc_local directly (no prefix).
#define KEST_DELETE_WITH_FREE_LOCAL                                                                \
  static void operator delete(void *object) {                                                      \
    kest_free_local(object);                                                                       \
  }

// Put in the body of a class whose objects are made by oru::fdt::CreateObject:
// the object prefix in front of the object says which heap takes it back.
#define KEST_DELETE_BY_PREFIX                                                                      \
  static void operator delete(void *object) {                                                      \
    ::oru::fdt::ReleasePrefixedBlock(object);                                                      \
  }

#endif
