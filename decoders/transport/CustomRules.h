// The custom rules of a transport (INTERFACE_CUSTOM_RULE): a host's
// kest_rule_add text, an address range and/or a port ("10.0.0.0-10.0.0.255",
// ":8080", "10.1.2.3:443"), names a custom protocol; connections that match
// get it on top of their stack. Each rule is a first-priority rule of the
// transport's IpPortRuleStore whose inspector puts the protocol on the stack
// and leaves the chain.
#ifndef KEST_DECODERS_CUSTOMRULES_H
#define KEST_DECODERS_CUSTOMRULES_H

#include <kest/IpPortRuleStore.h>
#include <kest/kit/CustomRuleList.h>
#include <stdint.h>

namespace kest_decoders {

class CustomRules final : public oru::kit::CustomRuleList<CustomRules> {
public:
  using Key = oru::IpPortSpec;

  CustomRules(oru::IpPortRuleStore &store, uint8_t ip_protocol)
      : m_store(store), m_ip_protocol(ip_protocol) {}
  ~CustomRules() { Clear(); }

  // False for text that is no address rule, or a port above 65535.
  bool Parse(const char *rule, Key &spec) const;
  bool Kept(const Key &, const Key &) const { return true; }
  bool Add(const Key &spec, const oru::InspectorCallback &callback);
  void Remove(const Key &spec, const oru::InspectorCallback &callback);

private:
  oru::IpPortRuleStore &m_store;
  uint8_t m_ip_protocol;
};

} // namespace kest_decoders

#endif
