// A module that takes custom rules and records what it is given, in-process:
// the test names it in the instance and serves it on each of its threads.
#ifndef KEST_TESTS_RULES_RECORDINGRULEMODULE_H
#define KEST_TESTS_RULES_RECORDINGRULEMODULE_H

#include <kest/ICustomRule.h>
#include <kest/InterfaceBroker.h>
#include <string>
#include <vector>

namespace kest_test {

struct RecordingRuleModule : oru::ICustomRule {
  static constexpr oru::ModuleId kId = 500; // named "rec"

  std::vector<std::string> calls; // "+rule/protocol/cookie", "-rule/protocol/cookie"
  int answer = 0;                 // non-zero refuses every add
  unsigned int next_cookie = 100;

  int AddCustomRule(const char *rule, int protocol, unsigned int *cookie) override {
    *cookie = answer == 0 ? next_cookie++ : 0;
    calls.push_back("+" + std::string(rule) + "/" + std::to_string(protocol) + "/" +
                    std::to_string(*cookie));
    return answer;
  }
  void RemoveCustomRule(const char *rule, int protocol, unsigned int cookie) override {
    calls.push_back("-" + std::string(rule) + "/" + std::to_string(protocol) + "/" +
                    std::to_string(cookie));
  }

  // On the current instance (oru::Runtime::l_instance_id).
  static bool Name() { return oru::InterfaceBroker::RegisterModule(kId, "rec"); }
  bool Serve() {
    return oru::InterfaceBroker::Instance()->RegisterInterface(kId, oru::INTERFACE_CUSTOM_RULE,
                                                               static_cast<ICustomRule *>(this));
  }
};

} // namespace kest_test

#endif
