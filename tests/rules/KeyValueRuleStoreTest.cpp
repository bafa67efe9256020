// The key/value rule store: which patterns a value matches, removal with its
// stated quirks, look-ups straight from a flow against look-ups from strings,
// expiry and failing memory.
#include "ChainTestSupport.h"
#include "InstanceFixture.h"
#include "TestHooks.h"

#include <kest/Conn.h>
#include <kest/KeyValueRuleStore.h>

#include <cstring>

#include <map>
#include <random>

namespace {

using kest_test::ChainNames;
using kest_test::Log;
using kest_test::ScriptedInspector;
using Names = std::vector<std::string>;
using Store = oru::KeyValueRuleStore;
using String = Store::string;

class KeyValueRuleStoreTest : public kest_test::StoreFixture<Store> {
protected:
  void SetUp() override {
    StoreFixture::SetUp();
    kest_clock_set_mode(h, 1);
    kest_clock_set(h, 100000);
    Enter();
  }
  bool Add(const std::string &key, const std::string &pattern, bool first = false,
           uint32_t timeout = 0, const std::string &name = "") {
    return store->AddRule(String(key.c_str()), String(pattern.c_str()),
                          X(name.empty() ? pattern : name).Callback(), first, timeout,
                          Store::EXPIRY_LOCAL);
  }
  bool Remove(const std::string &key, const std::string &pattern, const std::string &name = "") {
    return store->RemoveRule(String(key.c_str()), String(pattern.c_str()),
                             X(name.empty() ? pattern : name).Callback());
  }
  Names Lookup(const std::string &key, const std::string &value) {
    chain.Clear(conn);
    store->SetupRule(key.c_str(), value.data(), static_cast<unsigned>(value.size()), chain);
    return ChainNames(chain);
  }
};

TEST_F(KeyValueRuleStoreTest, PatternsLongestFirstThenByKind) {
  const std::string stem49(49, 's');
  ASSERT_TRUE(Add("Host", "abc"));
  ASSERT_TRUE(Add("Host", "ab*"));
  ASSERT_TRUE(Add("Host", "*c"));
  ASSERT_TRUE(Add("Host", "xyzw"));
  ASSERT_TRUE(Add("Host", "xy*"));
  ASSERT_TRUE(Add("Host", "*", true));
  ASSERT_TRUE(Add("Host", "*lo", true));
  ASSERT_TRUE(Add("Host", stem49 + "*"));
  ASSERT_TRUE(Add("Agent", "*bot*"));
  EXPECT_FALSE(Add("Agent", "*bot*"));
  EXPECT_FALSE(Add("Agent", ""));
  EXPECT_TRUE(Add("Agent", std::string(50, 'p')));
  EXPECT_FALSE(Add("Agent", std::string(51, 'q')));
  EXPECT_FALSE(Add("Cookie", std::string(51, 'q'))); // the key stays
  struct Row {
    const char *key;
    std::string value;
    Names chain;
  } rows[] = {
      {"Host", "abc", {"abc:5", "*c:6"}}, // "ab*" loses to the deeper "abc"
      {"host", "abx", {"*:2", "ab*:7"}},  // keys ignore case
      {"Host", "ABC", {"*:2"}},           // values do not
      {"Host", "xyz", {"*:2"}},           // ends on a node without rules
      {"Host", "xyq", {"*:2", "xy*:7"}},
      {"Host", "hello", {"*lo:2"}}, // the longer reverse pattern wins
      {"Host", "", {}},
      {"Host", stem49 + std::string(11, 't'), {"*:2", stem49 + "*:7"}},
      {"Agent", "Googlebot*", {"*bot*:6"}}, // its last "*" is a literal byte
      {"Agent", "Googlebot/2.1", {}},
      {"Agent", std::string(50, 'p'), {std::string(50, 'p') + ":5"}},
      {"Other", "abc", {}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.value);
    EXPECT_EQ(Lookup(row.key, row.value), row.chain);
  }
  EXPECT_NE(store->m_index.find("Cookie"), store->m_index.end());
}

TEST_F(KeyValueRuleStoreTest, RemovalKeepsOrDropsNodesAsStated) {
  // "ab" is the only node at its level: removing its rule takes "abc" too.
  ASSERT_TRUE(Add("K", "ab"));
  ASSERT_TRUE(Add("K", "abc"));
  EXPECT_TRUE(Remove("K", "ab"));
  EXPECT_EQ(Lookup("K", "abc"), Names{});
  EXPECT_EQ(X("abc").use_count(), 1); // the rule went with the subtree
  // With a sibling the emptied node stays, and a later "ab" tries its "*".
  ASSERT_TRUE(Add("K", "ab"));
  ASSERT_TRUE(Add("K", "ax"));
  ASSERT_TRUE(Add("K", "ab*"));
  EXPECT_TRUE(Remove("K", "ab"));
  EXPECT_EQ(Lookup("K", "ab"), Names{"ab*:7"});
  EXPECT_TRUE(Remove("K", "ab", "ax")); // a path without that callback
  EXPECT_FALSE(Remove("K", "zz"));
  EXPECT_FALSE(Remove("L", "ab"));
  EXPECT_TRUE(Remove("K", "ab*"));
  EXPECT_TRUE(Remove("K", "ax"));
  EXPECT_EQ(Lookup("K", "ax"), Names{});
}

// Rules expire at their second through the look-up path; rules freed with a
// removed subtree are out of their buckets first, and an expiring rule's own
// strings serve its removal.
TEST_F(KeyValueRuleStoreTest, ExpiryAndSubtreeRemoval) {
  ASSERT_TRUE(Add("K", "ab", false, 5));
  ASSERT_TRUE(Add("K", "abc", false, 5));
  ASSERT_TRUE(Add("K", "*yz", false, 1));
  ASSERT_TRUE(Add("K", "*z", false, 9));
  EXPECT_TRUE(Remove("K", "ab")); // takes "abc" along
  EXPECT_EQ(store->m_expiry.find(105ull)->second.size(), 0u);
  EXPECT_EQ(Lookup("K", "xyz"), Names{"*yz:6"});
  kest_clock_set(h, 101000);
  Enter();
  EXPECT_EQ(Lookup("K", "xyz"), Names{"*yz:6"}); // found before the pass
  EXPECT_EQ(Lookup("K", "xyz"), Names{"*z:6"});
  kest_clock_set(h, 110000);
  Enter();
  Lookup("K", "q");
  EXPECT_EQ(Lookup("K", "xyz"), Names{});
  EXPECT_TRUE(store->m_expiry.empty());
}

TEST_F(KeyValueRuleStoreTest, FindRuleAndTheAnnouncementText) {
  ASSERT_TRUE(Add("Host", "*.example.com"));
  oru::KeyValueSpec spec;
  spec.key.append("HOST");
  spec.value.append("*.example.com");
  Store::Rule *rule = store->FindRule(spec, X("*.example.com").Callback().method);
  ASSERT_NE(rule, nullptr);
  EXPECT_EQ(std::string(rule->spec.key.c_str()), "Host");
  EXPECT_EQ(store->FindRule(spec, X("x").SecondCallback().method), nullptr);
  std::vector<uint8_t> bytes(Store::AnnouncementSize(*rule));
  Store::WriteAnnouncement(*rule, bytes.data());
  EXPECT_EQ(std::string(bytes.begin() + 16, bytes.end()), std::string("Host\0*.example.com\0", 19));
  EXPECT_TRUE(store->ApplyAnnouncement(bytes.data(), static_cast<uint32_t>(bytes.size())) ==
              false); // no time-out: nothing to touch
  bytes.pop_back();
  oru::KeyValueSpec read;
  EXPECT_FALSE(oru::KeyValueSpec::ReadAnnounced(bytes.data() + 16,
                                                static_cast<uint32_t>(bytes.size() - 16), read));
}

// Values held in a flow, in random blocks, match as the same text in memory.
TEST_F(KeyValueRuleStoreTest, FlowLookUpsAgreeWithStringLookUps) {
  std::mt19937 random(5);
  const char *keys[] = {"Host", "Agent", "Cookie"};
  auto text = [&](size_t n) {
    std::string t;
    for (size_t i = 0; i < n; ++i) {
      t += "ab*"[random() % 3];
    }
    return t;
  };
  for (int i = 0; i < 300; ++i) {
    std::string pattern = text(1 + random() % 6);
    if (random() % 3 == 0) {
      pattern = "*" + pattern;
    }
    Add(keys[random() % 3], pattern, random() % 2 == 0, 0, pattern + std::to_string(i % 7));
  }
  for (int q = 0; q < 400; ++q) {
    const char *key = keys[random() % 3];
    const std::string value = text(random() % 70);
    const std::string line = std::string(key) + ": " + value;
    oru::FlowBuffer flow;
    uint64_t at = 0;
    while (at < line.size()) {
      const size_t n = std::min<size_t>(1 + random() % 9, line.size() - at);
      flow.AddBlock(at, line.data() + at, static_cast<uint16_t>(n), false);
      flow.m_last_start = at;
      at += n;
    }
    flow.m_next_pos = at;
    const unsigned key_end = static_cast<unsigned>(std::strlen(key));
    const unsigned value_start = key_end + 2, value_end = static_cast<unsigned>(line.size());
    const Names expected = Lookup(key, value);
    chain.Clear(conn);
    store->SetupRule(flow, key, value_start, value_end, chain);
    EXPECT_EQ(ChainNames(chain), expected) << line;
    chain.Clear(conn);
    store->SetupRule(flow, 0, key_end, value_start, value_end, chain);
    EXPECT_EQ(ChainNames(chain), expected) << line;
  }
  // A flow key that begins with a stored key but is longer searches left of
  // it: "Hostname" is not found although "Hostname" is stored.
  ASSERT_TRUE(Add("Hostname", "a"));
  ASSERT_TRUE(Add("Hosta", "a"));
  oru::FlowBuffer flow;
  flow.AddBlock(0, "Hostname", 8, false);
  flow.m_next_pos = 8;
  chain.Clear(conn);
  store->SetupRule(flow, 0, 8, 0, 1, chain);
  EXPECT_TRUE(chain.empty());
}

TEST_F(KeyValueRuleStoreTest, FailingAllocations) {
  // Strings and inspectors made first: only the store's allocations fail.
  const String key("Host"), patterns[] = {String("abc"), String("*bc"), String("ab*")};
  for (const String &p : patterns) {
    X(p.c_str());
  }
  bool completed = false;
  for (long n = 1; !completed && n < 200; ++n) {
    SCOPED_TRACE(n);
    store = std::make_unique<Store>("test");
    kest_test::FailNthAllocation(n);
    int added = 0;
    for (const String &p : patterns) {
      added += store->AddRule(key, p, X(p.c_str()).Callback(), false, p[0] == 'a' ? 3 : 0,
                              Store::EXPIRY_LOCAL);
    }
    kest_test::FailNthAllocation(0);
    completed = added == 3;
    const Names got = Lookup("Host", "abc");
    EXPECT_LE(got.size(), static_cast<size_t>(added));
    for (long m = 1; m < 4; ++m) {
      chain.Clear(conn);
      kest_test::FailNthAllocation(m);
      store->SetupRule("Host", "abc", 3, chain);
      kest_test::FailNthAllocation(0);
      EXPECT_LE(chain.size(), got.size());
    }
    chain.Clear(conn);
  }
  EXPECT_TRUE(completed);
  EXPECT_EQ(Lookup("Host", "abc"), (Names{"abc:5", "*bc:6"}));
}

} // namespace
