#include "InstanceFixture.h"
#include "ParkedThread.h"

#include <kest/Configuration.h>
#include <kest/Log.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using oru::Configuration;
using oru::fdt::string;

// Validators log their calls here, by the prefix they are made for; the
// first character of the new value decides: "x" refuses.
std::vector<std::string> g_calls;
const char *const kPrefixes[] = {"a", "a.b", "a.b.c"};
template <int N>
bool Validate(const string &key, const string &old_value, const string &new_value) {
  g_calls.push_back(std::string(kPrefixes[N]) + ":" + key.c_str() + ":" + old_value.c_str() + ">" +
                    new_value.c_str());
  return new_value.c_str()[0] != 'x';
}

// A subscriber that records what reaches it.
class Listener : public oru::fdt::refcnt {
public:
  // The test's own reference: the object lives on the test's stack and must
  // outlive every subscription dropped by a thread's exit.
  Listener() { add_ref(); }
  void OnChange(const string &key, const string &old_value, const string &new_value) {
    std::lock_guard<std::mutex> lock(mutex);
    seen.push_back(std::string(key.c_str()) + "=" + old_value.c_str() + ">" + new_value.c_str());
  }
  std::mutex mutex;
  std::vector<std::string> seen;
};

class ConfigurationTest : public kest_test::OpenFixture {
protected:
  void SetUp() override {
    OpenFixture::SetUp();
    g_calls.clear();
  }
  // (Un)subscribes `l` to `prefix` from the calling thread.
  bool Subscribe(const char *prefix, Listener &l, bool on = true) {
    const int saved = oru::Runtime::l_instance_id;
    oru::Runtime::l_instance_id = h;
    Configuration *c = Configuration::Instance();
    const auto method = oru::MakeConfigMethod(&Listener::OnChange);
    const bool done =
        on ? c->Subscribe(prefix, &l, method) : (c->Unsubscribe(prefix, &l, method), true);
    oru::Runtime::l_instance_id = saved;
    return done;
  }
  std::string Get(const char *key) {
    char buffer[256];
    return kest_config_get(h, key, buffer, sizeof buffer) == 0 ? buffer : "<error>";
  }
  // Sets `key` with a fresh validator log.
  int Set(const char *key, const char *value) {
    g_calls.clear();
    return kest_config_set(h, key, value);
  }
};

TEST_F(ConfigurationTest, ValidatorsRunShortestPrefixFirstWithTheWholeKey) {
  Enter();
  ASSERT_TRUE(Configuration::RegisterValidator("a", Validate<0>));
  ASSERT_TRUE(Configuration::RegisterValidator("a.b", Validate<1>));
  ASSERT_TRUE(Configuration::RegisterValidator("a.b.c", Validate<2>));
  EXPECT_FALSE(Configuration::RegisterValidator("a", Validate<1>)) << "one validator per key";
  Leave();

  EXPECT_EQ(Set("a.b.c", "1"), 0);
  EXPECT_EQ(g_calls, (std::vector<std::string>{"a:a.b.c:>1", "a.b:a.b.c:>1", "a.b.c:a.b.c:>1"}));
  EXPECT_EQ(Set("a.b.c", "1"), 0);
  EXPECT_TRUE(g_calls.empty()) << "the same value runs nothing";
  EXPECT_TRUE(kest_test::Refused(Set("a.b.c", "x"), KEST_EINVAL));
  EXPECT_EQ(g_calls.size(), 1u) << "the first refusal ends the chain";
  EXPECT_EQ(Get("a.b.c"), "1");
  EXPECT_EQ(Set("a.bc", "2"), 0);
  EXPECT_EQ(g_calls, std::vector<std::string>{"a:a.bc:>2"}) << "prefixes are whole components";

  Enter();
  EXPECT_FALSE(Configuration::UnregisterValidator("a", Validate<1>));
  EXPECT_TRUE(Configuration::UnregisterValidator("a", Validate<0>));
  EXPECT_FALSE(Configuration::UnregisterValidator("a", Validate<0>));
  // An empty component is looked up like any other.
  ASSERT_TRUE(Configuration::RegisterValidator("", Validate<0>));
  Leave();
  EXPECT_EQ(Set(".lead", "v"), 0);
  EXPECT_EQ(g_calls, std::vector<std::string>{"a:.lead:>v"});
}

TEST_F(ConfigurationTest, GetCopiesCutsAndRefusesEmptyValuesWhichStayInTheDump) {
  ASSERT_EQ(kest_config_set(h, "t.word", "sixlet"), 0);
  char small[4] = {'?', '?', '?', '?'};
  EXPECT_EQ(kest_config_get(h, "t.word", small, sizeof small), 0);
  EXPECT_STREQ(small, "six");
  char buffer[16];
  EXPECT_TRUE(
      kest_test::Refused(kest_config_get(h, "t.missing", buffer, sizeof buffer), KEST_EINVAL));
  EXPECT_EQ(kest_config_set(h, "t.word", ""), 0);
  EXPECT_TRUE(kest_test::Refused(kest_config_get(h, "t.word", buffer, sizeof buffer), KEST_EINVAL));
  kest_test::TakeDiag();
  EXPECT_EQ(kest_config_dump(h), 0);
  const std::string dump = kest_test::TakeDiag();
  EXPECT_NE(dump.find("1: t.word = \n"), std::string::npos) << dump;
  EXPECT_NE(dump.find("1: system.loglevel = 48\n"), std::string::npos) << dump;
  for (const int result :
       {kest_config_get(h, "t.word", buffer, 0), kest_config_get(h, nullptr, buffer, 4),
        kest_config_get(h, "t.word", nullptr, 4), kest_config_set(h, nullptr, "v"),
        kest_config_set(h, "k", nullptr), kest_config_set(0, "k", "v")}) {
    EXPECT_EQ(result, -1);
  }
  EXPECT_EQ(kest_errno, KEST_EINVAL);
}

TEST_F(ConfigurationTest, EnumerationCoversWholeComponentsAndStopsAtTheFirstMiss) {
  for (const char *key : {"a.b", "a.b.c", "a.bc", "a.b.d.e", "conn-x", "conn.a", "conn.b"}) {
    ASSERT_EQ(kest_config_set(h, key, "1"), 0) << key;
  }
  struct Row {
    const char *prefix;
    std::vector<std::string> keys;
  };
  const Row rows[] = {
      {"a.b", {"a.b", "a.b.c", "a.b.d.e"}},
      {"a.b.c", {"a.b.c"}},
      {"zzz", {}},
      // "conn-x" sorts before "conn.a" and ends the walk at once.
      {"conn", {}},
  };
  Enter();
  for (const Row &row : rows) {
    Configuration::ItemList items;
    EXPECT_EQ(Configuration::EnumerateItems(row.prefix, items), !row.keys.empty()) << row.prefix;
    std::vector<std::string> keys;
    for (auto it = items.begin(); it != items.end(); ++it) {
      keys.push_back(it->first.c_str());
    }
    EXPECT_EQ(keys, row.keys) << row.prefix;
  }
  Leave();
}

// Changes travel only while threads run: each thread's subscribers, also on
// the whole key, get them at that thread's next idle pass. Any kest_fini
// leaves the instance "open": changes made then are stored but reach no
// thread, also not those still running.
TEST_F(ConfigurationTest, ChangesReachEveryThreadAtItsNextIdleOnlyWhileThreaded) {
  ASSERT_EQ(kest_config_set(h, "t.k", "before"), 0);
  ASSERT_EQ(kest_init(h), 0);
  Listener mine, theirs, deep;
  ASSERT_TRUE(Subscribe("t", mine));
  ASSERT_TRUE(Subscribe("t.k", deep));
  kest_idle(h);
  EXPECT_TRUE(mine.seen.empty()) << "nothing posted before threads ran";
  kest_test::ParkedThread worker(h, [&] { Subscribe("t", theirs); });
  ASSERT_EQ(kest_config_set(h, "t.k", "v1"), 0);
  EXPECT_TRUE(mine.seen.empty()) << "nothing before the idle pass";
  kest_idle(h);
  const std::vector<std::string> expected{"t.k=before>v1"};
  EXPECT_EQ(mine.seen, expected);
  EXPECT_EQ(deep.seen, expected);
  worker.Release();
  EXPECT_EQ(theirs.seen, expected);

  ASSERT_EQ(kest_config_set(h, "t.k", "after-fini"), 0);
  kest_idle(h);
  EXPECT_EQ(mine.seen, expected);
  EXPECT_EQ(Get("t.k"), "after-fini");
  Subscribe("t", mine, false);
  Subscribe("t.k", deep, false);
  kest_fini(h);
}

TEST_F(ConfigurationTest, EveryAllocationOfSetItemCanFail) {
  ASSERT_EQ(kest_init(h), 0);
  Listener l;
  ASSERT_TRUE(Subscribe("f", l));
  // Sweep the failing allocation over a new key and over a change of it.
  size_t stored = 0;
  for (long step = 2; step <= 80; ++step) {
    // Even steps fail one allocation, odd ones every allocation from the nth.
    const long n = step / 2;
    const std::string key = "f.k" + std::to_string(step);
    const long shared_before = kest_test::LiveBlocks(kest_test::Heap::Shared);
    if (step % 2 == 0) {
      kest_test::FailNthAllocation(n);
    } else {
      kest_test::FailFromAllocation(n);
    }
    const int result = kest_config_set(h, key.c_str(), "value");
    const int error = kest_errno;
    kest_test::FailNthAllocation(0);
    if (result == 0) {
      EXPECT_EQ(Get(key.c_str()), "value") << step;
      ++stored;
    } else {
      EXPECT_TRUE(error == KEST_ENOMEM || error == 0) << step << " " << error;
      EXPECT_EQ(Get(key.c_str()), "<error>") << "a failed set stores nothing: " << step;
      EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Shared), shared_before) << step;
    }
    kest_idle(h);
    // No pair stands under a key cut short by the failure.
    kest_test::TakeDiag();
    ASSERT_EQ(kest_config_dump(h), 0);
    const std::string dump = kest_test::TakeDiag();
    size_t pairs = 0;
    for (size_t at = dump.find(" = value\n"); at != std::string::npos;
         at = dump.find(" = value\n", at + 1)) {
      ++pairs;
    }
    EXPECT_EQ(pairs, stored) << step;
  }
  Subscribe("f", l, false);
  kest_fini(h);
}

TEST_F(ConfigurationTest, ConcurrentSettersLoseNoUpdateAndSubscribersSeeEachOnce) {
  constexpr int kSetters = 2, kKeys = 50;
  Listener listeners[2];
  std::atomic<int> ready{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (Listener &l : listeners) {
    threads.push_back(kest_test::InstanceThread(h, [&] {
      Subscribe("c", l);
      ++ready;
      while (!done) {
        kest_idle(h);
      }
      kest_idle(h);
      Subscribe("c", l, false);
    }));
  }
  while (ready != 2) {
    std::this_thread::yield();
  }
  auto key = [](int s, int i) { return "c." + std::to_string(s) + "." + std::to_string(i); };
  std::vector<std::string> changes;
  std::vector<std::thread> setters;
  for (int s = 0; s < kSetters; ++s) {
    setters.emplace_back([&, s] {
      for (int i = 0; i < kKeys; ++i) {
        EXPECT_EQ(kest_config_set(h, key(s, i).c_str(), "v"), 0);
      }
    });
    for (int i = 0; i < kKeys; ++i) {
      changes.push_back(key(s, i) + "=>v");
    }
  }
  for (std::thread &t : setters) {
    t.join();
  }
  done = true;
  for (std::thread &t : threads) {
    t.join();
  }
  for (const std::string &change : changes) {
    EXPECT_EQ(Get(change.substr(0, change.size() - 3).c_str()), "v") << change;
  }
  std::sort(changes.begin(), changes.end());
  for (Listener &l : listeners) {
    std::sort(l.seen.begin(), l.seen.end());
    EXPECT_EQ(l.seen, changes);
  }
}

// Log level: the setting behind each thread's mask, which gates the messages.
TEST_F(ConfigurationTest, LogLevelValuesAndMasks) {
  EXPECT_EQ(kest_config_set(h, "system.loglevel", "-1"), -1);
  EXPECT_EQ(kest_config_set(h, "system.loglevel", "abc"), -1);
  ASSERT_EQ(kest_init(h), 0);
  EXPECT_EQ(oru::log_flags, 48u);
  kest_test::TakePrinted();
  struct Row {
    const char *value;
    unsigned running;  // a thread that receives the change: lowest bit cleared
    unsigned starting; // a thread that starts with it: two lowest bits cleared
  };
  const Row rows[] = {{"0", 0, 0}, {"9", 8, 8}, {"3", 2, 0}, {"48", 48, 48}};
  for (const Row &row : rows) {
    ASSERT_EQ(kest_config_set(h, "system.loglevel", row.value), 0) << row.value;
    kest_idle(h);
    EXPECT_EQ(oru::log_flags, row.running) << row.value;
    EXPECT_EQ(kest_test::TakePrinted(), "setting level " + std::to_string(row.running) + "\n");
    // Warnings, such as an open's on a missing directory, need their own bit.
    kest_test::TakeLog();
    ASSERT_EQ(kest_close(Open()), 0);
    EXPECT_EQ(kest_test::TakeLog().find("W InitInstance: Could not get directory listing") == 0,
              (row.running & oru::LOG_WARNING) != 0);
    unsigned starting = 99;
    kest_test::RunOnThread(h, [&] { starting = oru::log_flags; });
    EXPECT_EQ(starting, row.starting) << row.value;
    // That thread's kest_fini stopped the broadcast until the next kest_init.
    ASSERT_EQ(kest_fini(h), 0);
    ASSERT_EQ(kest_init(h), 0);
  }
  kest_fini(h);
}

} // namespace
