// "flow.reorder_window": the setting behind each thread's
// FlowBuffer::l_reorder_window cell. Writers of flow blocks read the cell on
// the packet path without a lock; this class only keeps it current.
#ifndef KEST_FLOW_REORDERWINDOW_H
#define KEST_FLOW_REORDERWINDOW_H

#include <kest/fdt/basic_string.h>
#include <kest/fdt/map.h>
#include <kest/fdt/refcnt.h>
#include <stdint.h>

namespace oru {

class ReorderWindow {
public:
  // Follows configuration changes on its thread: each key it watches leads to
  // the cell that holds the key's value. Made with CreateObject on the local
  // heap; the last reference frees it.
  class ConfigObserver : public fdt::refcnt {
  public:
    KEST_DELETE_BY_PREFIX

    // The subscribed handler: Update with the new value.
    void OnConfigChange(const fdt::string &key, const fdt::string &old_value,
                        const fdt::string &new_value);
    // Stores the value of a watched key in its cell: a number, or exactly "0".
    // Any other text, and a key not watched, leave the cells alone.
    void Update(const char *key, const char *value);

    Map<fdt::string, uint32_t *> m_cells;
  };

  // Instance start-up: the default "7500", then the validator.
  static bool InitInstance();
  // Thread start-up: this thread's observer, its subscription and the cell's
  // first value. False without memory, or when the key already has a
  // subscriber on this thread; nothing is left behind then.
  static bool InitThread();
  // Thread exit: drops the subscription and the observer. Safe on a thread
  // whose start-up failed or that has already left.
  static void ExitThread();

  // Accepts 1 to 100000 and "0"; refuses everything else, a text that is not
  // a number included.
  static bool ValidateReorderWindow(const fdt::string &key, const fdt::string &old_value,
                                    const fdt::string &new_value);

  // This thread's observer, or null.
  static ConfigObserver *Observer();

  static const char kKey[];
};

} // namespace oru

#endif
