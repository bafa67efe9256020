// What the packed test plug-ins share: their version record and the TCP
// decoder's rule store of this thread.
#ifndef KEST_TESTS_TESTPLUGIN_H
#define KEST_TESTS_TESTPLUGIN_H

#include <kest/InterfaceBroker.h>
#include <kest/IpPortRuleStore.h>
#include <kest/Plugin.h>

namespace kest_test_plugin {

inline bool GetVersion(const oru::VersionRecord * /*library*/, oru::VersionRecord *own) {
  *own = oru::VersionRecord{1, 0, 0, 0, "t"};
  return true;
}

// Null when the TCP decoder has no store on this thread (its thread may
// have ended first).
inline oru::IpPortRuleStore *TcpRules() {
  oru::InterfaceBroker *broker = oru::InterfaceBroker::Peek();
  return broker == nullptr ? nullptr
                           : static_cast<oru::IpPortRuleStore *>(broker->GetInterface(
                                 oru::MODULE_TCP, oru::INTERFACE_IPPORT_RULE_STORE));
}

} // namespace kest_test_plugin

#endif
