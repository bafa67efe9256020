// Per-thread singletons: each subsystem's thread object sits in its slot and is
// made on first use through Instance().
#ifndef KEST_THREADSINGLETON_H
#define KEST_THREADSINGLETON_H

#include <kest/Runtime.h>
#include <kest/fdt/ObjectPrefix.h>

namespace oru {

// The object in `key`'s cell, made with the local heap and the object prefix
// if the cell is empty. Null only if that allocation fails.
template <class T> T *SingletonInstance(const ThreadLocalKey &key) {
  T *&cell = ThreadPointer<T>(key);
  if (cell == nullptr) {
    cell = fdt::CreateObject<T>(fdt::OBJECT_LOCAL);
  }
  return cell;
}

// The object in `key`'s cell, or null; never creates.
template <class T> T *SingletonPeek(const ThreadLocalKey &key) {
  return ThreadPointer<T>(key);
}

// Destroys the object in `key`'s cell, if any, and zeroes the cell.
template <class T> void SingletonRelease(const ThreadLocalKey &key) {
  T *object = ThreadPointer<T>(key);
  if (object != nullptr) {
    fdt::DestroyObject(object);
    ThreadPointer<T>(key) = nullptr;
  }
}

} // namespace oru

#endif
