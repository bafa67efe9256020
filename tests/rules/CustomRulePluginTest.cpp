// Custom rules through a packed module: rules stored before kest_init are
// applied by each thread's start-up, after the module's own thread start-up
// has served the interface.
#include "InstanceFixture.h"

#include <barrier>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

std::mutex g_lock;
std::vector<std::string> g_calls;

std::vector<std::string> TakeCalls() {
  std::lock_guard<std::mutex> hold(g_lock);
  return std::exchange(g_calls, {});
}

} // namespace

extern "C" __attribute__((visibility("default"))) void kest_test_rule_record(const char *event) {
  std::lock_guard<std::mutex> hold(g_lock);
  g_calls.push_back(event);
}

namespace {

using Calls = std::vector<std::string>;

class CustomRulePluginTest : public kest_test::InstanceFixture {
protected:
  // A thread's whole life on the instance; what its module was given.
  Calls ThreadLife(kest_handle_t h) {
    std::thread([h] {
      EXPECT_EQ(kest_init(h), 0);
      kest_fini(h);
    }).join();
    return TakeCalls();
  }
};

TEST_F(CustomRulePluginTest, StoredRulesAreAppliedByEveryThreadStartUp) {
  const kest_handle_t h = kest_open(KEST_TEST_RULE_PLUGIN_DIR);
  ASSERT_GT(h, 0);
  const int proto = kest_proto_add(h, "myapp", 0);
  ASSERT_GT(proto, 0);
  ASSERT_EQ(kest_rule_add(h, proto, "plgrec", "10.0.0.0-10.0.0.255"), 0);
  ASSERT_EQ(kest_rule_add(h, proto, "plgrec", ":8080"), 0);
  TakeCalls();

  // Items come back in key order; each thread's module gives its own cookies.
  const std::string p = "/" + std::to_string(proto) + "/";
  ASSERT_EQ(kest_init(h), 0);
  EXPECT_EQ(TakeCalls(), (Calls{"+10.0.0.0-10.0.0.255" + p + "1", "+:8080" + p + "2"}));
  EXPECT_EQ(ThreadLife(h), (Calls{"+10.0.0.0-10.0.0.255" + p + "1", "+:8080" + p + "2"}));

  // That thread's kest_fini stopped the sending of changes: the store takes
  // the removal, the running thread does not hear of it, a new thread does.
  ASSERT_EQ(kest_rule_remove(h, proto, "plgrec", ":8080"), 0);
  kest_idle(h);
  EXPECT_EQ(TakeCalls(), Calls{});
  EXPECT_EQ(ThreadLife(h), Calls{"+10.0.0.0-10.0.0.255" + p + "1"});

  // The next kest_init sends changes again.
  std::barrier step(2);
  std::thread other([&] {
    EXPECT_EQ(kest_init(h), 0);
    step.arrive_and_wait();
    step.arrive_and_wait();
    kest_fini(h);
  });
  step.arrive_and_wait();
  TakeCalls();
  EXPECT_EQ(kest_rule_remove(h, proto, "plgrec", "10.0.0.0-10.0.0.255"), 0);
  kest_idle(h);
  step.arrive_and_wait();
  other.join();
  EXPECT_EQ(TakeCalls(), Calls{"-10.0.0.0-10.0.0.255" + p + "1"});
  EXPECT_EQ(kest_proto_remove(h, "myapp"), 0);
  kest_fini(h);
}

} // namespace
