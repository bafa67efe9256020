// Registration of protocols, which the registry accepts only while an
// instance opens: the test holds an open instance in that state through the
// instance table.
#include "InstanceFixture.h"
#include "TestHooks.h"
#include "runtime/InstanceTable.h"

#include <kest/Configuration.h>
#include <kest/ProtocolRegistry.h>

#include <string>

namespace {

using oru::InstanceTable;
using oru::ProtocolRegistry;

class ProtocolRegistrationTest : public kest_test::InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    // The registry starts empty: no plug-in names "TCP" or "UDP".
    kest_test::SetTransportRegistration(false);
    h = Open();
    ASSERT_GT(h, 0);
    oru::Runtime::l_instance_id = h;
    ProtocolRegistry::ExitInstance();
    ASSERT_TRUE(ProtocolRegistry::InitInstance());
    InstanceTable::SetState(h, oru::INST_OPENING);
  }
  void TearDown() override {
    oru::Runtime::l_instance_id = h;
    ProtocolRegistry::ExitInstance();
    InstanceTable::SetState(h, oru::INST_OPEN);
    oru::Runtime::l_instance_id = 0;
    InstanceFixture::TearDown();
  }

  std::string Name(int index) {
    oru::fdt::string name;
    return ProtocolRegistry::IndexToName(index, name) ? name.c_str() : "(none)";
  }

  kest_handle_t h = -1;
};

TEST_F(ProtocolRegistrationTest, NumbersByCountingFromOneAndSharesANameOnce) {
  oru::RegisterProtocol("TCP");
  oru::RegisterProtocol("UDP");
  oru::RegisterProtocol("TCP"); // a second plug-in naming it
  oru::RegisterProtocol("HTTP");
  EXPECT_EQ(oru::GetProtocolId("TCP"), 1);
  EXPECT_EQ(oru::GetProtocolId("UDP"), 2);
  // The count rose once for TCP.
  EXPECT_EQ(oru::GetProtocolId("HTTP"), 3);
  EXPECT_STREQ(oru::Configuration::GetItem("guid.HTTP").c_str(), "3");
  EXPECT_EQ(Name(1), "TCP");
  EXPECT_EQ(Name(3), "HTTP");
  EXPECT_EQ(ProtocolRegistry::HighestIndex(), 3);
}

TEST_F(ProtocolRegistrationTest, OnlyWhileOpening) {
  for (oru::InstanceState state : {oru::INST_CLOSED, oru::INST_OPEN, oru::INST_THREADED}) {
    SCOPED_TRACE(state);
    InstanceTable::SetState(h, state);
    oru::RegisterProtocol("TCP");
    EXPECT_EQ(oru::GetProtocolId("TCP"), 0);
    EXPECT_EQ(Name(1), "(none)");
  }
}

// A name known to the store, also with an index moved there by hand, keeps it.
TEST_F(ProtocolRegistrationTest, ANameWithAnIndexKeepsIt) {
  ASSERT_EQ(ProtocolRegistry::AddProtocol("TCP", 9), 9);
  oru::RegisterProtocol("TCP");
  EXPECT_EQ(oru::GetProtocolId("TCP"), 9);
  oru::RegisterProtocol("UDP");
  EXPECT_EQ(oru::GetProtocolId("UDP"), 1);
}

// Each allocation of a registration fails once in turn. A registration either
// holds in the store or leaves no number; either way the count has moved, so
// no number is handed out twice.
TEST_F(ProtocolRegistrationTest, UnderAllocationFailure) {
  kest_test::ResetCounts();
  oru::RegisterProtocol("probe");
  ASSERT_EQ(oru::GetProtocolId("probe"), 1);
  const long allocations = kest_test::AllocationCount();
  int last = 1;
  for (long n = 1; n <= allocations; ++n) {
    SCOPED_TRACE(n);
    const std::string name = "p" + std::to_string(n);
    kest_test::FailNthAllocation(n);
    oru::RegisterProtocol(name.c_str());
    kest_test::FailNthAllocation(0);
    const int index = oru::GetProtocolId(name.c_str());
    if (index != 0) {
      EXPECT_GT(index, last);
      last = index;
    }
    // The next one gets a number above any before it.
    const std::string next = "q" + std::to_string(n);
    oru::RegisterProtocol(next.c_str());
    const int next_index = oru::GetProtocolId(next.c_str());
    EXPECT_GT(next_index, last);
    EXPECT_EQ(Name(next_index), next);
    last = next_index;
  }
}

} // namespace
