// The example hosts' tag accounting: blocks counted by the tag word current at
// allocation and given back at free, from any thread, and the report by name.
#include "TestHooks.h"

#include <gtest/gtest.h>
#include <kest.h>
#include <kest/MemTag.h>
#include <kest_host.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Held {
  long long bytes;
  long long blocks;
};

Held ByObj(unsigned number) {
  Held held{};
  kest_host_memory_by_obj(number, &held.bytes, &held.blocks);
  return held;
}
Held ByCtx(unsigned number) {
  Held held{};
  kest_host_memory_by_ctx(number, &held.bytes, &held.blocks);
  return held;
}

class HostMemoryTest : public ::testing::Test {
protected:
  void SetUp() override {
    kest_host_use_libc();
    kest_host_use_tag_accounting();
    oru::MemTag::l_mem_tag = 0;
  }
  void TearDown() override {
    oru::MemTag::l_mem_tag = 0;
    // Blocks of the accounting hooks must go back through them.
    for (kest_handle_t h = 1; h <= 31; ++h) {
      kest_fini(h);
      kest_close(h);
    }
    kest_test::InstallHooks();
  }
};

TEST_F(HostMemoryTest, CountsABlockUnderBothHalvesUntilItIsFreed) {
  // Numbers no instance uses, so that only this test moves them.
  const Held obj_before = ByObj(700);
  const Held ctx_before = ByCtx(701);
  oru::MemTag::l_mem_tag = static_cast<int>((700u << 16) | 701u);
  void *local = kest_malloc_local(100);
  void *shared = kest_malloc_shared(28);
  oru::MemTag::l_mem_tag = 0;
  ASSERT_NE(local, nullptr);
  ASSERT_NE(shared, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(local) % alignof(std::max_align_t), 0u);
  EXPECT_EQ(ByObj(700).bytes, obj_before.bytes + 128);
  EXPECT_EQ(ByObj(700).blocks, obj_before.blocks + 2);
  EXPECT_EQ(ByCtx(701).bytes, ctx_before.bytes + 128);
  // The free is counted against the tag of the allocation, not the current one.
  kest_free_local(local);
  kest_free_shared(shared);
  EXPECT_EQ(ByObj(700).bytes, obj_before.bytes);
  EXPECT_EQ(ByObj(700).blocks, obj_before.blocks);
  EXPECT_EQ(ByCtx(701).blocks, ctx_before.blocks);
  kest_free_local(nullptr);
}

TEST_F(HostMemoryTest, ConcurrentThreadsBalanceOut) {
  const Held before = ByObj(702);
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      oru::MemTag::l_mem_tag = static_cast<int>((702u << 16) | (710u + t));
      std::vector<void *> blocks;
      for (int i = 0; i < 1000; ++i) {
        blocks.push_back(kest_malloc_shared(static_cast<size_t>(i % 64 + 1)));
      }
      for (void *block : blocks) {
        kest_free_shared(block);
      }
    });
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  EXPECT_EQ(ByObj(702).bytes, before.bytes);
  EXPECT_EQ(ByObj(702).blocks, before.blocks);
}

TEST_F(HostMemoryTest, AFreshInstanceNamesItsBuiltInTags) {
  const kest_handle_t h = kest_open("/nonexistent-kest-plugins");
  ASSERT_GT(h, 0);
  EXPECT_EQ(kest_memory_ctx_num(h), 12);
  EXPECT_EQ(kest_memory_obj_num(h), 9);
  struct Row {
    bool obj;
    int index;
    int size;
    const char *name;
  };
  // The names themselves are MemTagInternalTest's; here each call's own path.
  const Row rows[] = {{true, 1, 64, "appstack.appproto"},
                      {true, 4, 6, "flowb"},
                      {false, 11, 64, "configuration.general"},
                      {false, 12, 64, "unspec"},
                      {false, 3, 1, ""}};
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    char buf[64] = "x";
    const int rc = row.obj ? kest_memory_obj_name(h, row.index, buf, row.size)
                           : kest_memory_ctx_name(h, row.index, buf, row.size);
    EXPECT_EQ(rc, 0);
    EXPECT_STREQ(buf, row.name);
  }
  char buf[8];
  for (int rc : {kest_memory_obj_name(h, -1, buf, 8), kest_memory_ctx_name(h, 1, nullptr, 8),
                 kest_memory_ctx_name(h, 1, buf, 0), kest_memory_obj_num(h + 1)}) {
    EXPECT_EQ(rc, -1);
  }
  EXPECT_EQ(kest_close(h), 0);
}

TEST_F(HostMemoryTest, ReportNamesNumbersAndHeldBlocks) {
  const kest_handle_t h = kest_open("/nonexistent-kest-plugins");
  ASSERT_GT(h, 0);
  oru::MemTag::l_mem_tag = static_cast<int>(703u << 16);
  void *block = kest_malloc_shared(40);
  oru::MemTag::l_mem_tag = 0;
  testing::internal::CaptureStdout();
  kest_host_print_memory(h);
  const std::string out = testing::internal::GetCapturedStdout();
  kest_free_shared(block);
  EXPECT_NE(out.find("object 0 unspec: "), std::string::npos) << out;
  EXPECT_NE(out.find("context 0 unspec: "), std::string::npos) << out;
  EXPECT_NE(out.find("object 703 unspec: 40 bytes in 1 blocks\n"), std::string::npos) << out;
  // Every name the instance has is listed, whether or not blocks are held.
  char name[64];
  for (int i = 1; i < kest_memory_ctx_num(h); ++i) {
    ASSERT_EQ(kest_memory_ctx_name(h, i, name, sizeof(name)), 0);
    EXPECT_NE(out.find("context " + std::to_string(i) + " " + name + ": "), std::string::npos)
        << out;
  }
}

} // namespace
