// The IP/port rule store against a brute-force model: what a connection
// matches and in which order, adds, removals, look-ups by spec and expiry on
// the look-up path; then failing memory. Then the rule store core's expiry
// order and the announcement of used rules.
#include "ChainTestSupport.h"
#include "InstanceFixture.h"
#include "TestHooks.h"

#include <kest/Conn.h>
#include <kest/SyncEventQueue.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>

namespace {

using kest_test::ChainNames;
using kest_test::ListStore;
using kest_test::Log;
using kest_test::ScriptedInspector;
using Names = std::vector<std::string>;
using Store = oru::IpPortRuleStore;

oru::IpAddr V4(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return oru::IpAddr::FromV4(a << 24 | b << 16 | c << 8 | d);
}

class IpPortRuleStoreTest : public kest_test::StoreFixture<Store> {
protected:
  // "x" names x's Inspect, "x'" its second method.
  oru::InspectorCallback Cb(const std::string &name) {
    return name.back() == '\'' ? X(name.substr(0, 1)).SecondCallback() : X(name).Callback();
  }
  bool Add(const std::string &name, uint8_t proto, uint16_t port, oru::IpAddr low = {},
           oru::IpAddr high = {}, bool first = false, uint32_t timeout = 0) {
    return store->AddRule(proto, Cb(name), port, low, high, timeout, Store::EXPIRY_LOCAL, first);
  }
  Names Setup(oru::IpAddr a, uint16_t port_a, oru::IpAddr b, uint16_t port_b, uint8_t proto = 6) {
    chain.Clear(conn);
    store->SetupInspection(a, b, port_a, port_b, proto, chain);
    return ChainNames(chain);
  }
};

// A flat list of rules and the stated look-up, written the plain way: every
// matching rule goes on the chain, priority 0 first, then the more specific
// (a port on either side; with a range, port and address on one side; below
// the greatest high of a low, every range of that low), the second end point
// before the first.
struct ModelRule {
  std::string name;
  uint8_t proto;
  uint16_t port;
  oru::IpAddr low, high;
  bool first;
  uint64_t due; // the second it expires at; 0: never

  bool Ranged() const { return !(low.is_zero() && high.is_zero()); }
  // In the same list of the index as `o`.
  bool SameList(const ModelRule &o) const {
    return proto == o.proto && port == o.port && Ranged() == o.Ranged() &&
           (!Ranged() || (low == o.low && high == o.high));
  }
};

Names ModelChain(const std::vector<ModelRule> &rules, oru::IpAddr a, uint16_t port_a, oru::IpAddr b,
                 uint16_t port_b, uint8_t proto) {
  std::vector<kest_test::ModelList> merges;
  auto list = [&](uint16_t port, bool ranged, oru::IpAddr low, oru::IpAddr high) {
    kest_test::ModelList out;
    for (const ModelRule &r : rules) {
      if (r.proto == proto && r.port == port && r.Ranged() == ranged &&
          (!ranged || (r.low == low && r.high == high))) {
        out.emplace_back(r.name, r.first ? 0 : 1);
      }
    }
    if (!out.empty()) {
      merges.push_back(out);
    }
  };
  auto ranges = [&](uint16_t port, oru::IpAddr addr) {
    std::map<oru::IpAddr, std::vector<oru::IpAddr>> by_low;
    for (const ModelRule &r : rules) {
      if (r.proto == proto && r.port == port && r.Ranged()) {
        by_low[r.low].push_back(r.high);
      }
    }
    for (auto &[low, highs] : by_low) {
      std::sort(highs.begin(), highs.end());
      highs.erase(std::unique(highs.begin(), highs.end()), highs.end());
      if (addr < low || highs.back() < addr) {
        continue;
      }
      for (auto h = highs.rbegin(); h != highs.rend(); ++h) {
        list(port, true, low, *h);
      }
    }
  };
  list(0, false, {}, {});
  ranges(0, a);
  ranges(0, b);
  for (auto [port, addr] : {std::pair{port_a, a}, std::pair{port_b, b}}) {
    list(port, false, {}, {});
    ranges(port, addr);
  }
  return kest_test::ModelMerge(merges);
}

TEST_F(IpPortRuleStoreTest, AgreesWithABruteForceModel) {
  kest_clock_set_mode(h, 1);
  uint64_t now = 100;
  kest_clock_set(h, now * 1000);
  Enter();
  store->AllowExpiry(false);
  EXPECT_FALSE(Add("a", 6, 80, {}, {}, false, 2)) << "time-outs refused";
  store->AllowExpiry(true);
  std::mt19937 random(2024);
  auto addr = [&]() {
    const uint32_t v = random() % 24;
    return v == 0 ? oru::IpAddr() : v < 20 ? V4(10, 0, 0, v) : oru::IpAddr(v << 24, v);
  };
  std::vector<ModelRule> model;
  for (int i = 0; i < 3000; ++i) {
    ModelRule r;
    // One inspector per letter, with two methods; duplicates are refused
    // only within a list. Half the chains hold more callbacks than the
    // duplicate removal keeps on its stack.
    r.name = std::string(1, char('A' + random() % 60)) + (random() % 4 == 0 ? "'" : "");
    r.first = r.name < "C";
    r.proto = random() % 4 == 0 ? 17 : random() % 50 == 0 ? 9 : 6;
    r.port = static_cast<uint16_t>(random() % 3 == 0 ? 0 : 79 + random() % 4);
    r.low = addr();
    r.high = random() % 8 == 0 ? oru::IpAddr() : addr();
    const uint32_t timeout = random() % 6 == 0 ? 1 + random() % 3 : 0;
    r.due = timeout == 0 ? 0 : now + timeout;
    oru::IpPortSpec spec(r.low, r.high, r.port, r.proto);
    // The rule with this spec and method: by method alone within the list.
    const auto held = std::find_if(model.begin(), model.end(), [&](const ModelRule &m) {
      return m.SameList(r) && (m.name.back() == '\'') == (r.name.back() == '\'');
    });
    const Store::Rule *found = store->FindRule(spec, Cb(r.name).method);
    ASSERT_EQ(found != nullptr, held != model.end()) << "step " << i;
    EXPECT_TRUE(!found || (found->spec.port == r.port && found->spec.protocol == r.proto));
    EXPECT_EQ(store->FindRule(spec, nullptr), nullptr);
    auto same = [&](const ModelRule &m) { return m.SameList(r) && m.name == r.name; };
    if (random() % 5 == 0) {
      // Removing a rule that exists, or one that most likely does not.
      if (random() % 2 == 0 && !model.empty()) {
        r = model[random() % model.size()];
      }
      store->RemoveRuleFast(r.proto, Cb(r.name), r.port, r.low, r.high);
      model.erase(std::remove_if(model.begin(), model.end(), same), model.end());
      continue;
    }
    const bool duplicate = std::any_of(model.begin(), model.end(), same);
    ASSERT_EQ(Add(r.name, r.proto, r.port, r.low, r.high, r.first, timeout), !duplicate);
    if (!duplicate) {
      model.push_back(r);
    }
    if (i % 10 == 0) {
      if (random() % 3 == 0) {
        now += 1 + random() % 2;
        kest_clock_set(h, now * 1000 + random() % 1000);
        Enter();
      }
      const oru::IpAddr a = addr(), b = addr();
      const uint16_t pa = static_cast<uint16_t>(78 + random() % 5),
                     pb = static_cast<uint16_t>(78 + random() % 5);
      const uint8_t proto = random() % 3 == 0 ? 17 : 6;
      // Rules due by now are still found by this look-up, and gone after it.
      ASSERT_EQ(Setup(a, pa, b, pb, proto), ModelChain(model, a, pa, b, pb, proto)) << "step " << i;
      model.erase(std::remove_if(model.begin(), model.end(),
                                 [&](const ModelRule &m) { return m.due != 0 && m.due <= now; }),
                  model.end());
      EXPECT_EQ(store->IsPortRegistered(proto, pa),
                std::any_of(model.begin(), model.end(), [&](const ModelRule &m) {
                  return m.proto == proto && m.port == pa && pa != 0 && !m.Ranged();
                }));
    }
  }
  for (const ModelRule &r : model) {
    store->RemoveRuleFast(r.proto, Cb(r.name), r.port, r.low, r.high);
  }
  EXPECT_TRUE(store->m_index.empty());
  for (auto it = store->m_expiry.begin(); it != store->m_expiry.end(); ++it) {
    EXPECT_TRUE(it->second.empty()) << "a removed rule stayed armed";
  }
}

// Under failing memory an add answers false and a look-up loses entries,
// never order; nothing leaks, and the store keeps working.
TEST_F(IpPortRuleStoreTest, FailingAllocationsAtEveryStep) {
  const oru::IpAddr lo = V4(10, 0, 0, 1), hi = V4(10, 0, 0, 9);
  auto fill = [&] {
    int added = 0;
    added += Add("a", 6, 0);
    added += Add("b", 6, 80, lo, hi, false, 5);
    added += Add("c", 6, 0, lo, hi, true);
    added += Add("d", 6, 80);
    return added;
  };
  const Names full = {"c:0", "b:1", "d:1", "a:1"};
  for (const char *name : {"a", "b", "c", "d"}) {
    X(name);
  }
  bool completed = false;
  for (long n = 1; !completed; ++n) {
    SCOPED_TRACE(n);
    store = std::make_unique<Store>("test");
    kest_test::FailNthAllocation(n);
    const int added = fill();
    kest_test::FailNthAllocation(0);
    completed = added == 4;
    // What went in is found, in order.
    Names got = Setup(lo, 80, V4(2, 0, 0, 0), 9);
    EXPECT_EQ(got.size(), static_cast<size_t>(added));
    for (long m = 1; m < 6; ++m) {
      chain.Clear(conn);
      kest_test::FailNthAllocation(m);
      store->SetupInspection(lo, V4(2, 0, 0, 0), 80, 9, 6, chain);
      kest_test::FailNthAllocation(0);
      Names partial = ChainNames(chain);
      EXPECT_TRUE(std::includes(got.begin(), got.end(), partial.begin(), partial.end(),
                                [&](const std::string &x, const std::string &y) {
                                  return std::find(full.begin(), full.end(), x) <
                                         std::find(full.begin(), full.end(), y);
                                }));
    }
    if (completed) {
      EXPECT_EQ(got, full);
    }
    chain.Clear(conn);
  }
}

// The ports of the rules armed at `second`, least recently found first.
template <class S> std::vector<uint32_t> Armed(S &store, unsigned long long second) {
  std::vector<uint32_t> ports;
  auto node = store.m_expiry.find(second);
  if (node != store.m_expiry.end()) {
    for (auto &entry : node->second) {
      ports.push_back(entry.second->spec.port);
    }
  }
  return ports;
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
    ListStore::Rule rule =
        ListStore::MakeRule(ScriptedInspector::Make("R", &log)->Callback(), id, timeout, type);
    rule.spec.port = static_cast<uint16_t>(id);
    return store.AddToList(list, rule);
  }
  std::vector<uint32_t> Bucket(unsigned long long second) { return Armed(store, second); }

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
  EXPECT_EQ(Armed(theirs, 110), (std::vector<uint32_t>{80, 81}));
  kest_idle(h);
  Enter();
  EXPECT_EQ(Armed(theirs, 110), (std::vector<uint32_t>{81, 80}));
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
