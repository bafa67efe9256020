// The rule store core: duplicate removal, expiry by second and the
// announcement of used rules to other threads. Merge order is checked with
// the IP/port store's look-ups against a model.
#include "ChainTestSupport.h"
#include "InstanceFixture.h"
#include "LeakCheck.h"

#include <kest/Conn.h>
#include <kest/SyncEventQueue.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace {

using kest_test::ChainNames;
using kest_test::ListStore;
using kest_test::Log;
using kest_test::ScriptedInspector;
using Names = std::vector<std::string>;

class RuleStoreTest : public kest_test::LeakCheck {
protected:
  ~RuleStoreTest() override = default;
  void TearDown() override {
    chain.Clear(conn);
    for (auto &x : pool) {
      x.reset();
    }
    LeakCheck::TearDown();
  }
  oru::fdt::intrusive_ptr<ScriptedInspector> &X(int i) {
    if (!pool[i]) {
      pool[i] = ScriptedInspector::Make(std::string(1, char('A' + i)), &log);
    }
    return pool[i];
  }
  // Merges one list of (inspector, priority) rules.
  void Merge(std::initializer_list<std::pair<int, uint32_t>> rules) {
    ListStore::RuleList list;
    for (auto [i, p] : rules) {
      list.push_back(ListStore::MakeRule(X(i)->Callback(), p));
    }
    store.MergeIntoChain(list, chain);
  }

  Log log;
  ListStore store;
  oru::InspectorChain chain;
  oru::fdt::intrusive_ptr<oru::Conn> conn;
  oru::fdt::intrusive_ptr<ScriptedInspector> pool[26];
};

// UniqueChain keeps the first occurrence of each callback, by the one rule
// (object and method), against a plain model, also past its room on the
// stack.
TEST_F(RuleStoreTest, UniqueChainKeepsFirstOccurrences) {
  std::mt19937 random(7);
  for (int round = 0; round < 40; ++round) {
    const int length =
        round < 20 ? static_cast<int>(random() % 12) : 30 + static_cast<int>(random() % 90);
    const int kinds = 1 + static_cast<int>(random() % 26);
    ListStore::RuleList list;
    std::vector<std::pair<int, bool>> model;
    for (int i = 0; i < length; ++i) {
      const int x = static_cast<int>(random() % kinds);
      const bool second = random() % 3 == 0;
      list.push_back(ListStore::MakeRule(second ? X(x)->SecondCallback() : X(x)->Callback(), 1));
      if (std::find(model.begin(), model.end(), std::make_pair(x, second)) == model.end()) {
        model.emplace_back(x, second);
      }
    }
    store.MergeIntoChain(list, chain);
    ListStore::UniqueChain(chain);
    Names expected;
    for (auto [x, second] : model) {
      expected.push_back(std::string(1, char('A' + x)) + (second ? "'" : "") + ":1");
    }
    ASSERT_EQ(ChainNames(chain), expected) << "round " << round;
    chain.Clear(conn);
  }
  // Priority plays no part: the entry that sorted first survives.
  Merge({{0, 1}});
  Merge({{0, 0}});
  ListStore::UniqueChain(chain);
  EXPECT_EQ(ChainNames(chain), Names{"A:0"});
}

// Time-outs on the thread's clock, set by the host.
class RuleExpiryTest : public kest_test::ThreadedFixture {
protected:
  void SetUp() override {
    ThreadedFixture::SetUp();
    kest_clock_set_mode(h, 1);
    At(100);
    Enter();
    store.lists = {&list};
  }
  void TearDown() override {
    Enter();
    chain.Clear(conn);
    list.clear();
    store.m_expiry.clear();
    ThreadedFixture::TearDown();
  }
  void At(uint64_t second) { kest_clock_set(h, second * 1000 + 999); }
  bool Add(uint32_t id, uint32_t timeout, ListStore::ExpiryType type = ListStore::EXPIRY_LOCAL) {
    auto *x = ScriptedInspector::Make("R", &log);
    return store.AddToList(list, ListStore::MakeRule(x->Callback(), id, timeout, type));
  }
  std::vector<uint32_t> Bucket(unsigned long long second) {
    std::vector<uint32_t> ids;
    auto node = store.m_expiry.find(second);
    if (node != store.m_expiry.end()) {
      for (auto &entry : node->second) {
        ids.push_back(entry.second->priority);
      }
    }
    return ids;
  }

  Log log;
  ListStore store;
  ListStore::RuleList list;
  oru::InspectorChain chain;
  oru::fdt::intrusive_ptr<oru::Conn> conn;
};

TEST_F(RuleExpiryTest, RulesExpireAtTheirSecondLeastRecentlyFoundFirst) {
  ASSERT_TRUE(Add(1, 1));
  ASSERT_TRUE(Add(2, 1));
  ASSERT_TRUE(Add(3, 0));
  ASSERT_TRUE(Add(4, 5));
  EXPECT_EQ(Bucket(101), (std::vector<uint32_t>{1, 2}));
  EXPECT_EQ(list.back().bucket, store.m_expiry.find(105ull).node());

  // Merging finds each armed rule in list order, so the latest found is the
  // last merged; finding rule 1 alone makes it the most recent of its second.
  store.MergeIntoChain(list, chain);
  EXPECT_EQ(Bucket(101), (std::vector<uint32_t>{1, 2}));
  list.front().bucket->m_value.second.touch(&list.front());
  EXPECT_EQ(Bucket(101), (std::vector<uint32_t>{2, 1}));

  store.RunExpiry();
  EXPECT_TRUE(store.expired.empty());
  At(101);
  store.RunExpiry();
  EXPECT_EQ(store.expired, (std::vector<uint32_t>{2, 1}));
  EXPECT_EQ(store.m_expiry.size(), 1u);
  // Chain entries are copies: they outlive their rules.
  EXPECT_EQ(chain.size(), 4u);

  // One pass a second; a disarmed rule never expires, its bucket goes at its
  // second.
  ListStore::DisarmExpiry(&list.back());
  EXPECT_EQ(list.back().bucket, nullptr);
  EXPECT_EQ(Bucket(105), std::vector<uint32_t>{});
  ASSERT_TRUE(Add(5, 4)); // due at 105, beside the disarmed one
  At(105);
  store.RunExpiry();
  EXPECT_EQ(store.expired, (std::vector<uint32_t>{2, 1, 5}));
  EXPECT_TRUE(store.m_expiry.empty());
  EXPECT_EQ(list.size(), 2u);
  ASSERT_TRUE(Add(6, 1));
  store.RunExpiry();
  EXPECT_EQ(store.m_last_expire, 105u);
  EXPECT_EQ(Bucket(106), std::vector<uint32_t>{6});
}

// The ports of the rules armed at `second`, least recently found first.
std::vector<uint16_t> Armed(oru::IpPortRuleStore &store, unsigned long long second) {
  std::vector<uint16_t> ports;
  auto node = store.m_expiry.find(second);
  if (node != store.m_expiry.end()) {
    for (auto &entry : node->second) {
      ports.push_back(entry.second->spec.port);
    }
  }
  return ports;
}

// A store with its owner's handler of the rule-use event, which keeps what it
// hears and applies it to `target`: in a program, another thread's store.
struct Announcing : oru::EventTarget {
  oru::IpPortRuleStore store{"test"};
  oru::IpPortRuleStore *target = nullptr;
  std::vector<std::vector<uint8_t>> heard;

  explicit Announcing(uint32_t event) {
    store.m_event = event;
    oru::SyncEventQueue::Instance()->InstallHandler(event, this,
                                                    oru::MakeEventMethod(&Announcing::OnRuleUsed));
  }
  ~Announcing() {
    oru::SyncEventQueue::Instance()->InstallHandler(store.m_event, nullptr, nullptr);
  }
  void OnRuleUsed(const void *data, uint32_t length) {
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    heard.emplace_back(bytes, bytes + length);
    EXPECT_TRUE(target->ApplyAnnouncement(data, length));
  }
};

// Finding a synced rule posts its method and spec; applied to another store
// it makes that store's rule of the same spec and method (its own inspector)
// the most recently found of its second.
TEST_F(RuleExpiryTest, SyncedUseIsAnnouncedAndAppliedElsewhere) {
  const uint32_t event = oru::SyncEventQueue::RegisterEvent("test.rule_used");
  ASSERT_NE(event, 0u);
  Announcing mine(event);
  oru::IpPortRuleStore theirs("theirs");
  mine.target = &theirs;
  oru::fdt::intrusive_ptr<ScriptedInspector> x(ScriptedInspector::Make("X", &log)),
      y(ScriptedInspector::Make("Y", &log));
  const oru::IpAddr low = oru::IpAddr::FromV4(0x0A000001), high = oru::IpAddr::FromV4(0x0A0000FF);
  for (auto [store, by, port, type] : {std::tuple{&mine.store, &x, 80, ListStore::EXPIRY_SYNCED},
                                       std::tuple{&mine.store, &x, 81, ListStore::EXPIRY_LOCAL},
                                       std::tuple{&theirs, &y, 80, ListStore::EXPIRY_SYNCED},
                                       std::tuple{&theirs, &y, 81, ListStore::EXPIRY_SYNCED}}) {
    ASSERT_TRUE(store->AddRule(6, (*by)->Callback(), static_cast<uint16_t>(port), low, high, 10,
                               type, false));
  }
  mine.store.SetupInspection(oru::IpAddr::FromV4(0x0A000005), oru::IpAddr::FromV4(0x0B000001), 80,
                             81, 6, chain);
  EXPECT_EQ(chain.size(), 1u); // one callback, found through both rules
  EXPECT_EQ(Armed(theirs, 110), (std::vector<uint16_t>{80, 81}));
  kest_idle(h);
  Enter();
  EXPECT_EQ(Armed(theirs, 110), (std::vector<uint16_t>{81, 80}));
  // The method's two words, then the spec field by field, 52 bytes. Only the
  // synced rule (port 80) posted.
  ASSERT_EQ(mine.heard.size(), 1u);
  std::vector<uint8_t> expected(52, 0);
  const oru::InspectorMethodWords words = oru::SplitMethod(&oru::Inspector::Inspect);
  std::memcpy(&expected[0], &words.function, 8);
  std::memcpy(&expected[8], &words.adjustment, 8);
  std::memcpy(&expected[16], &low, 16);
  std::memcpy(&expected[32], &high, 16);
  expected[48] = 80;
  expected[50] = 6;
  EXPECT_EQ(mine.heard[0], expected);
  EXPECT_FALSE(theirs.ApplyAnnouncement(expected.data(), 15)) << "shorter than a method";
  chain.Clear(conn);
}

} // namespace
