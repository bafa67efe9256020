// A module that takes custom rules and records what it is given, registered
// in-process on the calling thread.
#ifndef KEST_TESTS_RULES_RECORDINGRULEMODULE_H
#define KEST_TESTS_RULES_RECORDINGRULEMODULE_H

#include <kest.h>
#include <kest/ICustomRule.h>
#include <kest/InterfaceBroker.h>
#include <kest/Runtime.h>

#include <string>
#include <vector>

namespace kest_test {

class RecordingRuleModule : public oru::ICustomRule {
public:
  static constexpr oru::ModuleId kId = 500;
  static constexpr const char *kName = "rec";

  // "+rule/protocol/cookie" for an add, "-rule/protocol/cookie" for a removal.
  std::vector<std::string> calls;
  int answer = 0; // non-zero refuses every add
  unsigned int next_cookie = 100;

  int AddCustomRule(const char *rule, int protocol, unsigned int *cookie) override {
    *cookie = answer == 0 ? next_cookie++ : 0;
    calls.push_back(Entry('+', rule, protocol, *cookie));
    return answer;
  }
  void RemoveCustomRule(const char *rule, int protocol, unsigned int cookie) override {
    calls.push_back(Entry('-', rule, protocol, cookie));
  }

  static std::string Entry(char sign, const char *rule, int protocol, unsigned int cookie) {
    return sign + std::string(rule) + "/" + std::to_string(protocol) + "/" + std::to_string(cookie);
  }

  // Names the module in the instance (once is enough).
  static bool Name(kest_handle_t handle) {
    return WithInstance(handle, [] { return oru::InterfaceBroker::RegisterModule(kId, kName); });
  }
  // Serves INTERFACE_CUSTOM_RULE on the calling thread, which has a context.
  bool Serve(kest_handle_t handle) {
    return WithInstance(handle, [this] {
      return oru::InterfaceBroker::Instance()->RegisterInterface(kId, oru::INTERFACE_CUSTOM_RULE,
                                                                 this);
    });
  }

  template <class F> static bool WithInstance(kest_handle_t handle, F work) {
    const int saved = oru::Runtime::l_instance_id;
    oru::Runtime::l_instance_id = handle;
    const bool done = work();
    oru::Runtime::l_instance_id = saved;
    return done;
  }
};

} // namespace kest_test

#endif
