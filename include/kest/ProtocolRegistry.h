// The protocol registry: the small integers, protocol indices, that stand for
// application protocols in classification results and in the host's tables.
//
// Plug-ins name their protocols while the instance opens and the registry
// numbers them by counting, in the order of registration. The name-to-number
// direction lives only in the configuration store, as the item "guid." + name
// with the decimal index as value, so that it shows in kest_config_dump and
// changes through the same store. The number-to-name direction is a map kept
// here, one per instance. Index 0 means no protocol. Names compare exactly,
// case included.
//
// Lock order: every operation that writes holds the registry lock of the
// instance for its whole run, and takes the store lock inside it (through
// the store's own calls). GetProtocolId goes by the store lock alone,
// IndexToName by none.
#ifndef KEST_PROTOCOLREGISTRY_H
#define KEST_PROTOCOLREGISTRY_H

#include <kest/Export.h>
#include <kest/fdt/basic_string.h>

namespace oru {

// Gives the protocol `name` the next index by counting. Works only while the
// instance opens (in a plug-in's InitInstance); otherwise, or when the store
// refuses the item, it does nothing. A name that has an index keeps it, so
// plug-ins that name the same protocol share one index.
KEST_API void RegisterProtocol(const char *name);

// The index of the protocol `name`, or 0 if it has none.
KEST_API int GetProtocolId(const char *name);

class KEST_API ProtocolRegistry {
public:
  // Gives `name` the index `index`, or with 0 the next number by counting
  // that no name holds. The result is the index, or 0 after error 17 (the
  // name has an index) or when the store refuses the item. A wanted index
  // that another name holds is given all the same: the index then still
  // names the other protocol.
  static int AddProtocol(const char *name, int index);

  // Takes the index away from `name`: its item stays in the store with an
  // empty value. False if the name had no index. Indices are not reused by
  // counting.
  static bool RemoveProtocol(const char *name);

  // Moves a known protocol to `index`; only while the instance is open and
  // no thread has a context. False with error 16 outside that state, with 22
  // for an index below 1 or an unknown name, or when the store refuses. An
  // index held by another name is taken over: both names then read as that
  // index, and the index names the protocol that moved there.
  static bool SetIndex(const char *name, int index);

  // Sets `name` to the protocol of `index`; false, with `name` untouched, if
  // no protocol has it.
  static bool IndexToName(int index, fdt::string &name);

  // The largest index that names a protocol, 0 if none.
  static int HighestIndex();

  // Instance start-up: counting starts again from 0.
  static bool InitInstance();
  // Instance end (and the unwind of a failed start-up): forgets every name.
  static void ExitInstance();

  // Thread start-up: keeps the indices of "TCP" and "UDP" in the thread's
  // cells, where kest_app_get reads them. False, with error 71, when either
  // has no index.
  static bool InitThread();
};

} // namespace oru

#endif
