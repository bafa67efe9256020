#include "transport/CustomRules.h"

#include <kest/IpPortRuleString.h>

namespace kest_decoders {

bool CustomRules::Parse(const char *rule, Key &spec) const {
  return oru::IpPortSpec::FromRuleString(oru::IpPortRuleString(rule), m_ip_protocol, spec);
}

bool CustomRules::Add(const Key &spec, const oru::InspectorCallback &callback) {
  return m_store.AddRule(m_ip_protocol, callback, spec.port, spec.low, spec.high, 0,
                         oru::IpPortRuleStore::EXPIRY_LOCAL, true);
}

void CustomRules::Remove(const Key &spec, const oru::InspectorCallback &callback) {
  m_store.RemoveRuleFast(m_ip_protocol, callback, spec.port, spec.low, spec.high);
}

} // namespace kest_decoders
