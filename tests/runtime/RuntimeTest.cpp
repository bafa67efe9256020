#include "InstanceFixture.h"

#include <kest/Error.h>
#include <kest/Runtime.h>

#include <thread>

namespace {

using kest_test::InstanceFixture;

class RuntimeTest : public InstanceFixture {};

TEST(ErrorString, FixedTexts) {
  struct Row {
    int error;
    const char *text;
  };
  const Row rows[] = {{12, "No memory available"},
                      {105, "No flows available"},
                      {107, "No connection allocated"},
                      {22, "Unknown"},
                      {0, "Unknown"},
                      {2, "Unknown"},
                      {-1, "Unknown"}};
  for (const Row &row : rows) {
    EXPECT_STREQ(oru::ErrorString(static_cast<oru::Error>(row.error)), row.text) << row.error;
  }
}

// Each thread has its own handler; without one a throw changes nothing, and
// RecordFirstError keeps the first error.
TEST(ErrorHandler, HandlerIsPerThread) {
  static thread_local int seen;
  oru::SetErrorHandler([](oru::Error e) { seen = e; });
  std::thread([] {
    seen = 0;
    kest_errno = 0;
    oru::ThrowError(oru::ERR_INVAL);
    EXPECT_EQ(seen, 0);
    EXPECT_EQ(kest_errno, 0);
    oru::SetErrorHandler(oru::RecordFirstError);
    oru::ThrowError(oru::ERR_NOSYS);
    oru::ThrowError(oru::ERR_NOMEM);
    EXPECT_EQ(kest_errno, 38);
  }).join();
  oru::ThrowError(oru::ERR_INVAL);
  EXPECT_EQ(seen, 22);
  oru::SetErrorHandler(nullptr);
}

TEST_F(RuntimeTest, InitThreadLocalRefusesAnExistingBlock) {
  const kest_handle_t h = Open();
  ASSERT_EQ(kest_init(h), 0);
  void *block = oru::t_thread_base[h];
  oru::Runtime::l_instance_id = h;
  EXPECT_FALSE(oru::InitThreadLocal());
  EXPECT_EQ(oru::t_thread_base[h], block);
  oru::Runtime::l_instance_id = 0;
  EXPECT_EQ(kest_fini(h), 0);
}

TEST_F(RuntimeTest, SlotCellsOfTwoInstancesAreSeparate) {
  const kest_handle_t a = Open();
  const kest_handle_t b = Open();
  ASSERT_EQ(kest_init(a), 0);
  ASSERT_EQ(kest_init(b), 0);
  oru::ThreadLocalKey key{0, 0}; // slot 0 exists in every block
  oru::Runtime::l_instance_id = a;
  const uint64_t saved = oru::ThreadCell(key);
  oru::ThreadCell(key) = 0x1122334455667788ull;
  oru::Runtime::l_instance_id = b;
  EXPECT_NE(oru::ThreadCell(key), 0x1122334455667788ull);
  oru::Runtime::l_instance_id = a;
  oru::ThreadCell(key) = saved;
  oru::Runtime::l_instance_id = 0;
  EXPECT_EQ(kest_fini(a), 0);
  EXPECT_EQ(kest_fini(b), 0);
}

TEST_F(RuntimeTest, FailedBlockAllocationFailsInitWithENOMEM) {
  const kest_handle_t h = Open();
  kest_test::FailNthAllocation(1);
  EXPECT_EQ(kest_init(h), -1);
  EXPECT_EQ(kest_errno, KEST_ENOMEM);
  EXPECT_EQ(oru::t_thread_base[h], nullptr);
  kest_test::FailNthAllocation(0);
  EXPECT_EQ(kest_init(h), 0);
  EXPECT_EQ(kest_fini(h), 0);
}

} // namespace
