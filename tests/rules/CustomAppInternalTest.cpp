#include "InstanceFixture.h"
#include "RecordingRuleModule.h"

#include <kest/Configuration.h>
#include <kest/Log.h>

#include "rules/CustomApp.h"

namespace {

using kest_test::RecordingRuleModule;
using oru::CustomApp;
using Calls = std::vector<std::string>;

// The library is built without RTTI, so the sanitizer cannot check the
// dynamic type of its objects from here: they are reached through these.
#define NO_VPTR_CHECK __attribute__((no_sanitize("vptr")))
NO_VPTR_CHECK void Change(CustomApp *app, const char *key, const char *old_v, const char *new_v) {
  app->OnRuleChange(key, old_v, new_v);
}
NO_VPTR_CHECK size_t Applied(CustomApp *app, int protocol) {
  auto slot = app->m_table.find(protocol);
  return slot == app->m_table.end() ? 0 : slot->second.size() + 1; // 1: an empty list
}

class CustomAppInternalTest : public kest_test::ThreadedFixture {
protected:
  void SetUp() override {
    ThreadedFixture::SetUp();
    Enter();
    ASSERT_TRUE(RecordingRuleModule::Name() && module.Serve());
    oru::log_flags |= oru::LOG_WARNING;
    kest_test::TakeLog();
    app = CustomApp::Instance();
  }
  void TearDown() override {
    oru::log_flags &= ~oru::LOG_WARNING;
    ThreadedFixture::TearDown();
  }
  RecordingRuleModule module;
  CustomApp *app = nullptr;
};

TEST_F(CustomAppInternalTest, ChangesAndTheirWarnings) {
  ASSERT_TRUE(oru::InterfaceBroker::RegisterModule(501, "bare")); // serves nothing
  const std::string w = "W OnRuleChange: ";
  const struct {
    const char *key, *old_value, *new_value;
    int answer;
    const char *call; // what the module hears
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
    EXPECT_EQ(module.calls, *step.call ? Calls{step.call} : Calls{});
    EXPECT_EQ(kest_test::TakeLog(), step.log);
  }
  EXPECT_EQ(Applied(app, 4), 0u) << "the last removal erases the protocol";
  EXPECT_EQ(Applied(app, 5), 1u) << "a refused add leaves its empty list";
}

// Whichever allocation fails, the module holds exactly what the table records.
TEST_F(CustomAppInternalTest, AllocationFailureLeavesModuleAndTableAgreeing) {
  bool taken_back = false;
  for (long n = 1; Applied(app, 6) < 2; ++n) {
    ASSERT_LT(n, 20);
    module.calls.clear();
    kest_test::FailNthAllocation(n);
    Change(app, "customrule.rec.10.0.0.1", "", "6");
    kest_test::FailNthAllocation(0);
    const bool recorded = Applied(app, 6) == 2;
    EXPECT_EQ(!module.calls.empty() && module.calls.back()[0] == '+', recorded) << n;
    taken_back = taken_back || module.calls.size() == 2;
  }
  EXPECT_TRUE(taken_back) << "a rule the table could not record goes back to the module";
}

} // namespace
