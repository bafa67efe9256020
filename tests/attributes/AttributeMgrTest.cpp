#include "AttributeTestSupport.h"

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

} // namespace
