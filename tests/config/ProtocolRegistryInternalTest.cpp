// The protocol registry, through the host calls and the SDK. Plug-ins name
// protocols only while an instance opens: the fixture holds its instance in
// that state through the instance table when a test asks for it.
#include "InstanceFixture.h"
#include "TestHooks.h"
#include "runtime/InstanceTable.h"

#include <kest/Configuration.h>
#include <kest/ProtocolRegistry.h>

#include <algorithm>
#include <iterator>
#include <string>

namespace {

using oru::InstanceTable;
using oru::ProtocolRegistry;

class ProtocolRegistryTest : public kest_test::InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    // The registry starts empty: no plug-in names "TCP" or "UDP".
    kest_test::SetTransportRegistration(false);
    h = Open();
    ASSERT_GT(h, 0);
    oru::Runtime::l_instance_id = h;
    // Whatever an earlier instance of this row left is gone, as after a
    // fresh start.
    ProtocolRegistry::ExitInstance();
    ASSERT_TRUE(ProtocolRegistry::InitInstance());
  }
  void TearDown() override {
    oru::Runtime::l_instance_id = h;
    ProtocolRegistry::ExitInstance();
    InstanceTable::SetState(h, oru::INST_OPEN);
    oru::Runtime::l_instance_id = 0;
    InstanceFixture::TearDown();
  }
  void Opening() { InstanceTable::SetState(h, oru::INST_OPENING); }

  int Add(const char *name, int index = 0) { return ProtocolRegistry::AddProtocol(name, index); }

  // The name of an index, or "(null)".
  static std::string Name(int index) {
    oru::fdt::string name;
    return ProtocolRegistry::IndexToName(index, name) ? name.c_str() : "(null)";
  }

  kest_handle_t h = -1;
};

// A name keeps its first number; a wanted index that is taken is given to a
// second name as well, under the first one's name, and never moves the count.
// A fresh instance knows no protocol and says so without an error.
TEST_F(ProtocolRegistryTest, AddCountsOnAndAWantedIndexLeavesTheCount) {
  EXPECT_EQ(kest_proto_max_index(h), 0);
  EXPECT_EQ(kest_proto_find_index(h, "A"), -1);
  EXPECT_EQ(Name(1), "(null)");
  EXPECT_EQ(kest_errno, 0);
  EXPECT_EQ(Add("A"), 1);
  EXPECT_EQ(Add("B"), 2);
  EXPECT_STREQ(oru::Configuration::GetItem("guid.B").c_str(), "2");
  EXPECT_EQ(kest_proto_find_index(h, "B"), 2);
  EXPECT_EQ(kest_proto_find_index(h, "b"), -1); // exact, case included
  for (int wanted : {0, 9}) {
    kest_errno = 0;
    EXPECT_EQ(Add("A", wanted), 0);
    EXPECT_EQ(kest_errno, KEST_EEXIST);
  }
  EXPECT_EQ(oru::GetProtocolId("A"), 1);
  EXPECT_EQ(Add("X", 5), 5);
  EXPECT_EQ(Add("Y", 5), 5);
  EXPECT_EQ(oru::GetProtocolId("Y"), 5);
  EXPECT_EQ(Name(5), "X");
  EXPECT_EQ(Add("Z"), 3);
  EXPECT_EQ(kest_proto_max_index(h), 5);
  EXPECT_EQ(ProtocolRegistry::HighestIndex(), 5);
}

// Removal leaves the item with an empty value; the count does not go back.
TEST_F(ProtocolRegistryTest, RemoveLeavesAnEmptyItemAndAddGivesANewNumber) {
  ASSERT_EQ(Add("A"), 1);
  ASSERT_EQ(Add("B"), 2);
  EXPECT_TRUE(ProtocolRegistry::RemoveProtocol("A"));
  EXPECT_EQ(kest_proto_find_index(h, "A"), -1);
  EXPECT_EQ(Name(1), "(null)");
  kest_test::TakeDiag();
  EXPECT_EQ(kest_config_dump(h), 0);
  EXPECT_NE(kest_test::TakeDiag().find(": guid.A = \n"), std::string::npos);
  EXPECT_FALSE(ProtocolRegistry::RemoveProtocol("A"));
  EXPECT_FALSE(ProtocolRegistry::RemoveProtocol("never"));
  EXPECT_EQ(Add("A"), 3);
  EXPECT_EQ(Name(3), "A");
  EXPECT_EQ(Name(2), "B");
}

// Moving onto a taken index shares it under the newcomer's name; adding counts
// past a placed number; the highest index follows the moves.
TEST_F(ProtocolRegistryTest, SetIndexMovesSharesAndIsSkippedByTheCount) {
  ASSERT_EQ(Add("A"), 1);
  ASSERT_EQ(Add("B"), 2);
  ASSERT_EQ(kest_proto_set_index(h, "B", 3), 0);
  EXPECT_EQ(Add("C"), 4);
  EXPECT_EQ(Name(2), "(null)");
  EXPECT_EQ(Name(3), "B");
  EXPECT_EQ(kest_proto_set_index(h, "C", 4), 0) << "to its own index";
  ASSERT_EQ(kest_proto_set_index(h, "A", 40), 0);
  EXPECT_EQ(kest_proto_max_index(h), 40);
  EXPECT_EQ(kest_proto_set_index(h, "C", 3), 0);
  EXPECT_EQ(kest_proto_find_index(h, "B"), 3);
  EXPECT_EQ(kest_proto_find_index(h, "C"), 3);
  EXPECT_EQ(Name(3), "C");
  EXPECT_EQ(Name(4), "(null)");
  // Removing B leaves the entry of index 3 to C, whose name it carries.
  EXPECT_TRUE(ProtocolRegistry::RemoveProtocol("B"));
  EXPECT_EQ(Name(3), "C");
  EXPECT_TRUE(ProtocolRegistry::RemoveProtocol("A"));
  EXPECT_EQ(kest_proto_max_index(h), 3);
}

TEST_F(ProtocolRegistryTest, SetIndexRefusals) {
  ASSERT_EQ(Add("A"), 1);
  const struct {
    kest_handle_t handle;
    const char *name;
    int index;
  } cases[] = {{h, "Q", 5}, {h, "A", 0}, {h, "A", -4}, {h, nullptr, 2}, {0, "A", 2}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.index);
    EXPECT_TRUE(kest_test::Refused(kest_proto_set_index(c.handle, c.name, c.index), KEST_EINVAL));
  }
  EXPECT_EQ(oru::GetProtocolId("A"), 1);
  EXPECT_EQ(oru::GetProtocolId("Q"), 0);
  // While a thread has a context the state refuses before the arguments are
  // looked at; after kest_fini it allows again.
  ASSERT_NE(Add("TCP"), 0);
  ASSERT_NE(Add("UDP"), 0);
  oru::Runtime::l_instance_id = 0;
  ASSERT_EQ(kest_init(h), 0);
  for (int index : {7, 0}) {
    EXPECT_TRUE(kest_test::Refused(kest_proto_set_index(h, "A", index), KEST_EBUSY));
  }
  ASSERT_EQ(kest_fini(h), 0);
  EXPECT_EQ(kest_proto_set_index(h, "A", 7), 0);
  oru::Runtime::l_instance_id = h;
  EXPECT_EQ(oru::GetProtocolId("A"), 7);
}

TEST_F(ProtocolRegistryTest, GetNameCutsAndTerminates) {
  ASSERT_EQ(Add("HTTP"), 1);
  char buffer[16];
  for (const auto &[size, expected] :
       {std::pair<int, const char *>{1, ""}, {3, "HT"}, {5, "HTTP"}, {16, "HTTP"}}) {
    SCOPED_TRACE(size);
    std::fill(std::begin(buffer), std::end(buffer), 'x');
    EXPECT_EQ(kest_proto_get_name(h, 1, buffer, size), buffer);
    EXPECT_STREQ(buffer, expected);
  }
  for (auto [index, size, name] : {std::tuple{1, 0, buffer}, std::tuple{1, -1, buffer},
                                   std::tuple{1, 4, static_cast<char *>(nullptr)}}) {
    EXPECT_EQ(kest_proto_get_name(h, index, name, size), nullptr);
    EXPECT_EQ(kest_errno, KEST_EINVAL);
  }
  EXPECT_EQ(kest_proto_get_name(h, 0, buffer, 4), nullptr);
  EXPECT_EQ(kest_errno, 0);
}

// The thread start-up check wants both "TCP" and "UDP". Without them the
// instance opens but kest_init fails; it leaves the thread's block, which only
// kest_fini clears, and the check can run on it.
TEST_F(ProtocolRegistryTest, ThreadCheckWantsTcpAndUdp) {
  oru::Runtime::l_instance_id = 0;
  EXPECT_TRUE(kest_test::Refused(kest_init(h), KEST_EPROTO));
  ASSERT_NE(oru::t_thread_base[h], nullptr);
  EXPECT_TRUE(kest_test::Refused(kest_init(h), KEST_EINVAL));
  oru::Runtime::l_instance_id = h;
  for (const char *add : {"", "TCP", "UDP"}) {
    SCOPED_TRACE(add);
    if (*add != '\0') {
      ASSERT_NE(Add(add), 0);
    }
    kest_errno = 0;
    const bool ok = std::string(add) == "UDP";
    EXPECT_EQ(ProtocolRegistry::InitThread(), ok);
    EXPECT_EQ(kest_errno, ok ? 0 : KEST_EPROTO);
  }
}

// Plug-ins count from one and share a name; only while the instance opens,
// and a name that has an index keeps it.
TEST_F(ProtocolRegistryTest, RegistrationWhileOpening) {
  for (oru::InstanceState state : {oru::INST_CLOSED, oru::INST_OPEN, oru::INST_THREADED}) {
    InstanceTable::SetState(h, state);
    oru::RegisterProtocol("UDP");
    EXPECT_EQ(oru::GetProtocolId("UDP"), 0) << state;
  }
  Opening();
  ASSERT_EQ(Add("DNS", 9), 9);
  for (const char *name : {"TCP", "UDP", "TCP", "DNS", "HTTP"}) {
    oru::RegisterProtocol(name);
  }
  EXPECT_EQ(oru::GetProtocolId("TCP"), 1);
  EXPECT_EQ(oru::GetProtocolId("UDP"), 2);
  EXPECT_EQ(oru::GetProtocolId("DNS"), 9);
  // The count rose once for TCP.
  EXPECT_EQ(oru::GetProtocolId("HTTP"), 3);
  EXPECT_STREQ(oru::Configuration::GetItem("guid.HTTP").c_str(), "3");
  EXPECT_EQ(Name(3), "HTTP");
}

// Each allocation of a registration, an add and a move fails once in turn. A
// registration or add either holds in the store or leaves the name without a
// number; the count has moved either way, so no number is handed out twice. A
// move either happens or the old number stands; a store that cannot copy the
// new value in place keeps an empty one, and the name then has no number.
TEST_F(ProtocolRegistryTest, UnderAllocationFailure) {
  auto allocations = [](auto &&work) {
    kest_test::ResetCounts();
    work();
    return kest_test::AllocationCount();
  };
  const long add = allocations([&] { ASSERT_EQ(Add("probe"), 1); });
  const long move = allocations([&] { ASSERT_TRUE(ProtocolRegistry::SetIndex("probe", 2)); });
  Opening();
  const long reg = allocations([&] { oru::RegisterProtocol("probe2"); });
  ASSERT_GT(add * move * reg, 0);
  int last = kest_proto_max_index(h);
  for (long n = 1; n <= std::max(add, reg); ++n) {
    SCOPED_TRACE(n);
    for (bool registering : {false, true}) {
      const std::string name = (registering ? "r" : "p") + std::to_string(n);
      kest_test::FailNthAllocation(n);
      const int index = registering ? (oru::RegisterProtocol(name.c_str()), 0) : Add(name.c_str());
      kest_test::FailNthAllocation(0);
      const int now = oru::GetProtocolId(name.c_str());
      EXPECT_TRUE(registering || now == index);
      EXPECT_TRUE(now == 0 || now > last) << now;
      last = std::max(last, now);
      // The next one gets a number above any before it.
      const std::string next = "q" + name;
      oru::RegisterProtocol(next.c_str());
      EXPECT_GT(oru::GetProtocolId(next.c_str()), last);
      last = oru::GetProtocolId(next.c_str());
      EXPECT_EQ(Name(last), next);
    }
  }
  InstanceTable::SetState(h, oru::INST_OPEN);
  for (long n = 1; n <= move; ++n) {
    SCOPED_TRACE(n);
    const std::string name = "m" + std::to_string(n);
    const int from = Add(name.c_str());
    ASSERT_NE(from, 0);
    kest_test::FailNthAllocation(n);
    const bool moved = ProtocolRegistry::SetIndex(name.c_str(), from + 100);
    kest_test::FailNthAllocation(0);
    const int now = oru::GetProtocolId(name.c_str());
    EXPECT_TRUE(moved ? now == from + 100 || now == 0 : now == from) << now;
    EXPECT_EQ(Name(from), moved ? "(null)" : name);
    if (!moved) {
      EXPECT_EQ(Name(from + 100), "(null)");
    }
  }
}

} // namespace
