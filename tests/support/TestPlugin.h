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

// Puts `inspector` on every new TCP connection to or from `port`.
inline void AttachToTcpPort(oru::Inspector *inspector, unsigned short port) {
  oru::IpPortRuleStore *rules = TcpRules();
  if (rules != nullptr && inspector != nullptr) {
    rules->AddRule(6, oru::InspectorCallback(inspector), port, {}, {}, 0,
                   oru::IpPortRuleStore::EXPIRY_LOCAL, false);
  }
}

// Takes the rule back, if the decoder's store is still there, and drops the
// plug-in's reference on the inspector.
template <class T> void DetachFromTcpPort(T *&inspector, unsigned short port) {
  oru::IpPortRuleStore *rules = TcpRules();
  if (rules != nullptr && inspector != nullptr) {
    rules->RemoveRuleFast(6, oru::InspectorCallback(inspector), port, {}, {});
  }
  if (inspector != nullptr) {
    inspector->release();
    inspector = nullptr;
  }
}

} // namespace kest_test_plugin

#endif
