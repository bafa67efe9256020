// The key/value rule store: which patterns a value matches, removal with its
// stated quirks, look-ups straight from a flow against look-ups from strings,
// expiry and failing memory.
#include "ChainTestSupport.h"
#include "InstanceFixture.h"
#include "TestHooks.h"

#include <kest/Conn.h>
#include <kest/KeyValueRuleStore.h>

#include <algorithm>
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

// The stored patterns of one key and one direction, as plain strings (a
// "*text" pattern stored backwards), with their rules in order of adding.
using Patterns = std::map<std::string, kest_test::ModelList>;

// Whether some pattern begins with `s`: a node of the trie.
bool Node(const Patterns &p, const std::string &s) {
  auto it = p.lower_bound(s);
  return it != p.end() && it->first.compare(0, s.size(), s) == 0;
}

// The rules a walk of `v` ends on, the deepest match winning: the whole value;
// else, when it ends on a node, that node's own "*" (a run of "*" nodes);
// else the "*" beside the deepest node the walk passed, which ends the walk
// even without rules. Null when nothing matched.
const kest_test::ModelList *Walk(const Patterns &p, const std::string &v) {
  static const kest_test::ModelList none;
  auto rules = [&](const std::string &s) { return p.count(s) ? &p.at(s) : &none; };
  if (v.empty()) {
    return nullptr;
  }
  size_t k = 0;
  while (k < v.size() && Node(p, v.substr(0, k + 1))) {
    ++k;
  }
  size_t depth = k;
  if (k == v.size()) {
    if (p.count(v)) {
      return &p.at(v);
    }
    for (std::string s = v + "*"; Node(p, s); s += "*") {
      if (p.count(s)) {
        return &p.at(s);
      }
    }
    if (v.size() < 2) {
      return nullptr;
    }
    depth = v.size() - 2;
  }
  for (size_t i = depth + 1; i-- > 0;) {
    if (Node(p, v.substr(0, i) + "*")) {
      return rules(v.substr(0, i) + "*");
    }
  }
  return nullptr;
}

// Matches by a plain model of the two tries against the store, by strings
// and by flows of the same text in random blocks.
TEST_F(KeyValueRuleStoreTest, LookUpsAgreeWithAModel) {
  std::mt19937 random(5);
  const char *keys[] = {"Host", "Agent", "Cookie"};
  auto text = [&](size_t n) {
    std::string t;
    for (size_t i = 0; i < n; ++i) {
      t += "ab*"[random() % 3];
    }
    return t;
  };
  std::map<std::string, std::pair<Patterns, Patterns>> model; // lower-case key: forward, back
  for (int i = 0; i < 400; ++i) {
    std::string pattern = text(random() % 8 == 0 ? 48 + random() % 5 : random() % 7);
    if (random() % 3 == 0) {
      pattern = "*" + pattern;
    }
    const std::string key = keys[random() % 3], name = pattern + std::to_string(i % 7);
    const bool first = random() % 2 == 0, back = !pattern.empty() && pattern[0] == '*';
    std::string lower = key;
    std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
    Patterns &p = back ? model[lower].second : model[lower].first;
    const std::string stored = back ? std::string(pattern.rbegin(), pattern.rend()) : pattern;
    const uint32_t priority = (back                                        ? 2
                               : !pattern.empty() && pattern.back() == '*' ? 3
                                                                           : 1) +
                              (first ? 0 : 4);
    auto &rules = p[stored];
    const bool ok =
        !pattern.empty() && pattern.size() <= 50 &&
        std::none_of(rules.begin(), rules.end(), [&](const auto &r) { return r.first == name; });
    if (rules.empty() && !ok) {
      p.erase(stored);
    }
    ASSERT_EQ(Add(key, pattern, first, 0, name), ok) << pattern;
    if (ok) {
      rules.emplace_back(name, priority);
    }
  }
  for (int q = 0; q < 600; ++q) {
    const char *key = q % 50 == 0 ? "Other" : keys[random() % 3];
    std::string lower = key, asked = key;
    std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
    if (random() % 4 == 0) {
      asked = lower; // keys ignore case
    }
    const std::string value = text(random() % 70);
    // The forward walk reads the first 50 bytes, the backward one the last.
    const std::string head = value.substr(0, 50),
                      tail(value.rbegin(), value.rbegin() + std::min<size_t>(50, value.size()));
    std::vector<kest_test::ModelList> lists;
    for (const auto *list : {Walk(model[lower].first, head), Walk(model[lower].second, tail)}) {
      if (list) {
        lists.push_back(*list);
      }
    }
    const Names names = kest_test::ModelMerge(lists);
    ASSERT_EQ(Lookup(asked, value), names) << key << ": " << value;
    const std::string line = asked + ": " + value;
    oru::FlowBuffer flow;
    uint64_t at = 0;
    while (at < line.size()) {
      const size_t n = std::min<size_t>(1 + random() % 9, line.size() - at);
      flow.AddBlock(at, line.data() + at, static_cast<uint16_t>(n), false);
      flow.m_last_start = at;
      at += n;
    }
    flow.m_next_pos = at;
    const unsigned key_end = static_cast<unsigned>(asked.size());
    const unsigned value_start = key_end + 2, value_end = static_cast<unsigned>(line.size());
    chain.Clear(conn);
    store->SetupRule(flow, asked.c_str(), value_start, value_end, chain);
    EXPECT_EQ(ChainNames(chain), names) << line;
    chain.Clear(conn);
    store->SetupRule(flow, 0, key_end, value_start, value_end, chain);
    EXPECT_EQ(ChainNames(chain), names) << line;
  }
  // A failed add leaves its key behind.
  EXPECT_FALSE(Add("Cookie2", std::string(51, 'q')));
  EXPECT_NE(store->m_index.find("Cookie2"), store->m_index.end());
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
