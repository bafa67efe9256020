// kest_attr_callback_set and kest_attr_key_get: the host names the attributes
// it wants and a listener for each, and learns their identifiers on a thread.
#include "attributes/AttributeApi.h"

#include <kest.h>
#include <kest/AttributeMgr.h>
#include <kest/Configuration.h>
#include <kest/Error.h>
#include <kest/fdt/TextSearch.h>

#include "runtime/ApiFrame.h"
#include "runtime/ApiSlots.h"

namespace oru {

namespace {

// Room for any long in decimal: a sign, 19 digits and the terminator.
constexpr size_t kListenerText = 24;
static_assert(sizeof(long) >= sizeof(void *), "a listener address is written as a long");

} // namespace

void DeliverAttribute(uint64_t conn_id, void *listener, int id, int length, const uint8_t *data,
                      int more, int arg) {
  // A row can hold no listener when "0" came for a name that had none.
  if (listener == nullptr) {
    return;
  }
  const kest_attr_callback_t callback = reinterpret_cast<kest_attr_callback_t>(listener);
  const unsigned packed =
      (static_cast<unsigned>(arg) << 16) | (static_cast<unsigned>(more) & 0xFFFFu);
  callback(kest_handle_get(), conn_id, id, length, data, static_cast<int>(packed),
           ThreadPointer<void>(ApiSlots::attr_user));
}

} // namespace oru

using namespace oru;

extern "C" KEST_EXPORT int kest_attr_callback_set(kest_handle_t handle, const char *name,
                                                  kest_attr_callback_t callback) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT);
  if (!frame.ok()) {
    return -1;
  }
  if (name == nullptr) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  fdt::string key;
  if (!key.append("attribute.") || !key.append(name)) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  // A name needs an item of its own or a family that takes it in.
  if (Configuration::GetItem(key.c_str()).empty() && !AttributeMgr::FamilyCovers(name)) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  // The address as a long keeps every bit of a 64-bit pointer, and the
  // listener's reader converts the text back with kest_strtol.
  char text[kListenerText];
  kest_sprintf(text, "%ld", static_cast<long>(reinterpret_cast<intptr_t>(callback)));
  if (!Configuration::SetItem(key.c_str(), text)) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  return 0;
}

extern "C" KEST_EXPORT int kest_attr_key_get(kest_handle_t handle, const char *name) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT);
  if (!frame.ok()) {
    return -1;
  }
  if (name == nullptr) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  AttributeMgr *manager = AttributeMgr::Peek();
  if (manager == nullptr || manager->m_registrations.empty()) {
    return -1;
  }
  auto found = manager->m_registrations.find(name);
  if (found == manager->m_registrations.end()) {
    return -1;
  }
  AttributeMgr::IdMap &ids = found->second.ids;
  auto id = FindText(ids, name + found->first.size());
  return id != ids.end() ? id->second : 0;
}
