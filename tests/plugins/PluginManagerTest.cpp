// The plug-in manager through the host calls, on directories of recording
// plug-ins built for each scenario (Plugins.cmake). Each plug-in reports its
// calls, tagged with its file, to the recorder below.
#include "InstanceFixture.h"
#include "ScopedEnv.h"
#include "TestHooks.h"
#include "TransportPlugin.h"

#include <kest/InterfaceBroker.h>
#include <kest/Log.h>
#include <kest/MemTag.h>
#include <kest/Runtime.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using Events = std::vector<std::string>;

Events g_events;
std::vector<int> g_contexts; // low half of the tag word during each call

} // namespace

extern "C" __attribute__((visibility("default"))) void
kest_test_plugin_record(const char *tag, const char *event, int mem_tag) {
  g_events.push_back(std::string(tag) + "." + event);
  g_contexts.push_back(mem_tag & 0xFFFF);
}

namespace {

class PluginManagerTest : public kest_test::InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    TakeEvents();
  }
  void TearDown() override {
    InstanceFixture::TearDown();
    oru::log_flags = 0;
    oru::MemTag::l_mem_tag = 0;
  }

  static Events TakeEvents() {
    g_contexts.clear();
    Events out;
    out.swap(g_events);
    return out;
  }

  // The SYSTEM report of the calling thread.
  std::string Report() {
    kest_test::TakeDiag();
    EXPECT_EQ(kest_diag(h, "SYSTEM", nullptr), 0);
    return kest_test::TakeDiag();
  }

  // The status words of the report line that contains `key`: what follows
  // the padded type column.
  static std::string Status(const std::string &report, const std::string &key) {
    const size_t at = report.find(key);
    const size_t type = std::min(report.find("Builtin  ", at), report.find("Dynamic  ", at));
    return at == std::string::npos ? "(no line)"
                                   : report.substr(type + 9, report.find('\n', at) - type - 9);
  }

  static std::string File(const char *dir, const char *name) {
    return std::string(dir) + "/" + name + ".plg";
  }

  kest_handle_t h = -1;
};

std::string Line(const char *name, const std::string &file, const char *version, const char *type,
                 const char *status) {
  char line[512];
  std::snprintf(line, sizeof line, "%-14s %-32s %-17s %-8s %s\n", name, file.c_str(), version, type,
                status);
  return line;
}

// Equal versions keep the first file, a newer one replaces the winner, and a
// file beats the built-in plug-in of its name whatever the versions. Files
// that lose without having won stay listed as active, but are never called.
TEST_F(PluginManagerTest, VersionsDecideBetweenPluginsOfOneName) {
  const char *dir = KEST_TEST_PM_VERSIONS_DIR;
  h = kest_open(dir);
  ASSERT_GT(h, 0);
  EXPECT_EQ(g_contexts, std::vector<int>(3, oru::MemTag::CTX_PLUGINMGR_GENERAL));
  EXPECT_EQ(TakeEvents(), (Events{"pm_e_transport.InitInstance", "pm_d_newer2.InitInstance",
                                  "pm_a_same1.InitInstance"}));

  ASSERT_EQ(kest_init(h), 0);
  EXPECT_EQ(g_contexts, std::vector<int>(9, oru::MemTag::CTX_PLUGINMGR_GENERAL));
  EXPECT_EQ(
      TakeEvents(),
      (Events{"pm_e_transport.InitThread", "pm_d_newer2.InitThread", "pm_a_same1.InitThread",
              "pm_e_transport.LinkThread", "pm_d_newer2.LinkThread", "pm_a_same1.LinkThread",
              "pm_e_transport.StartThread", "pm_d_newer2.StartThread", "pm_a_same1.StartThread"}));

  const std::string expected =
      "Plugin status:\n"
      "Name           Filename                         Version           Type     Status\n" +
      Line(kest_test::kTransportPluginName, "", "1.0.0.0-test", "Builtin", "Superceded") +
      Line("same", File(dir, "pm_a_same1"), "1.0.2.4-t", "Dynamic", "Active") +
      Line("same", File(dir, "pm_b_same2"), "1.0.2.4-t", "Dynamic", "Active") +
      Line("newer", File(dir, "pm_c_newer1"), "1.0.0.9-t", "Dynamic", "Superceded") +
      Line("newer", File(dir, "pm_d_newer2"), "1.0.1.0-t", "Dynamic", "Active") +
      Line(kest_test::kTransportPluginName, File(dir, "pm_e_transport"), "0.0.0.0-t", "Dynamic",
           "Active") +
      Line("incompatible", File(dir, "pm_f_incompatible"), "1.0.0.0-t", "Dynamic", "Active") +
      "\nEvent Queue Stats:\n0 events processed on this thread\n\n";
  EXPECT_EQ(Report(), expected);
}

// zeta is loaded first and alpha called first. The disabling keys are checked
// and taken only without threads; a disabled alpha gets its instance start-up
// but no thread call and no instance exit.
TEST_F(PluginManagerTest, NameOrderAndDisablingAPlugin) {
  h = kest_open(KEST_TEST_PM_ORDER_DIR);
  ASSERT_GT(h, 0);
  EXPECT_EQ(TakeEvents(), (Events{"pm_b_alpha.InitInstance", "pm_a_zeta.InitInstance"}));
  const struct {
    const char *key;
    const char *value;
    bool threaded;
    int result;
    int error;
  } cases[] = {
      {"plugins.alpha.disabled", "2", false, -1, KEST_EINVAL},
      {"plugins.alpha.enabled", "1", false, -1, KEST_EINVAL},
      {"plugins.x", "1", false, -1, KEST_EINVAL},
      {"plugins.alpha.disabled", "0", false, 0, 0},
      {"plugins.alpha.disabled", "1", true, -1, KEST_EBUSY},
      {"plugins.alpha.disabled", "2", true, -1, KEST_EINVAL},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.key) + "=" + c.value + (c.threaded ? " threaded" : ""));
    if (c.threaded) {
      ASSERT_EQ(kest_init(h), 0);
    }
    EXPECT_EQ(kest_config_set(h, c.key, c.value), c.result);
    EXPECT_EQ(kest_errno, c.error);
    if (c.threaded) {
      ASSERT_EQ(kest_fini(h), 0);
    }
  }
  TakeEvents();
  ASSERT_EQ(kest_config_set(h, "plugins.alpha.disabled", "1"), 0);
  ASSERT_EQ(kest_init(h), 0);
  EXPECT_EQ(TakeEvents(),
            (Events{"pm_a_zeta.InitThread", "pm_a_zeta.LinkThread", "pm_a_zeta.StartThread"}));
  const std::string report = Report();
  EXPECT_EQ(Status(report, "/pm_b_alpha.plg"), "Disabled");
  EXPECT_EQ(Status(report, "/pm_a_zeta.plg"), "Active");

  ASSERT_EQ(kest_fini(h), 0);
  ASSERT_EQ(kest_close(h), 0);
  EXPECT_EQ(TakeEvents(), (Events{"pm_a_zeta.ExitThread", "pm_a_zeta.ExitInstance"}));
}

// A plug-in's own tags follow the built-in ones and can be made only while the
// instance opens; the host sees their names.
TEST_F(PluginManagerTest, PluginTagsFollowTheBuiltInsAndOnlyWhileOpening) {
  h = kest_open(KEST_TEST_PM_MEMTAGS_DIR);
  ASSERT_GT(h, 0);
  ASSERT_EQ(kest_init(h), 0);
  const Events events = TakeEvents();
  EXPECT_NE(std::find(events.begin(), events.end(), "pm_mt_tagger.open 1 1 obj 9 ctx 12"),
            events.end());
  // Threads run: a new name is refused, a known one is not given again.
  EXPECT_NE(std::find(events.begin(), events.end(), "pm_mt_tagger.thread 0 0 obj 9 ctx 12"),
            events.end());
  EXPECT_EQ(kest_memory_obj_num(h), 10);
  EXPECT_EQ(kest_memory_ctx_num(h), 13);
  char name[32];
  ASSERT_EQ(kest_memory_obj_name(h, 9, name, sizeof name), 0);
  EXPECT_STREQ(name, "tagger.table");
  ASSERT_EQ(kest_memory_ctx_name(h, 12, name, sizeof name), 0);
  EXPECT_STREQ(name, "tagger.general");
  ASSERT_EQ(kest_fini(h), 0);
}

// A failed instance start-up is logged and keeps the plug-in out for good.
TEST_F(PluginManagerTest, FailedInitInstanceIsNeverCalledAgain) {
  oru::log_flags = oru::LOG_ERROR;
  h = kest_open(KEST_TEST_PM_INITFAIL_DIR);
  ASSERT_GT(h, 0);
  EXPECT_EQ(TakeEvents(), (Events{"pm_if_a.InitInstance", "pm_if_b.InitInstance"}));
  EXPECT_NE(kest_test::TakeLog().find("E InitInstance: Error initializing instance of plugin b\n|"),
            std::string::npos);

  ASSERT_EQ(kest_init(h), 0);
  EXPECT_EQ(Status(Report(), "/pm_if_b.plg"), "Failure to initialize");
  ASSERT_EQ(kest_fini(h), 0);
  ASSERT_EQ(kest_close(h), 0);
  EXPECT_EQ(TakeEvents(), (Events{"pm_if_a.InitThread", "pm_if_a.LinkThread", "pm_if_a.StartThread",
                                  "pm_if_a.ExitThread", "pm_if_a.ExitInstance"}));
}

// b fails its InitThread: a, started before it, is ended again, b and c get
// nothing more, and a later thread starts with a alone.
TEST_F(PluginManagerTest, FailedInitThreadEndsThoseBeforeAndKeepsTheRestOut) {
  h = kest_open(KEST_TEST_PM_THREADFAIL_DIR);
  ASSERT_GT(h, 0);
  ASSERT_EQ(kest_config_set(h, "system.loglevel", "24"), 0);
  TakeEvents();
  kest_test::TakeLog();

  const int tag = (7 << 16) | 5;
  oru::MemTag::l_mem_tag = tag;
  EXPECT_TRUE(kest_test::Refused(kest_init(h), KEST_ENOMEM));
  EXPECT_EQ(kest_memory_tag_get(), tag) << "the tag word is restored on the failure path";
  EXPECT_EQ(g_contexts[1], oru::MemTag::CTX_PLUGINMGR_GENERAL);
  EXPECT_EQ(TakeEvents(),
            (Events{"pm_tf_a.InitThread", "pm_tf_b.InitThread", "pm_tf_a.ExitThread"}));
  EXPECT_NE(kest_test::TakeLog().find("W InitThread: bad init on b|"), std::string::npos);
  ASSERT_EQ(kest_fini(h), 0);
  EXPECT_EQ(TakeEvents(), Events{}) << "no plug-in is ended twice";

  ASSERT_EQ(kest_init(h), 0);
  EXPECT_EQ(TakeEvents(),
            (Events{"pm_tf_a.InitThread", "pm_tf_a.LinkThread", "pm_tf_a.StartThread"}));
  const std::string report = Report();
  EXPECT_EQ(Status(report, "/pm_tf_a.plg"), "Active");
  EXPECT_EQ(Status(report, "/pm_tf_b.plg"), "Load failure");
  EXPECT_EQ(Status(report, "/pm_tf_c.plg"), "Load failure");
  ASSERT_EQ(kest_fini(h), 0);
  ASSERT_EQ(kest_close(h), 0);
  EXPECT_EQ(TakeEvents(), (Events{"pm_tf_a.ExitThread", "pm_tf_a.ExitInstance"}));
}

// kest_open reads the copy mode from the environment (the modes themselves are
// PluginFileInternalTest's): an unknown one is reported.
TEST_F(PluginManagerTest, OpenTakesTheCopyModeFromTheEnvironment) {
  kest_test::ScopedEnv mode("KEST_PLUGIN_COPY", "bogus");
  h = kest_open(KEST_TEST_PM_ORDER_DIR);
  ASSERT_GT(h, 0);
  EXPECT_EQ(TakeEvents(), (Events{"pm_b_alpha.InitInstance", "pm_a_zeta.InitInstance"}));
  EXPECT_EQ(kest_test::TakePrinted(), "unknown KEST_PLUGIN_COPY value bogus, using private\n");
}

// Without a directory only the built-in plug-ins load.
TEST_F(PluginManagerTest, DiagFindsReportsByModuleName) {
  h = kest_open(nullptr);
  ASSERT_GT(h, 0);
  ASSERT_EQ(kest_init(h), 0);
  oru::Runtime::l_instance_id = h;
  ASSERT_TRUE(oru::InterfaceBroker::RegisterModule(4711, "NODIAG"));
  oru::Runtime::l_instance_id = 0;
  const struct {
    const char *module;
    int result;
    int error;
  } cases[] = {
      {"SYSTEM", 0, 0},
      {"NOPE", -1, KEST_EINVAL},
      {"NODIAG", -1, KEST_ENOENT},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.module);
    EXPECT_EQ(kest_diag(h, c.module, nullptr), c.result);
    EXPECT_EQ(kest_errno, c.error);
  }
  EXPECT_EQ(Status(kest_test::TakeDiag(), kest_test::kTransportPluginName), "Active");
}

} // namespace
