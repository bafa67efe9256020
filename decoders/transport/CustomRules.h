// The custom rules of a transport (INTERFACE_CUSTOM_RULE): a host's
// kest_rule_add text, an address range and/or a port ("10.0.0.0-10.0.0.255",
// ":8080", "10.1.2.3:443"), names a custom protocol; connections that match
// get it on top of their stack. Each rule is a first-priority rule of the
// transport's IpPortRuleStore whose inspector puts the protocol on the stack
// and leaves the chain.
#ifndef KEST_DECODERS_CUSTOMRULES_H
#define KEST_DECODERS_CUSTOMRULES_H

#include <kest/ICustomRule.h>
#include <kest/Inspector.h>
#include <kest/IpPortRuleStore.h>
#include <kest/fdt/List.h>
#include <stdint.h>

namespace kest_decoders {

class CustomRules final : public oru::ICustomRule {
public:
  CustomRules(oru::IpPortRuleStore &store, uint8_t ip_protocol)
      : m_store(store), m_ip_protocol(ip_protocol) {}
  ~CustomRules();
  CustomRules(const CustomRules &) = delete;
  CustomRules &operator=(const CustomRules &) = delete;

  // -1 refuses text that is no address rule, or a port above 65535.
  int AddCustomRule(const char *rule, int protocol, unsigned int *cookie) override;
  void RemoveCustomRule(const char *rule, int protocol, unsigned int cookie) override;

private:
  struct Entry {
    unsigned int cookie;
    oru::IpPortSpec spec;
    oru::InspectorCallback callback;
  };
  void Remove(oru::List<Entry>::iterator it);

  oru::IpPortRuleStore &m_store;
  uint8_t m_ip_protocol;
  oru::List<Entry> m_entries;
  unsigned int m_last_cookie = 0;
};

} // namespace kest_decoders

#endif
