#include "transport/CustomRules.h"

#include <kest/Conn.h>
#include <kest/IpPortRuleString.h>
#include <kest/fdt/ObjectPrefix.h>

namespace kest_decoders {

namespace {

// Names the rule's protocol on the connection's stack.
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

CustomRules::~CustomRules() {
  while (!m_entries.empty()) {
    Remove(m_entries.begin());
  }
}

int CustomRules::AddCustomRule(const char *rule, int protocol, unsigned int *cookie) {
  oru::IpPortSpec spec;
  if (rule == nullptr || protocol <= 0 ||
      !oru::IpPortSpec::FromRuleString(oru::IpPortRuleString(rule), m_ip_protocol, spec)) {
    return -1;
  }
  ProtocolMarker *marker = oru::fdt::CreateObject<ProtocolMarker>(oru::fdt::OBJECT_LOCAL,
                                                                  static_cast<uint32_t>(protocol));
  if (marker == nullptr) {
    return -1;
  }
  const oru::InspectorCallback callback(marker);
  oru::List<Entry>::iterator entry = m_entries.push_back(Entry{m_last_cookie + 1, spec, callback});
  if (entry == m_entries.end()) {
    return -1;
  }
  if (!m_store.AddRule(m_ip_protocol, callback, spec.port, spec.low, spec.high, 0,
                       oru::IpPortRuleStore::EXPIRY_LOCAL, true)) {
    m_entries.erase(entry);
    return -1;
  }
  *cookie = ++m_last_cookie;
  return 0;
}

void CustomRules::RemoveCustomRule(const char * /*rule*/, int /*protocol*/, unsigned int cookie) {
  for (oru::List<Entry>::iterator it = m_entries.begin(); it != m_entries.end(); ++it) {
    if (it->cookie == cookie) {
      Remove(it);
      return;
    }
  }
}

void CustomRules::Remove(oru::List<Entry>::iterator it) {
  m_store.RemoveRuleFast(m_ip_protocol, it->callback, it->spec.port, it->spec.low, it->spec.high);
  m_entries.erase(it);
}

} // namespace kest_decoders
