#include "InstanceFixture.h"
#include "RecordingRuleModule.h"

#include <barrier>
#include <cstdlib>
#include <functional>
#include <kest/Configuration.h>
#include <kest/IpPortRuleString.h>
#include <memory>
#include <thread>

namespace {

using kest_test::RecordingRuleModule;
using Calls = std::vector<std::string>;

class CustomRuleApiTest : public kest_test::InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    h = Open();
    ASSERT_GT(h, 0);
    oru::Runtime::l_instance_id = h;
    ASSERT_TRUE(RecordingRuleModule::Name());
    oru::Runtime::l_instance_id = 0;
    proto = kest_proto_add(h, "myapp", 0);
    ASSERT_GT(proto, 0);
  }
  // Runs `work` on the instance, as a plug-in of it would.
  bool OnInstance(const std::function<bool()> &work) {
    oru::Runtime::l_instance_id = h;
    const bool done = work();
    oru::Runtime::l_instance_id = 0;
    return done;
  }
  int ItemNumber(const char *key) {
    char value[16] = "";
    return kest_config_get(h, key, value, sizeof value) == 0 ? std::atoi(value) : -1;
  }
  kest_handle_t h = -1;
  int proto = 0;
};

TEST_F(CustomRuleApiTest, CodeTable) {
  const char *const rule = "10.0.0.1-10.0.0.9:80"; // dots and colon stay whole in the key
  const struct {
    const char *what;
    std::function<int()> call;
    int result, error;
  } steps[] = {
      {"name of 8", [&] { return kest_proto_add(h, "12345678", 42); }, 42, 0},
      {"name of 9", [&] { return kest_proto_add(h, "123456789", 0); }, -1, KEST_EINVAL},
      {"name twice", [&] { return kest_proto_add(h, "12345678", 0); }, -1, KEST_EEXIST},
      {"bad handle", [&] { return kest_rule_add(31, proto, "rec", rule); }, -1, KEST_EINVAL},
      {"protocol 0", [&] { return kest_rule_add(h, 0, "rec", rule); }, -1, KEST_EINVAL},
      {"null module", [&] { return kest_rule_add(h, proto, nullptr, rule); }, -1, KEST_EINVAL},
      {"unknown protocol", [&] { return kest_rule_add(h, 999, "rec", rule); }, -1, KEST_EINVAL},
      {"unknown module", [&] { return kest_rule_add(h, proto, "ghost", rule); }, -1, KEST_EINVAL},
      {"add", [&] { return kest_rule_add(h, proto, "rec", rule); }, 0, 0},
      {"item", [&] { return ItemNumber("customrule.rec.10.0.0.1-10.0.0.9:80"); }, proto, 0},
      {"other protocol", [&] { return kest_rule_add(h, 42, "rec", rule); }, -1, KEST_EEXIST},
      {"refused text", [&] { return kest_rule_add(h, proto, "rec", "10.0.0"); }, -1, KEST_EINVAL},
      {"proto in use", [&] { return kest_proto_remove(h, "myapp"); }, -1, KEST_EBUSY},
      {"no such proto", [&] { return kest_proto_remove(h, "nosuch"); }, -1, KEST_ENOENT},
      {"remove protocol 0", [&] { return kest_rule_remove(h, 0, "rec", rule); }, -1, KEST_EINVAL},
      {"remove absent", [&] { return kest_rule_remove(h, proto, "rec", "x"); }, -1, KEST_ENOENT},
      {"wrong protocol", [&] { return kest_rule_remove(h, 12345, "rec", rule); }, 0, 0},
      {"removed twice", [&] { return kest_rule_remove(h, proto, "rec", rule); }, -1, KEST_ENOENT},
      {"proto free", [&] { return kest_proto_remove(h, "myapp"); }, 0, 0},
      {"proto gone", [&] { return kest_proto_remove(h, "myapp"); }, -1, KEST_ENOENT},
  };
  ASSERT_TRUE(OnInstance([] {
    return oru::Configuration::RegisterValidator("customrule.rec",
                                                 oru::IpPortRuleString::ValidateRule);
  }));
  for (const auto &step : steps) {
    kest_errno = 0;
    EXPECT_EQ(step.call(), step.result) << step.what;
    EXPECT_EQ(kest_errno, step.error) << step.what;
  }
}

// Each thread applies a change at its own next idle pass, to the module it
// serves; an item for a module that isn't loaded stays, ignored.
TEST_F(CustomRuleApiTest, ChangesReachEveryThreadAtItsNextIdlePass) {
  RecordingRuleModule mine, theirs;
  theirs.next_cookie = 200;
  ASSERT_EQ(kest_init(h), 0);
  ASSERT_TRUE(OnInstance([&] { return mine.Serve(); }));
  std::barrier step(2); // other thread: ready, drains the add, drains the removal
  std::thread other([&] {
    kest_init(h);
    OnInstance([&] { return theirs.Serve(); });
    step.arrive_and_wait();
    step.arrive_and_wait();
    kest_idle(h);
    step.arrive_and_wait();
    step.arrive_and_wait();
    kest_idle(h);
    kest_fini(h);
  });
  step.arrive_and_wait();
  EXPECT_EQ(kest_rule_add(h, proto, "rec", ":443"), 0);
  EXPECT_EQ(kest_config_set(h, "customrule.ghost.10.0.0.1", "5"), 0);
  EXPECT_TRUE(mine.calls.empty()) << "not in force before the thread drains";
  step.arrive_and_wait();
  kest_idle(h);
  step.arrive_and_wait();
  EXPECT_EQ(kest_rule_remove(h, proto, "rec", ":443"), 0);
  EXPECT_EQ(kest_proto_remove(h, "myapp"), 0) << "before any thread drained the removal";
  step.arrive_and_wait();
  other.join();
  kest_idle(h);

  const std::string p = "/" + std::to_string(proto) + "/";
  EXPECT_EQ(mine.calls, (Calls{"+:443" + p + "100", "-:443" + p + "100"}));
  EXPECT_EQ(theirs.calls, (Calls{"+:443" + p + "200", "-:443" + p + "200"}));
  EXPECT_EQ(ItemNumber("customrule.ghost.10.0.0.1"), 5);
  kest_fini(h);
}

// Each thread's module, served from the plug-ins' thread start-up.
thread_local std::unique_ptr<RecordingRuleModule> t_module;
void ServeModule() {
  t_module = std::make_unique<RecordingRuleModule>();
  EXPECT_TRUE(t_module->Serve());
}

// Rules stored before a thread starts are applied by its start-up, after the
// plug-ins' own start-ups have served the module: in key order, to each
// thread's own module.
TEST_F(CustomRuleApiTest, StoredRulesAreAppliedByEveryThreadStartUp) {
  ASSERT_EQ(kest_rule_add(h, proto, "rec", "10.0.0.0-10.0.0.255"), 0);
  ASSERT_EQ(kest_rule_add(h, proto, "rec", ":8080"), 0);
  kest_test::SetTransportThreadStart(ServeModule);
  const std::string p = "/" + std::to_string(proto) + "/";
  for (bool own_thread : {false, true}) {
    Calls heard;
    auto life = [&] {
      ASSERT_EQ(kest_init(h), 0);
      heard = t_module->calls;
      kest_fini(h);
    };
    own_thread ? std::thread(life).join() : life();
    EXPECT_EQ(heard, (Calls{"+10.0.0.0-10.0.0.255" + p + "100", "+:8080" + p + "101"}));
  }
}

} // namespace
