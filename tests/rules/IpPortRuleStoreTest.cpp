// The IP/port rule store against a brute-force model: what a connection
// matches and in which order, adds, removals, look-ups by spec and expiry on
// the look-up path; then failing memory.
#include "ChainTestSupport.h"
#include "InstanceFixture.h"
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
    // only within a list.
    r.name = std::string(1, char('a' + random() % 12)) + (random() % 4 == 0 ? "'" : "");
    r.first = r.name < "c";
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

} // namespace
