#include "InstanceFixture.h"
#include "RecordingRuleModule.h"

#include <functional>
#include <future>
#include <kest/Configuration.h>
#include <kest/IpPortRuleString.h>
#include <kest/Log.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using kest_test::RecordingRuleModule;

class CustomRuleApiTest : public kest_test::InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    h = Open();
    ASSERT_GT(h, 0);
    ASSERT_TRUE(RecordingRuleModule::Name(h));
    proto = kest_proto_add(h, "myapp", 0);
    ASSERT_GT(proto, 0);
  }

  std::string Item(const char *key) {
    char buf[64] = "";
    kest_config_get(h, key, buf, sizeof buf);
    return buf;
  }

  kest_handle_t h = -1;
  int proto = 0;
};

TEST_F(CustomRuleApiTest, CodeTable) {
  const char *const rule = "10.0.0.1:80";
  struct Step {
    const char *what;
    std::function<int()> call;
    int result; // -2: any protocol number
    int error;
  };
  const std::vector<Step> steps = {
      {"name of 8", [&] { return kest_proto_add(h, "12345678", 0); }, -2, 0},
      {"name of 9", [&] { return kest_proto_add(h, "123456789", 0); }, -1, KEST_EINVAL},
      {"name twice", [&] { return kest_proto_add(h, "12345678", 0); }, -1, KEST_EEXIST},
      {"null name", [&] { return kest_proto_add(h, nullptr, 0); }, -1, KEST_EINVAL},
      {"wanted index", [&] { return kest_proto_add(h, "placed", 77); }, 77, 0},
      {"bad handle", [&] { return kest_rule_add(31, proto, "rec", rule); }, -1, KEST_EINVAL},
      {"protocol 0", [&] { return kest_rule_add(h, 0, "rec", rule); }, -1, KEST_EINVAL},
      {"null module", [&] { return kest_rule_add(h, proto, nullptr, rule); }, -1, KEST_EINVAL},
      {"null rule", [&] { return kest_rule_add(h, proto, "rec", nullptr); }, -1, KEST_EINVAL},
      {"unknown protocol", [&] { return kest_rule_add(h, 999, "rec", rule); }, -1, KEST_EINVAL},
      {"unknown module", [&] { return kest_rule_add(h, proto, "ghost", rule); }, -1, KEST_EINVAL},
      {"add", [&] { return kest_rule_add(h, proto, "rec", rule); }, 0, 0},
      {"add again", [&] { return kest_rule_add(h, proto, "rec", rule); }, -1, KEST_EEXIST},
      {"other protocol", [&] { return kest_rule_add(h, 77, "rec", rule); }, -1, KEST_EEXIST},
      {"proto in use", [&] { return kest_proto_remove(h, "myapp"); }, -1, KEST_EBUSY},
      {"no such proto", [&] { return kest_proto_remove(h, "nosuch"); }, -1, KEST_ENOENT},
      {"remove protocol 0", [&] { return kest_rule_remove(h, 0, "rec", rule); }, -1, KEST_EINVAL},
      {"remove null", [&] { return kest_rule_remove(h, proto, "rec", nullptr); }, -1, KEST_EINVAL},
      {"remove absent", [&] { return kest_rule_remove(h, proto, "rec", "x"); }, -1, KEST_ENOENT},
      {"wrong protocol", [&] { return kest_rule_remove(h, 12345, "rec", rule); }, 0, 0},
      {"removed twice", [&] { return kest_rule_remove(h, proto, "rec", rule); }, -1, KEST_ENOENT},
      {"proto free", [&] { return kest_proto_remove(h, "myapp"); }, 0, 0},
      {"proto gone", [&] { return kest_proto_remove(h, "myapp"); }, -1, KEST_ENOENT},
  };
  for (const Step &step : steps) {
    SCOPED_TRACE(step.what);
    kest_errno = 0;
    const int result = step.call();
    if (step.result == -2) {
      EXPECT_GT(result, 0);
    } else {
      EXPECT_EQ(result, step.result);
    }
    EXPECT_EQ(kest_errno, step.error);
  }
  EXPECT_EQ(kest_proto_find_index(h, "myapp"), -1);
  EXPECT_EQ(kest_proto_find_index(h, "placed"), 77);
}

TEST_F(CustomRuleApiTest, RuleTextKeepsDotsAndColonInTheKey) {
  ASSERT_EQ(kest_rule_add(h, proto, "rec", "10.0.0.1-10.0.0.9:80"), 0);
  EXPECT_EQ(Item("customrule.rec.10.0.0.1-10.0.0.9:80"), std::to_string(proto));
  EXPECT_EQ(Item("customproto.myapp"), std::to_string(proto));
}

TEST_F(CustomRuleApiTest, ModuleValidatorRefusesBadRuleText) {
  ASSERT_TRUE(RecordingRuleModule::WithInstance(h, [] {
    return oru::Configuration::RegisterValidator("customrule.rec",
                                                 oru::IpPortRuleString::ValidateRule);
  }));
  EXPECT_EQ(kest_rule_add(h, proto, "rec", "10.0.0"), -1);
  EXPECT_EQ(kest_errno, KEST_EINVAL);
  EXPECT_EQ(kest_rule_add(h, proto, "rec", ":443"), 0);
}

// Every thread applies a change at its own next idle pass, with the module
// it serves on that thread.
TEST_F(CustomRuleApiTest, ChangesReachEveryThreadAtItsNextIdlePass) {
  ASSERT_EQ(kest_init(h), 0);
  RecordingRuleModule mine;
  ASSERT_TRUE(mine.Serve(h));

  std::promise<void> other_ready, rule_added, other_applied, rule_removed;
  RecordingRuleModule theirs;
  theirs.next_cookie = 200;
  std::thread other([&] {
    ASSERT_EQ(kest_init(h), 0);
    ASSERT_TRUE(theirs.Serve(h));
    other_ready.set_value();
    rule_added.get_future().wait();
    kest_idle(h);
    other_applied.set_value();
    rule_removed.get_future().wait();
    kest_idle(h);
    kest_fini(h);
  });
  other_ready.get_future().wait();
  ASSERT_EQ(kest_rule_add(h, proto, "rec", ":443"), 0);
  EXPECT_TRUE(mine.calls.empty()) << "not in force before the thread drains";
  rule_added.set_value();
  kest_idle(h);
  other_applied.get_future().wait();
  ASSERT_EQ(kest_rule_remove(h, proto, "rec", ":443"), 0);
  EXPECT_EQ(kest_proto_remove(h, "myapp"), 0) << "before any thread drained the removal";
  rule_removed.set_value();
  other.join();
  kest_idle(h);

  const std::string p = "/" + std::to_string(proto) + "/";
  EXPECT_EQ(mine.calls, (std::vector<std::string>{"+:443" + p + "100", "-:443" + p + "100"}));
  EXPECT_EQ(theirs.calls, (std::vector<std::string>{"+:443" + p + "200", "-:443" + p + "200"}));
  kest_fini(h);
}

TEST_F(CustomRuleApiTest, ItemForAModuleNotLoadedIsKeptAndIgnored) {
  ASSERT_EQ(kest_init(h), 0);
  oru::log_flags |= oru::LOG_WARNING;
  ASSERT_EQ(kest_config_set(h, "customrule.ghost.10.0.0.1", "5"), 0);
  kest_idle(h);
  EXPECT_EQ(kest_test::TakeLog(), "");
  EXPECT_EQ(Item("customrule.ghost.10.0.0.1"), "5");
  kest_fini(h);
}

} // namespace
