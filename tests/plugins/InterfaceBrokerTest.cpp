#include "InstanceFixture.h"
#include "ParkedThread.h"

#include <kest/InterfaceBroker.h>

namespace {

using oru::InterfaceBroker;

class InterfaceBrokerTest : public kest_test::ThreadedFixture {
protected:
  void SetUp() override {
    ThreadedFixture::SetUp();
    Enter();
  }
};

TEST_F(InterfaceBrokerTest, ModuleNamesAreUniqueAndIdsNeedNotBe) {
  EXPECT_TRUE(InterfaceBroker::RegisterModule(300, "beta"));
  EXPECT_FALSE(InterfaceBroker::RegisterModule(301, "beta"));
  EXPECT_EQ(InterfaceBroker::GetModuleId("beta"), 300u);
  EXPECT_TRUE(InterfaceBroker::RegisterModule(300, "alpha"));
  EXPECT_STREQ(InterfaceBroker::GetModuleName(300).c_str(), "alpha") << "first name in byte order";
  EXPECT_STREQ(InterfaceBroker::GetModuleName(999).c_str(), "UNKNOWN");
  EXPECT_EQ(InterfaceBroker::GetModuleId("gamma"), 0xFFFFFFFFu);
  EXPECT_FALSE(InterfaceBroker::UnregisterModule(301, "beta")) << "wrong id removes nothing";
  EXPECT_EQ(InterfaceBroker::GetModuleId("beta"), 300u);
  EXPECT_TRUE(InterfaceBroker::UnregisterModule(300, "beta"));
  EXPECT_FALSE(InterfaceBroker::UnregisterModule(300, "beta"));
  EXPECT_EQ(InterfaceBroker::GetModuleId("beta"), oru::MODULE_UNKNOWN);
}

// Every instance has SYSTEM from its open on, and its own names besides.
TEST_F(InterfaceBrokerTest, ModuleTablesArePerInstance) {
  EXPECT_STREQ(InterfaceBroker::GetModuleName(oru::MODULE_SYSTEM).c_str(), "SYSTEM");
  ASSERT_TRUE(InterfaceBroker::RegisterModule(400, "only-here"));
  Leave();
  oru::Runtime::l_instance_id = Open();
  EXPECT_EQ(InterfaceBroker::GetModuleId("only-here"), oru::MODULE_UNKNOWN);
  EXPECT_EQ(InterfaceBroker::GetModuleId("SYSTEM"), oru::MODULE_SYSTEM);
}

TEST_F(InterfaceBrokerTest, InterfacesArePerThreadAndKeyedByPair) {
  InterfaceBroker *broker = InterfaceBroker::Instance();
  ASSERT_NE(broker, nullptr);
  int a = 0, b = 0;
  EXPECT_TRUE(broker->RegisterInterface(259, 11, &a));
  EXPECT_FALSE(broker->RegisterInterface(259, 11, &b)) << "the first pointer stays";
  EXPECT_TRUE(broker->RegisterInterface(259, 12, &b));
  EXPECT_EQ(broker->GetInterface(259, 11), &a);
  EXPECT_EQ(broker->GetInterface(259, 12), &b);
  EXPECT_EQ(broker->GetInterface(260, 11), nullptr);
  EXPECT_TRUE(broker->IsModuleRegistered(259));
  EXPECT_FALSE(broker->IsModuleRegistered(260));
  // Neither a name alone nor a null pointer registers a module on the thread.
  ASSERT_TRUE(InterfaceBroker::RegisterModule(500, "named"));
  EXPECT_FALSE(broker->IsModuleRegistered(500));
  ASSERT_TRUE(broker->RegisterInterface(500, 1, nullptr));
  EXPECT_FALSE(broker->IsModuleRegistered(500));

  void *seen_elsewhere = &a;
  kest_test::RunOnThread(
      h, [&] { seen_elsewhere = InterfaceBroker::Instance()->GetInterface(259, 11); });
  EXPECT_EQ(seen_elsewhere, nullptr);

  EXPECT_TRUE(broker->UnregisterInterface(259, 11, &b)) << "the pointer is not compared";
  EXPECT_FALSE(broker->UnregisterInterface(259, 11, &a));
  EXPECT_EQ(broker->GetInterface(259, 11), nullptr);
}

TEST_F(InterfaceBrokerTest, FailedAllocationRefusesRegistration) {
  kest_test::FailAllAllocations(true);
  EXPECT_FALSE(InterfaceBroker::RegisterModule(600, "nomem"));
  int x = 0;
  EXPECT_FALSE(InterfaceBroker::Instance()->RegisterInterface(600, 1, &x));
  kest_test::FailAllAllocations(false);
  EXPECT_EQ(InterfaceBroker::GetModuleId("nomem"), oru::MODULE_UNKNOWN);
  EXPECT_EQ(InterfaceBroker::Instance()->GetInterface(600, 1), nullptr);
}

} // namespace
