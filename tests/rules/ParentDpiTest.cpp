// Chains as a parent runs them: which entries are called, which leave, who
// hears OnChainExit, and what the packet's result is.
#include "ChainTestSupport.h"
#include "LeakCheck.h"

#include <kest/Conn.h>

namespace {

using kest_test::ChainNames;
using kest_test::ListStore;
using kest_test::Log;
using kest_test::ScriptedInspector;

// A parent with one registration slot, whatever the side.
class TestParent : public oru::ParentDpi {
public:
  unsigned int HandoffCallback(oru::PktInfo &pkt, oru::Tuple &tuple,
                               oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    const oru::InspectorCallback cb = m_callback;
    m_callback = oru::InspectorCallback();
    m_event = oru::Inspector::EVENT_NONE;
    return cb.Call(this, pkt, tuple, conn);
  }
  bool IsTimeToCallback(oru::PktInfo &, oru::Tuple &, oru::fdt::intrusive_ptr<oru::Conn> &,
                        unsigned int &result) override {
    if (m_override != 0) {
      result = m_override;
    }
    return m_event != oru::Inspector::EVENT_NONE;
  }
  void RegisterCallback(oru::fdt::intrusive_ptr<oru::Conn> &, unsigned char,
                        oru::InspectorCallback callback, oru::Inspector::Event event) override {
    m_callback = callback;
    m_event = event;
  }
  uint32_t GetProtocol() override { return 7; }

  oru::InspectorCallback m_callback;
  oru::Inspector::Event m_event = oru::Inspector::EVENT_NONE;
  unsigned m_override = 0;
};

class ParentDpiTest : public kest_test::LeakCheck {
protected:
  // Entries named A, B, C... with these answers, in this order, all at one
  // priority.
  void Fill(const std::vector<unsigned> &answers) {
    ListStore::RuleList list;
    for (size_t i = 0; i < answers.size(); ++i) {
      ScriptedInspector *x =
          ScriptedInspector::Make(std::string(1, char('A' + i)), &log, answers[i]);
      list.push_back(ListStore::MakeRule(x->Callback(), 1));
    }
    store.MergeIntoChain(list, chain);
  }
  unsigned Run() { return parent.ProcessChain(chain, pkt, tuple, conn); }

  Log log;
  ListStore store;
  oru::InspectorChain chain;
  TestParent parent;
  oru::PktInfo pkt{};
  oru::Tuple tuple{};
  oru::fdt::intrusive_ptr<oru::Conn> conn;
};

TEST_F(ParentDpiTest, OneRunStaysFinishesOrEnds) {
  struct Row {
    std::vector<unsigned> answers;
    unsigned result;
    Log log; // calls and exits, in order
    std::vector<std::string> left;
  } rows[] = {
      {{}, 64, {}, {}},
      {{1, 1}, 1, {"A", "B"}, {"A:1", "B:1"}},
      {{1, 64}, 1, {"A", "B", "B~"}, {"A:1"}},
      {{64, 64}, 64, {"A", "A~", "B", "B~"}, {}},
      {{64, 1}, 1, {"A", "A~", "B"}, {"B:1"}},
      // An ending answer: it leaves first, then the rest from the front; C
      // never sees the packet.
      {{1, 2, 1}, 2, {"A", "B", "B~", "A~", "C~"}, {}},
      {{0}, 0, {"A", "A~"}, {}},
      {{65, 1}, 65, {"A", "A~", "B~"}, {}},
      {{1, 128}, 128, {"A", "B", "B~", "A~"}, {}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.answers));
    Fill(row.answers);
    log.clear();
    EXPECT_EQ(Run(), row.result);
    EXPECT_EQ(log, row.log);
    EXPECT_EQ(ChainNames(chain), row.left);
    // Every staying entry got this parent and the very records the run was
    // handed, and is called again with the next packet; clearing the chain
    // then tells each of them it left.
    Log again, exits;
    for (const oru::ChainEntry &e : chain) {
      const auto *x = static_cast<const ScriptedInspector *>(e.callback.object.get());
      EXPECT_EQ(x->m_parent, static_cast<oru::ParentDpi *>(&parent));
      EXPECT_EQ(x->m_pkt, &pkt);
      EXPECT_EQ(x->m_tuple, &tuple);
      EXPECT_EQ(x->m_conn, &conn);
      again.push_back(x->Name());
      exits.push_back(x->Name() + "~");
    }
    log.clear();
    Run();
    EXPECT_EQ(log, again);
    log.clear();
    chain.Clear(conn);
    EXPECT_EQ(log, exits);
  }
}

// A chain goes before a registered callback, even when this run empties it.
TEST_F(ParentDpiTest, HandoffPrefersTheChain) {
  oru::fdt::intrusive_ptr<ScriptedInspector> waiting(ScriptedInspector::Make("W", &log, 64));
  struct Row {
    std::vector<unsigned> chain;
    bool registered;
    unsigned override_result;
    unsigned result;
    Log log;
  } rows[] = {
      {{}, false, 0, 2, {}},    {{}, false, 9, 9, {}},
      {{}, true, 9, 64, {"W"}}, {{64}, true, 0, 64, {"A", "A~"}},
      {{1}, true, 0, 1, {"A"}},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.chain));
    Fill(row.chain);
    log.clear();
    parent.m_override = row.override_result;
    if (row.registered) {
      parent.RegisterCallback(conn, 0, waiting->Callback(), oru::Inspector::EVENT_DATA);
    }
    EXPECT_EQ(parent.Handoff(chain, pkt, tuple, conn), row.result);
    EXPECT_EQ(log, row.log);
    chain.Clear(conn);
    parent.RegisterCallback(conn, 0, oru::InspectorCallback(), oru::Inspector::EVENT_NONE);
  }
}

// Two method pointers are equal by function word and adjustment, and any two
// with function word 0 are equal.
TEST(InspectorMethodTest, EqualityRule) {
  const oru::InspectorMethod inspect = &oru::Inspector::Inspect;
  const oru::InspectorMethod second = oru::MakeInspectorMethod(&ScriptedInspector::Second);
  const oru::InspectorMethodWords w = oru::SplitMethod(second);
  struct Row {
    oru::InspectorMethodWords a, b;
    bool same;
  } rows[] = {
      {oru::SplitMethod(inspect), oru::SplitMethod(inspect), true},
      {oru::SplitMethod(inspect), w, false},
      {w, {w.function, w.adjustment + 8}, false},
      {{0, 0}, {0, 8}, true},
      {{0, 8}, {w.function, 8}, false},
  };
  for (const Row &row : rows) {
    EXPECT_EQ(oru::SameMethod(oru::JoinMethod(row.a), oru::JoinMethod(row.b)), row.same);
  }
  // A method pointer to a virtual operation names a table slot, not a
  // function: the call reaches the override.
  EXPECT_EQ(oru::SplitMethod(inspect).function & 1, 1u);
}

} // namespace
