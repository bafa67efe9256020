#include "InstanceFixture.h"
#include "RecordingRuleModule.h"

#include <kest/Configuration.h>
#include <kest/Log.h>
#include <string>
#include <vector>

#include "rules/CustomApp.h"

namespace {

using kest_test::RecordingRuleModule;
using oru::CustomApp;
using oru::fdt::string;

// The library is built without RTTI, so from here the sanitizer cannot check
// the dynamic type of its objects; the thread's object is reached through
// these instead.
#define NO_VPTR_CHECK __attribute__((no_sanitize("vptr")))
NO_VPTR_CHECK void Change(CustomApp *app, const char *key, const char *old_value,
                          const char *new_value) {
  app->OnRuleChange(key, old_value, new_value);
}
NO_VPTR_CHECK bool Restart(CustomApp *app) {
  app->ExitThread();
  return oru::Configuration::Instance()->Unsubscribe(
             "customrule", app, oru::MakeConfigMethod(&CustomApp::OnRuleChange)) &&
         app->InitThread();
}
NO_VPTR_CHECK const CustomApp::RuleTable &Table(CustomApp *app) {
  return app->m_table;
}

TEST(CustomAppParseTest, SplitsRuleItems) {
  kest_test::InstallHooks();
  const struct {
    const char *key, *value, *module, *rule;
    int protocol;
  } rows[] = {
      {"customrule.mod.10.0.0.1-10.0.0.9:80", "7", "mod", "10.0.0.1-10.0.0.9:80", 7},
      {"customrule.mod.", "x", "mod", "", 0},
      {"customrule..r", "-3", "", "r", -3},
      {"customrule.mod", "5", "mod", "customrule.mod", 5},
      {"nodots", "5", "nodots", "nodots", 5},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.key);
    string module, rule;
    int protocol = 0;
    ASSERT_TRUE(CustomApp::ParseRuleItem(row.key, row.value, module, rule, protocol));
    EXPECT_STREQ(module.c_str(), row.module);
    EXPECT_STREQ(rule.c_str(), row.rule);
    EXPECT_EQ(protocol, row.protocol);
  }
}

class CustomAppInternalTest : public kest_test::InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    h = Open();
    ASSERT_GT(h, 0);
    ASSERT_TRUE(RecordingRuleModule::Name(h));
    ASSERT_EQ(kest_init(h), 0);
    ASSERT_TRUE(module.Serve(h));
    oru::Runtime::l_instance_id = h;
    oru::log_flags |= oru::LOG_WARNING;
    app = CustomApp::Instance();
  }
  void TearDown() override {
    oru::Runtime::l_instance_id = 0;
    kest_fini(h);
    InstanceFixture::TearDown();
  }

  // The rules this thread's table holds, as "rule/protocol/cookie".
  std::vector<std::string> Applied() {
    std::vector<std::string> out;
    for (const auto &slot : Table(app)) {
      for (const oru::CustomRule &entry : slot.second) {
        out.push_back(RecordingRuleModule::Entry('+', entry.rule.c_str(), slot.first, entry.cookie)
                          .substr(1));
      }
    }
    return out;
  }

  kest_handle_t h = -1;
  RecordingRuleModule module;
  CustomApp *app = nullptr;
};

TEST_F(CustomAppInternalTest, InitThreadAppliesRulesPresentThenSubscribes) {
  ASSERT_TRUE(oru::Configuration::SetItem("customrule.rec.10.0.0.1", "4"));
  // This thread's module came after its start-up: start the custom
  // application again, as a thread whose modules exist would.
  ASSERT_TRUE(Restart(app));
  EXPECT_EQ(module.calls, std::vector<std::string>{"+10.0.0.1/4/100"});

  ASSERT_TRUE(oru::Configuration::SetItem("customrule.rec.10.0.0.2", "4"));
  kest_idle(h);
  EXPECT_EQ(Applied(), (std::vector<std::string>{"10.0.0.1/4/100", "10.0.0.2/4/101"}));
}

TEST_F(CustomAppInternalTest, ChangesAndTheirWarnings) {
  ASSERT_TRUE(oru::InterfaceBroker::RegisterModule(501, "bare")); // named, serves nothing
  const std::string w = "W OnRuleChange: ";
  const struct {
    const char *key, *old_value, *new_value;
    int answer;
    const char *call; // what the module hears, "" for nothing
    std::string log;
  } steps[] = {
      {"customrule.rec.a", "", "4", 0, "+a/4/100", ""},
      {"customrule.rec.a", "", "4", 0, "", w + "Attempt to add duplicate rule|"},
      {"customrule.rec.b", "", "4", 1, "+b/4/0", ""},
      {"customrule.rec.b", "4", "", 0, "", w + "Attempt to remove non-existant custom rule|"},
      {"customrule.rec.a", "9", "", 0, "",
       w + "Attempt to remove non-existant custom rule (proto)|"},
      {"customrule.bare.a", "", "4", 0, "", w + "Attempt to remove custom rule from bad module|"},
      {"customrule.ghost.a", "", "4", 0, "", ""},
      {"customrule.rec.a", "4", "", 0, "-a/4/100", ""},
      {"customrule.rec.c", "", "5", 1, "+c/5/0", ""},
  };
  for (const auto &step : steps) {
    SCOPED_TRACE(std::string(step.key) + " " + step.old_value + "->" + step.new_value);
    module.calls.clear();
    module.answer = step.answer;
    Change(app, step.key, step.old_value, step.new_value);
    EXPECT_EQ(module.calls,
              *step.call ? std::vector<std::string>{step.call} : std::vector<std::string>{});
    EXPECT_EQ(kest_test::TakeLog(), step.log);
  }
  EXPECT_TRUE(Table(app).find(5) != Table(app).end()) << "a refused add leaves its empty list";
  EXPECT_TRUE(Applied().empty());
}

// Whichever allocation fails, the module holds exactly what the table records.
TEST_F(CustomAppInternalTest, AllocationFailureLeavesModuleAndTableAgreeing) {
  bool taken_back = false;
  for (long n = 1;; ++n) {
    SCOPED_TRACE(n);
    module.calls.clear();
    kest_test::FailNthAllocation(n);
    Change(app, "customrule.rec.10.0.0.1", "", "6");
    kest_test::FailNthAllocation(0);
    if (!Applied().empty()) {
      EXPECT_EQ(module.calls.back().front(), '+');
      break;
    }
    EXPECT_TRUE(module.calls.empty() || module.calls.back().front() == '-');
    taken_back = taken_back || module.calls.size() == 2;
    ASSERT_LT(n, 20);
  }
  EXPECT_TRUE(taken_back) << "a rule the table could not record goes back to the module";
}

} // namespace
