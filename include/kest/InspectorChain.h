// The ordered callbacks a parent runs for each packet of a connection (or of
// a message). Rule stores fill it (IpPortRuleStore::SetupInspection,
// KeyValueRuleStore::SetupRule); ParentDpi::ProcessChain runs and drains it.
// There is no other way in.
//
// A circular list with the sentinel inside the chain object, sorted by
// ascending priority: lower runs first. Each element comes from
// kest_malloc_local with its two links and holds a reference on its
// inspector. A chain holds no count and no lock: it belongs to the thread
// that inspects its connection.
#ifndef KEST_INSPECTORCHAIN_H
#define KEST_INSPECTORCHAIN_H

#include <kest/Export.h>
#include <kest/Inspector.h>
#include <kest/fdt/List.h>
#include <stddef.h>
#include <stdint.h>

namespace oru {

template <class Spec> class RuleStore;
class ParentDpi;

// Layout fixed: callback, then priority.
struct ChainEntry {
  InspectorCallback callback;
  uint32_t priority;

  ChainEntry(const InspectorCallback &cb, uint32_t p) : callback(cb), priority(p) {}
};

class KEST_API InspectorChain {
public:
  using EntryList = List<ChainEntry>;
  using const_iterator = EntryList::const_iterator;

  InspectorChain() = default;
  // Releases the entries still in the chain (references and memory) without
  // calling OnChainExit: an owner that ends a connection drains it first with
  // Clear.
  ~InspectorChain() = default;
  InspectorChain(const InspectorChain &) = delete;
  InspectorChain &operator=(const InspectorChain &) = delete;

  bool empty() const { return m_entries.empty(); }
  // Walks the chain.
  size_t size() const { return m_entries.size(); }
  const_iterator begin() const { return m_entries.begin(); }
  const_iterator end() const { return m_entries.end(); }

  // Takes every entry out, front first, calling OnChainExit(conn) on each
  // entry's inspector before it leaves. For owners whose connection or
  // message ends with entries still waiting.
  void Clear(fdt::intrusive_ptr<Conn> &conn);

private:
  template <class Spec> friend class RuleStore;
  friend class ParentDpi;

  EntryList m_entries;
};

static_assert(sizeof(InspectorChain) == 16, "a chain is its sentinel");

} // namespace oru

#endif
