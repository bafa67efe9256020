// Inspectors for the chain and rule store tests: each answers from a script
// and writes what happens to it into a shared log ("A" for a call of its
// Inspect, "A'" for its second method, "A~" for OnChainExit), and a store
// that exposes the rule store core to the tests.
#ifndef KEST_TESTS_INSPECTORTESTSUPPORT_H
#define KEST_TESTS_INSPECTORTESTSUPPORT_H

#include "InstanceFixture.h"
#include "TestHooks.h"

#include <kest/Conn.h>
#include <kest/IpPortRuleStore.h>
#include <kest/ParentDpi.h>
#include <kest/fdt/ObjectPrefix.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kest_test {

using Log = std::vector<std::string>;

class ScriptedInspector : public oru::Inspector {
public:
  ScriptedInspector(std::string name, Log *log, unsigned answer)
      : m_answer(answer), m_name(std::move(name)), m_log(log) {}

  // Made on the hook heap, as plug-ins make theirs; the deleting destructor
  // releases by the prefix.
  static ScriptedInspector *Make(const std::string &name, Log *log, unsigned answer = 1) {
    return oru::fdt::CreateObject<ScriptedInspector>(oru::fdt::OBJECT_LOCAL, name, log, answer);
  }

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    Seen(parent, pkt, tuple, conn);
    m_log->push_back(m_name);
    return m_answer;
  }
  unsigned int Second(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                      oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    Seen(parent, pkt, tuple, conn);
    m_log->push_back(m_name + "'");
    return m_answer;
  }
  void OnChainExit(oru::fdt::intrusive_ptr<oru::Conn> &) override {
    m_log->push_back(m_name + "~");
  }

  oru::InspectorCallback Callback() { return oru::InspectorCallback(this); }
  oru::InspectorCallback SecondCallback() {
    return oru::InspectorCallback(this, oru::MakeInspectorMethod(&ScriptedInspector::Second));
  }

  const std::string &Name() const { return m_name; }

  unsigned m_answer;
  // What the latest call was handed.
  const void *m_parent = nullptr;
  const void *m_pkt = nullptr;
  const void *m_tuple = nullptr;
  const void *m_conn = nullptr;

private:
  void Seen(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
            oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    m_parent = parent;
    m_pkt = &pkt;
    m_tuple = &tuple;
    m_conn = &conn;
  }

  std::string m_name;
  Log *m_log;
};

// The rule store core with its internal steps in reach, over lists the test
// keeps itself.
class ListStore : public oru::RuleStore<oru::IpPortSpec> {
public:
  ListStore() : RuleStore("lists") { m_event = 0; }
  ~ListStore() { m_expiry.clear(); }

  using RuleStore::AddToList;
  using RuleStore::DisarmExpiry;
  using RuleStore::MergeIntoChain;
  using RuleStore::RunExpiry;

  void Expire(Rule *rule) override {
    expired.push_back(rule->priority);
    for (RuleList *list : lists) {
      for (auto it = list->begin(); it != list->end(); ++it) {
        if (&*it == rule) {
          list->erase(it);
          return;
        }
      }
    }
  }
  Rule *FindRule(oru::IpPortSpec &, oru::InspectorMethod) override { return nullptr; }

  // A rule of `priority` for the callback.
  static Rule MakeRule(const oru::InspectorCallback &cb, uint32_t priority, uint32_t timeout = 0,
                       ExpiryType type = EXPIRY_LOCAL) {
    return Rule{cb, priority, oru::IpPortSpec(), timeout, type, nullptr};
  }

  // Lists whose rules Expire takes out; priorities of the expired, in order.
  std::vector<RuleList *> lists;
  std::vector<uint32_t> expired;
};

// The chain from the front: each entry's inspector name, "'" for the second
// method, then ":" and its priority.
inline std::vector<std::string> ChainNames(const oru::InspectorChain &chain) {
  std::vector<std::string> out;
  const oru::InspectorMethod second = oru::MakeInspectorMethod(&ScriptedInspector::Second);
  for (const oru::ChainEntry &e : chain) {
    const auto *inspector = static_cast<const ScriptedInspector *>(e.callback.object.get());
    out.push_back(inspector->Name() + (oru::SameMethod(e.callback.method, second) ? "'" : "") +
                  ":" + std::to_string(e.priority));
  }
  return out;
}

// The model of a look-up's chain: each list, in turn, goes in front of the
// earlier entries of its priority, by priority; then each name once, the
// entry that sorted first staying. As ChainNames prints.
using ModelList = std::vector<std::pair<std::string, uint32_t>>;
inline std::vector<std::string> ModelMerge(const std::vector<ModelList> &lists) {
  ModelList chain;
  for (const ModelList &list : lists) {
    size_t pos = 0;
    for (size_t i = 0; i < list.size(); ++i) {
      if (i == 0 || list[i].second != list[i - 1].second) {
        for (pos = 0; pos < chain.size() && chain[pos].second < list[i].second;) {
          ++pos;
        }
      }
      chain.insert(chain.begin() + static_cast<long>(pos++), list[i]);
    }
  }
  std::vector<std::string> names, seen;
  for (const auto &[name, priority] : chain) {
    if (std::find(seen.begin(), seen.end(), name) == seen.end()) {
      seen.push_back(name);
      names.push_back(name + ":" + std::to_string(priority));
    }
  }
  return names;
}

// A store of type Store on a thread of an open instance, with named
// inspectors made on demand and one chain; after the test every local block
// taken during it has gone back.
template <class Store> class StoreFixture : public ThreadedFixture {
protected:
  void SetUp() override {
    ThreadedFixture::SetUp();
    Enter();
    m_local = LiveBlocks(Heap::Local);
  }
  void TearDown() override {
    Enter();
    chain.Clear(conn);
    store.reset();
    pool.clear();
    EXPECT_EQ(LiveBlocks(Heap::Local), m_local);
    ThreadedFixture::TearDown();
  }
  // The inspector of this name.
  ScriptedInspector &X(const std::string &name) {
    auto &x = pool[name];
    if (!x) {
      x = ScriptedInspector::Make(name, &log);
    }
    return *x;
  }

  Log log;
  std::unique_ptr<Store> store = std::make_unique<Store>("test");
  std::map<std::string, oru::fdt::intrusive_ptr<ScriptedInspector>> pool;
  oru::InspectorChain chain;
  oru::fdt::intrusive_ptr<oru::Conn> conn;
  long m_local = 0;
};

} // namespace kest_test

#endif
