// A module's custom rules (INTERFACE_CUSTOM_RULE, the host's kest_rule_add):
// each rule of text names a custom protocol, kept under a cookie as a
// first-priority rule of one of the module's rule stores whose inspector
// (ProtocolMarker) puts the protocol on the connection's stack and leaves.
//
// A module derives Rules from CustomRuleList<Rules> and gives it:
//   using Key = ...;                       what a rule's text reads as
//   bool Parse(const char *text, Key &)    false refuses the text
//   bool Kept(const Key &copy, const Key &parsed)   the list's copy is whole
//                                          (copies may fail for memory)
//   bool Add(const Key &, const oru::InspectorCallback &)   into the store
//   void Remove(const Key &, const oru::InspectorCallback &)
// and calls Clear() in its destructor. Every call runs on the thread that owns the store.
#ifndef KEST_KIT_CUSTOMRULELIST_H
#define KEST_KIT_CUSTOMRULELIST_H

#include <kest/Conn.h>
#include <kest/ICustomRule.h>
#include <kest/Inspector.h>
#include <kest/fdt/List.h>
#include <kest/fdt/ObjectPrefix.h>

namespace oru::kit {

// Names one protocol on the connection's stack and leaves the chain.
class ProtocolMarker final : public oru::Inspector {
public:
  explicit ProtocolMarker(uint32_t protocol) : m_protocol(protocol) {}
  unsigned int Inspect(oru::ParentDpi *, oru::PktInfo &, oru::Tuple &,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    conn->PushProtocol(m_protocol);
    return oru::INSPECT_FINISHED;
  }

private:
  uint32_t m_protocol;
};

template <class Rules> class CustomRuleList : public oru::ICustomRule {
public:
  CustomRuleList() = default;
  CustomRuleList(const CustomRuleList &) = delete;
  CustomRuleList &operator=(const CustomRuleList &) = delete;
  ~CustomRuleList() = default;

  // 0 with the cookie set, or -1: text the module refuses, or no memory.
  int AddCustomRule(const char *rule, int protocol, unsigned int *cookie) override {
    typename Rules::Key key{};
    if (rule == nullptr || protocol <= 0 || cookie == nullptr || !self().Parse(rule, key)) {
      return -1;
    }
    ProtocolMarker *marker = oru::fdt::CreateObject<ProtocolMarker>(
        oru::fdt::OBJECT_LOCAL, static_cast<uint32_t>(protocol));
    if (marker == nullptr) {
      return -1;
    }
    const oru::InspectorCallback callback(marker);
    typename Entries::iterator entry = m_entries.push_back(Entry{m_last_cookie + 1, key, callback});
    if (entry == m_entries.end()) {
      return -1;
    }
    if (!self().Kept(entry->key, key) || !self().Add(entry->key, callback)) {
      m_entries.erase(entry);
      return -1;
    }
    *cookie = ++m_last_cookie;
    return 0;
  }

  void RemoveCustomRule(const char * /*rule*/, int /*protocol*/, unsigned int cookie) override {
    for (typename Entries::iterator it = m_entries.begin(); it != m_entries.end(); ++it) {
      if (it->cookie == cookie) {
        Drop(it);
        return;
      }
    }
  }

protected:
  // Takes every rule back out of the store; the module's destructor calls it
  // (the store's calls are the module's, gone by the time this base ends).
  void Clear() {
    while (!m_entries.empty()) {
      Drop(m_entries.begin());
    }
  }

private:
  struct Entry {
    unsigned int cookie;
    typename Rules::Key key;
    oru::InspectorCallback callback;
  };
  using Entries = oru::List<Entry>;

  Rules &self() { return static_cast<Rules &>(*this); }
  void Drop(typename Entries::iterator it) {
    self().Remove(it->key, it->callback);
    m_entries.erase(it);
  }

  Entries m_entries;
  unsigned int m_last_cookie = 0;
};

} // namespace oru::kit

#endif
