// The attribute manager: names and families, producers' identifiers,
// listeners in every order and under failing memory, and values delivered
// from the packet path to the host.
#include "AttributeTestSupport.h"

#include <atomic>
#include <thread>
#include <tuple>

namespace {

using kest_test::Name;
using oru::AttributeMgr;

// A family key equals each of its members; all else keeps the plain order.
TEST(AttributeLessTest, FamilyKeysEqualTheirMembers) {
  kest_test::InstallHooks();
  struct Row {
    const char *a, *b;
    bool a_first, b_first;
  };
  const Row rows[] = {
      {"a.", "a.b", false, false}, {"a.", "a.b.c", false, false}, {"a.b.", "a.", false, false},
      {"a.", "ab", true, false},   {"a.b", "a.c", true, false},   {"a", "a.b", true, false},
      {"a.x", "b.", true, false},  {"b.", "a.x", false, true},    {"a.b", "a.b", false, false},
  };
  const oru::AttributeLess less;
  for (const Row &row : rows) {
    SCOPED_TRACE(std::string(row.a) + " : " + row.b);
    EXPECT_EQ(less(row.a, row.b), row.a_first);
    EXPECT_EQ(less(row.b, row.a), row.b_first);
  }
}

bool RefuseX(const oru::fdt::string &name) {
  return name.c_str()[name.size() - 1] != 'x';
}

class AttributeMgrTest : public kest_test::AttributeFixture {};

TEST_F(AttributeMgrTest, CreateAndRegisterKeepTheFirst) {
  char value[8];
  EXPECT_TRUE(AttributeMgr::Create(Name("a.b")));
  EXPECT_FALSE(AttributeMgr::Create(Name("a.b")));
  ASSERT_EQ(kest_config_get(h, "attribute.a.b", value, sizeof(value)), 0);
  EXPECT_STREQ(value, "0");
  EXPECT_EQ(kest_config_set(h, "attribute.a.b", ""), -1) << "an empty listener is refused";

  EXPECT_TRUE(AttributeMgr::Create(Name("f."), RefuseX));
  EXPECT_FALSE(AttributeMgr::Create(Name("f.y"))) << "covered by f.";
  // A family covers what it is a prefix of, not the names beside it under a
  // shorter dotted prefix (which the maps' order counts as equal to it).
  EXPECT_TRUE(AttributeMgr::Create(Name("p.request.header."), RefuseX));
  EXPECT_TRUE(AttributeMgr::Create(Name("p.request.idx")));
  EXPECT_FALSE(AttributeMgr::Create(Name("p.request.header.y")));
  EXPECT_EQ(SetListener("p.request.idx"), 0) << "the family's validator is not asked";
  // The family's validator decides for its members.
  EXPECT_EQ(kest_config_set(h, "attribute.f.x", "1"), -1);
  EXPECT_EQ(SetListener("f.x"), -1);
  EXPECT_EQ(kest_errno, KEST_EINVAL);
  EXPECT_EQ(SetListener("f.y"), 0);
  EXPECT_EQ(SetListener("g.unknown"), -1);

  int id = -5;
  EXPECT_FALSE(manager->Register(Name("never.made"), &id));
  EXPECT_TRUE(manager->Register(Name("a.b"), &id));
  EXPECT_FALSE(manager->Register(Name("a.b"), &id));
  EXPECT_EQ(id, -5) << "no listener, no callback";
  EXPECT_EQ(Key("a.b"), 0);
}

// A listener set before Register, after it, cleared and set again; a freed
// row goes to the next new listener, and a full table doubles.
TEST_F(AttributeMgrTest, ListenersInEveryOrder) {
  for (const char *name : {"o.before", "o.after", "o.third"}) {
    ASSERT_TRUE(AttributeMgr::Create(Name(name)));
  }
  int before = 0, after = 0, third = 0;
  ASSERT_EQ(SetListener("o.before"), 0);
  kest_idle(h);
  ASSERT_TRUE(manager->Register(Name("o.before"), &before));
  EXPECT_GT(before, 0) << "known at Register";

  ASSERT_TRUE(manager->Register(Name("o.after"), &after));
  ASSERT_EQ(SetListener("o.after"), 0);
  EXPECT_EQ(Key("o.after"), 0) << "not before the idle pass";
  kest_idle(h);
  EXPECT_GT(after, before);
  EXPECT_EQ(Key("o.after"), after);

  const int freed = after;
  ASSERT_EQ(SetListener("o.after", nullptr), 0);
  kest_idle(h);
  EXPECT_EQ(after, 0);
  EXPECT_EQ(Key("o.after"), 0);

  ASSERT_TRUE(manager->Register(Name("o.third"), &third));
  ASSERT_EQ(SetListener("o.third"), 0);
  ASSERT_EQ(SetListener("o.after"), 0);
  kest_idle(h);
  EXPECT_EQ(third, freed) << "the freed row is reused";
  EXPECT_GT(after, 0);
  EXPECT_EQ(manager->m_delivery.size(), 16u);

  std::vector<int> ids(30); // rows 4 to 33
  for (int i = 0; i < 30; ++i) {
    const std::string name = "g." + std::to_string(i);
    ASSERT_TRUE(AttributeMgr::Create(Name(name)));
    ASSERT_TRUE(manager->Register(Name(name), &ids[i]));
    ASSERT_EQ(SetListener(name), 0);
  }
  kest_idle(h);
  EXPECT_EQ(ids[29], 33);
  EXPECT_EQ(manager->m_delivery.size(), 64u) << "16, 32, then 64";
}

// A trie registration on a family follows its members, set before and after.
TEST_F(AttributeMgrTest, TrieFollowsFamilyMembers) {
  ASSERT_TRUE(AttributeMgr::Create(Name("hdr."), RefuseX));
  ASSERT_EQ(SetListener("hdr.Host"), 0);
  AttributeMgr::NameTrie names;
  ASSERT_TRUE(manager->Register(Name("hdr."), &names));
  ASSERT_NE(names.find("HOST"), nullptr);
  EXPECT_EQ(names.find("HOST")->values().front(), Key("hdr.Host"));

  ASSERT_EQ(SetListener("hdr.c"), 0);
  kest_idle(h);
  oru::trie<int> *member = names.child('C');
  ASSERT_NE(member, nullptr);
  EXPECT_EQ(member->values().front(), Key("hdr.c"));
  ASSERT_EQ(SetListener("hdr.c", nullptr), 0);
  kest_idle(h);
  EXPECT_EQ(Key("hdr.c"), 0);
  // Removal destroyed the member's node; its owner takes the entry out.
  for (auto it = names.children().begin(); it != names.children().end(); ++it) {
    if (*it == member) {
      names.children().erase(it);
      break;
    }
  }
}

// Without memory a thread may miss a listener, but an identifier is known
// exactly when the producer has it, and Unregister frees every row.
TEST_F(AttributeMgrTest, RegisterAndChangeSurviveFailingAllocations) {
  for (int phase = 0; phase < 2; ++phase) {
    int id = 0;
    for (long n = 1; id == 0; ++n) {
      SCOPED_TRACE(phase * 1000 + n);
      ASSERT_LT(n, 200);
      const std::string name = "m." + std::to_string(phase) + "." + std::to_string(n);
      ASSERT_TRUE(AttributeMgr::Create(Name(name)));
      bool registered = true;
      if (phase == 0) { // listener first, Register under failure
        ASSERT_EQ(SetListener(name), 0);
        kest_idle(h);
        kest_test::FailNthAllocation(n);
        registered = manager->Register(Name(name), &id);
      } else { // Register first, the change under failure
        ASSERT_TRUE(manager->Register(Name(name), &id));
        ASSERT_EQ(SetListener(name), 0);
        kest_test::FailNthAllocation(n);
        kest_idle(h);
      }
      kest_test::FailNthAllocation(0);
      EXPECT_EQ(Key(name), registered ? id : -1);
      EXPECT_EQ(manager->Unregister(Name(name)), registered);
      for (uintptr_t row : manager->m_delivery) {
        EXPECT_EQ(row, 0u);
      }
    }
  }
}

int g_value_id = 0;

// A producer on the packet path: it reports only while someone listens.
void ReportValue(kest_test::TestClassify *self, oru::ClassifyPacket *) {
  self->m_conn->Touch();
  if (g_value_id > 0) {
    AttributeMgr::Instance()->DispatchAttribute(g_value_id, (const uint8_t *)"abc", 3, 1, 2);
  }
}

TEST_F(AttributeMgrTest, ValuesReachTheListenerWithTheRunningUserWord) {
  ASSERT_TRUE(AttributeMgr::Create(Name("d.value")));
  ASSERT_TRUE(manager->Register(Name("d.value"), &g_value_id));
  ASSERT_EQ(SetListener("d.value"), 0);
  handler.m_conn = MakeConn(6);
  handler.m_flags = 0x43;
  handler.m_action = ReportValue;
  kest_test::Recorder first, second; // the user words of two calls
  // The idle pass of kest_classify brings the listener before the plug-in runs.
  for (kest_test::Recorder *user : {&first, &second}) {
    ASSERT_EQ(kest_classify(h, KEST_SELECTOR_FORM_1, kPacket, sizeof(kPacket), nullptr, 0,
                            kest_test::RecordingCallback, user),
              0);
  }
  ASSERT_EQ(kest_test::g_deliveries.size(), 2u);
  for (const kest_test::Delivery &d : kest_test::g_deliveries) {
    EXPECT_EQ(d.handle, h);
    EXPECT_EQ(d.conn_id, handler.m_conn->m_number);
    EXPECT_EQ(d.key, Key("d.value"));
    EXPECT_EQ(d.value, "abc");
    EXPECT_EQ(d.packed, 0x20001);
  }
  EXPECT_EQ(kest_test::g_deliveries[0].user, &first);
  EXPECT_EQ(kest_test::g_deliveries[1].user, &second);

  manager->SetHandler(nullptr);
  ReportValue(&handler, nullptr);
  EXPECT_EQ(kest_test::g_deliveries.size(), 2u) << "no handler, no delivery";
  ASSERT_EQ(SetListener("d.value", nullptr), 0);
  kest_idle(h);
  EXPECT_EQ(g_value_id, 0) << "the producer stops";
}

// A listener and a default policy set here reach a second thread at its next
// idle pass, not before; connections built later follow the policy.
TEST_F(AttributeMgrTest, ChangesReachAnotherThreadAtItsIdlePass) {
  ASSERT_TRUE(AttributeMgr::Create(Name("x.seen")));
  std::atomic<int> step{0};
  std::tuple<int, int, uint32_t> seen[2]; // the producer's id, the key, a new connection's policy
  std::thread other([&] {
    EXPECT_EQ(kest_init(h), 0);
    oru::Runtime::l_instance_id = h;
    int id = 0;
    EXPECT_TRUE(AttributeMgr::Instance()->Register(Name("x.seen"), &id));
    step = 1;
    while (step != 2) {
      std::this_thread::yield();
    }
    for (auto &s : seen) {
      kest_test::ConnPtr conn(kest_test::TestConn::Make(6));
      s = {id, kest_attr_key_get(h, "x.seen"), conn->m_policy};
      kest_idle(h);
    }
    kest_fini(h);
  });
  while (step != 1) {
    std::this_thread::yield();
  }
  EXPECT_EQ(SetListener("x.seen"), 0);
  EXPECT_EQ(kest_config_set(h, "conn.default_policy.tunnels", "2"), -1);
  EXPECT_EQ(kest_config_set(h, "conn.default_policy.tunnels", "0"), 0);
  step = 2;
  other.join();
  EXPECT_EQ(seen[0], std::make_tuple(0, 0, 0xFFFFFFFFu));
  const int id = std::get<0>(seen[1]);
  EXPECT_GT(id, 0);
  EXPECT_EQ(seen[1], std::make_tuple(id, id, 0xFFFFFFFFu & ~oru::POLICY_TUNNELS));
}

} // namespace
