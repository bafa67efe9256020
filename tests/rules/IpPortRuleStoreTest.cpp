// The IP/port rule store: what a connection matches and in which order, against
// a brute-force model; removal, expiry on the look-up path and failing memory.
#include "ChainTestSupport.h"
#include "InstanceFixture.h"
#include "LeakCheck.h"
#include "TestHooks.h"

#include <kest/Conn.h>

#include <algorithm>
#include <map>
#include <random>

namespace {

using kest_test::ChainNames;
using kest_test::Log;
using kest_test::ScriptedInspector;
using Names = std::vector<std::string>;
using Store = oru::IpPortRuleStore;

oru::IpAddr V4(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
  return oru::IpAddr::FromV4(a << 24 | b << 16 | c << 8 | d);
}

class IpPortRuleStoreTest : public kest_test::StoreFixture<Store> {
protected:
  bool Add(const std::string &name, uint8_t proto, uint16_t port, oru::IpAddr low = {},
           oru::IpAddr high = {}, bool first = false, uint32_t timeout = 0) {
    return store->AddRule(proto, X(name).Callback(), port, low, high, timeout, Store::EXPIRY_LOCAL,
                          first);
  }
  void Remove(const std::string &name, uint8_t proto, uint16_t port, oru::IpAddr low = {},
              oru::IpAddr high = {}) {
    store->RemoveRuleFast(proto, X(name).Callback(), port, low, high);
  }
  Names Setup(oru::IpAddr a, uint16_t port_a, oru::IpAddr b, uint16_t port_b, uint8_t proto = 6) {
    chain.Clear(conn);
    store->SetupInspection(a, b, port_a, port_b, proto, chain);
    return ChainNames(chain);
  }
};

TEST_F(IpPortRuleStoreTest, RemovalEmptiesTheIndexAndRangesDoNotRegisterAPort) {
  const oru::IpAddr lo = V4(10, 0, 0, 1), hi = V4(10, 0, 0, 9);
  ASSERT_TRUE(Add("a", 6, 80, lo, hi));
  EXPECT_FALSE(store->IsPortRegistered(6, 80));
  ASSERT_TRUE(Add("b", 6, 80));
  EXPECT_FALSE(Add("b", 6, 80));
  ASSERT_TRUE(Add("b", 6, 80, lo, hi));
  ASSERT_TRUE(Add("c", 6, 0, lo, hi));
  ASSERT_TRUE(Add("d", 17, 0));
  EXPECT_TRUE(store->IsPortRegistered(6, 80));
  EXPECT_FALSE(store->IsPortRegistered(6, 81));
  EXPECT_FALSE(store->IsPortRegistered(17, 80));
  oru::IpPortSpec spec(lo, hi, 80, 6);
  EXPECT_EQ(store->FindRule(spec, X("b").Callback().method), &store->m_index.find(6)
                                                                  ->second.ports.find(80)
                                                                  ->second.ranges.find(lo)
                                                                  ->second.find(hi)
                                                                  ->second.front());
  EXPECT_EQ(store->FindRule(spec, nullptr), nullptr);
  Remove("b", 6, 80);
  EXPECT_FALSE(store->IsPortRegistered(6, 80));
  // Ranges and ports that are not there are no error.
  Remove("a", 6, 80, lo, V4(10, 0, 0, 10));
  Remove("a", 6, 81, lo, hi);
  Remove("a", 9, 80, lo, hi);
  for (const auto &[name, port, l, h] :
       {std::tuple{"a", 80, lo, hi}, std::tuple{"b", 80, lo, hi}, std::tuple{"c", 0, lo, hi}}) {
    EXPECT_FALSE(store->m_index.empty());
    Remove(name, 6, static_cast<uint16_t>(port), l, h);
  }
  EXPECT_EQ(store->m_index.size(), 1u);
  Remove("d", 17, 0);
  EXPECT_TRUE(store->m_index.empty());
}

// Rules with a time-out are found up to their second and gone at the first
// look-up after it; entries already on a chain survive.
TEST_F(IpPortRuleStoreTest, RulesExpireOnTheLookUpPath) {
  kest_clock_set_mode(h, 1);
  kest_clock_set(h, 100000);
  Enter();
  ASSERT_TRUE(Add("t", 6, 80, {}, {}, false, 2));
  ASSERT_TRUE(Add("r", 6, 80, V4(1, 0, 0, 0), V4(1, 0, 0, 9), false, 2));
  ASSERT_TRUE(Add("keep", 6, 80));
  store->m_allow_expiry = false;
  EXPECT_FALSE(Add("refused", 6, 80, {}, {}, false, 2));
  for (uint64_t ms : {100000, 101999}) {
    kest_clock_set(h, ms);
    Enter();
    EXPECT_EQ(Setup(V4(1, 0, 0, 1), 80, V4(2, 0, 0, 0), 9), (Names{"r:1", "t:1", "keep:1"}));
  }
  kest_clock_set(h, 102000);
  Enter();
  EXPECT_EQ(Setup(V4(1, 0, 0, 1), 80, V4(2, 0, 0, 0), 9), (Names{"r:1", "t:1", "keep:1"}));
  EXPECT_EQ(Setup(V4(1, 0, 0, 1), 80, V4(2, 0, 0, 0), 9), Names{"keep:1"});
  EXPECT_TRUE(store->m_expiry.empty());
  Remove("keep", 6, 80);
  EXPECT_TRUE(store->m_index.empty());
}

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
};

Names ModelChain(const std::vector<ModelRule> &rules, oru::IpAddr a, uint16_t port_a, oru::IpAddr b,
                 uint16_t port_b, uint8_t proto) {
  std::vector<std::vector<const ModelRule *>> merges;
  auto absent = [](const ModelRule &r) { return r.low.is_zero() && r.high.is_zero(); };
  auto list = [&](uint16_t port, bool ranged, oru::IpAddr low, oru::IpAddr high) {
    std::vector<const ModelRule *> out;
    for (const ModelRule &r : rules) {
      if (r.proto == proto && r.port == port && absent(r) != ranged &&
          (!ranged || (r.low == low && r.high == high))) {
        out.push_back(&r);
      }
    }
    if (!out.empty()) {
      merges.push_back(out);
    }
  };
  auto ranges = [&](uint16_t port, oru::IpAddr addr) {
    std::map<oru::IpAddr, std::vector<oru::IpAddr>> by_low;
    for (const ModelRule &r : rules) {
      if (r.proto == proto && r.port == port && !absent(r)) {
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
  // Each merge goes in front of its priority's earlier entries.
  std::vector<std::pair<const ModelRule *, uint32_t>> chain;
  for (const auto &merge : merges) {
    size_t pos = 0;
    for (size_t i = 0; i < merge.size(); ++i) {
      const uint32_t p = merge[i]->first ? 0 : 1;
      if (i == 0 || (merge[i - 1]->first ? 0u : 1u) != p) {
        pos = 0;
        while (pos < chain.size() && chain[pos].second < p) {
          ++pos;
        }
      }
      chain.insert(chain.begin() + static_cast<long>(pos), {merge[i], p});
      ++pos;
    }
  }
  Names names;
  for (auto &[r, p] : chain) {
    std::string n = r->name + ":" + std::to_string(p);
    if (std::find(names.begin(), names.end(), n) == names.end()) {
      names.push_back(n);
    }
  }
  return names;
}

TEST_F(IpPortRuleStoreTest, LookUpsAgreeWithABruteForceModel) {
  std::mt19937 random(2024);
  auto addr = [&]() {
    const uint32_t v = random() % 24;
    return v == 0 ? oru::IpAddr() : v < 20 ? V4(10, 0, 0, v) : oru::IpAddr(v << 24, v);
  };
  std::vector<ModelRule> model;
  for (int i = 0; i < 3000; ++i) {
    ModelRule r;
    // One inspector per name, so duplicates are only refused within a list.
    r.name = std::string(1, char('a' + random() % 12));
    r.first = r.name < "c";
    r.proto = random() % 4 == 0 ? 17 : 6;
    r.port = static_cast<uint16_t>(random() % 3 == 0 ? 0 : 79 + random() % 4);
    r.low = addr();
    r.high = random() % 8 == 0 ? oru::IpAddr() : addr();
    if (random() % 5 == 0 && !model.empty()) {
      // Removing a rule that exists, or one that does not.
      const ModelRule gone = model[random() % model.size()];
      store->RemoveRuleFast(gone.proto, X(gone.name).Callback(), gone.port, gone.low, gone.high);
      model.erase(std::remove_if(model.begin(), model.end(),
                                 [&](const ModelRule &m) {
                                   return m.name == gone.name && m.proto == gone.proto &&
                                          m.port == gone.port && m.low == gone.low &&
                                          m.high == gone.high;
                                 }),
                  model.end());
      continue;
    }
    const bool duplicate = std::any_of(model.begin(), model.end(), [&](const ModelRule &m) {
      const bool same_list =
          m.proto == r.proto && m.port == r.port &&
          (m.low.is_zero() && m.high.is_zero()) == (r.low.is_zero() && r.high.is_zero()) &&
          ((r.low.is_zero() && r.high.is_zero()) || (m.low == r.low && m.high == r.high));
      return same_list && m.name == r.name;
    });
    ASSERT_EQ(store->AddRule(r.proto, X(r.name).Callback(), r.port, r.low, r.high, 0,
                             Store::EXPIRY_LOCAL, r.first),
              !duplicate);
    if (!duplicate) {
      model.push_back(r);
    }
    if (i % 10 == 0) {
      const oru::IpAddr a = addr(), b = addr();
      const uint16_t pa = static_cast<uint16_t>(78 + random() % 5),
                     pb = static_cast<uint16_t>(78 + random() % 5);
      const uint8_t proto = random() % 3 == 0 ? 17 : 6;
      ASSERT_EQ(Setup(a, pa, b, pb, proto), ModelChain(model, a, pa, b, pb, proto)) << "step " << i;
    }
  }
  for (const ModelRule &r : model) {
    store->RemoveRuleFast(r.proto, X(r.name).Callback(), r.port, r.low, r.high);
  }
  EXPECT_TRUE(store->m_index.empty());
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

// Custom rule text becomes a spec only with a port a store can hold.
class IpPortSpecTest : public kest_test::LeakCheck {};

TEST_F(IpPortSpecTest, FromRuleStringRefusesPortsAbove65535) {
  struct Row {
    const char *text;
    bool ok;
    uint16_t port;
  } rows[] = {{"10.0.0.1-10.0.0.9:8080", true, 8080},
              {":65535", true, 65535},
              {":65536", false, 0},
              {":70000", false, 0},
              {"10.0.0.9-10.0.0.1", false, 0}};
  for (const Row &row : rows) {
    oru::IpPortSpec spec;
    EXPECT_EQ(oru::IpPortSpec::FromRuleString(oru::IpPortRuleString(row.text), 6, spec), row.ok)
        << row.text;
    EXPECT_EQ(spec.port, row.port) << row.text;
  }
}

} // namespace
