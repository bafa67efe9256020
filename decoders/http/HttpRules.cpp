#include "http/HttpRules.h"

#include <kest/Conn.h>
#include <kest/KeyValueRuleString.h>
#include <kest/fdt/ObjectPrefix.h>

namespace kest_http {

namespace {

// Names the rule's protocol on the connection's stack, above HTTP.
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

} // namespace

HttpCustomRules::~HttpCustomRules() {
  while (!m_entries.empty()) {
    Remove(m_entries.begin());
  }
}

int HttpCustomRules::AddCustomRule(const char *rule, int protocol, unsigned int *cookie) {
  if (rule == nullptr || protocol <= 0 || cookie == nullptr) {
    return -1;
  }
  const oru::KeyValueRuleString text(rule);
  if (!text.valid) {
    return -1;
  }
  ProtocolMarker *marker = oru::fdt::CreateObject<ProtocolMarker>(oru::fdt::OBJECT_LOCAL,
                                                                  static_cast<uint32_t>(protocol));
  if (marker == nullptr) {
    return -1;
  }
  const oru::InspectorCallback callback(marker);
  oru::List<Entry>::iterator entry =
      m_entries.push_back(Entry{m_last_cookie + 1, text.key, text.value, callback});
  if (entry == m_entries.end() || entry->key.size() != text.key.size() ||
      entry->value.size() != text.value.size()) {
    if (entry != m_entries.end()) {
      m_entries.erase(entry);
    }
    return -1;
  }
  if (!m_store.AddRule(entry->key, entry->value, callback, true, 0,
                       oru::KeyValueRuleStore::EXPIRY_LOCAL)) {
    m_entries.erase(entry);
    return -1;
  }
  *cookie = ++m_last_cookie;
  return 0;
}

void HttpCustomRules::RemoveCustomRule(const char * /*rule*/, int /*protocol*/,
                                       unsigned int cookie) {
  for (oru::List<Entry>::iterator it = m_entries.begin(); it != m_entries.end(); ++it) {
    if (it->cookie == cookie) {
      Remove(it);
      return;
    }
  }
}

void HttpCustomRules::Remove(oru::List<Entry>::iterator it) {
  m_store.RemoveRuleFast(it->key, it->value, it->callback);
  m_entries.erase(it);
}

} // namespace kest_http
