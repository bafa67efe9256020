// The host's view of memory tags: the thread word for its allocation hooks,
// and the names behind the numbers.
#include <kest.h>
#include <kest/Error.h>
#include <kest/MemTag.h>

#include "runtime/ApiFrame.h"

using oru::ApiFrame;
using oru::MemTag;

extern "C" KEST_EXPORT int kest_memory_tag_get(void) {
  return MemTag::l_mem_tag;
}

namespace {

// The count and name calls of both number spaces share one frame and one
// argument check; Space is MemTag::Ctx or MemTag::Obj.
template <class Space> int SpaceCount(kest_handle_t handle) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  return static_cast<int>(Space::Count());
}

template <class Space> int SpaceName(kest_handle_t handle, int index, char *buf, int size) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  if (index < 0 || buf == nullptr || size <= 0) {
    oru::ThrowError(oru::ERR_INVAL);
    return -1;
  }
  Space::Name(static_cast<uint32_t>(index), buf, size);
  return 0;
}

} // namespace

extern "C" KEST_EXPORT int kest_memory_ctx_num(kest_handle_t handle) {
  return SpaceCount<MemTag::Ctx>(handle);
}

extern "C" KEST_EXPORT int kest_memory_ctx_name(kest_handle_t handle, int index, char *buf,
                                                int size) {
  return SpaceName<MemTag::Ctx>(handle, index, buf, size);
}

extern "C" KEST_EXPORT int kest_memory_obj_num(kest_handle_t handle) {
  return SpaceCount<MemTag::Obj>(handle);
}

extern "C" KEST_EXPORT int kest_memory_obj_name(kest_handle_t handle, int index, char *buf,
                                                int size) {
  return SpaceName<MemTag::Obj>(handle, index, buf, size);
}
