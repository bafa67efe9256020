#include "LeakCheck.h"

#include <kest/fdt/ObjectPrefix.h>
#include <kest/fdt/intrusive_ptr.h>
#include <kest/fdt/refcnt.h>

#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <utility>

namespace {

using kest_test::Heap;
using kest_test::LiveBlocks;
using oru::fdt::intrusive_ptr;
using oru::fdt::refcnt;

long g_destroyed = 0;

// Made by CreateObject; released by its prefix.
struct Prefixed : refcnt {
  KEST_DELETE_BY_PREFIX
  ~Prefixed() override { ++g_destroyed; }
};

// Taken straight from kest_malloc_local.
struct Plain : refcnt {
  KEST_DELETE_WITH_FREE_LOCAL
  ~Plain() override { ++g_destroyed; }
  static Plain *Make() { return ::new (kest_malloc_local(sizeof(Plain))) Plain(); }
};

// refcnt as the second base, as connections have it: releasing through the
// base must still free the whole object.
struct Interface {
  virtual ~Interface() = default;
  virtual int Id() const { return 1; }
  long pad = 0;
};
struct SecondBase : Interface, refcnt {
  KEST_DELETE_BY_PREFIX
  ~SecondBase() override { ++g_destroyed; }
};

class IntrusivePtrTest : public kest_test::LeakCheck {
protected:
  void SetUp() override {
    LeakCheck::SetUp();
    g_destroyed = 0;
  }
};

TEST_F(IntrusivePtrTest, CountFollowsHoldersAndTheLastOneDeletes) {
  Prefixed *raw = oru::fdt::CreateObject<Prefixed>(oru::fdt::OBJECT_LOCAL);
  ASSERT_NE(raw, nullptr);
  static_assert(sizeof(intrusive_ptr<refcnt>) == sizeof(void *));
  static_assert(sizeof(refcnt) == sizeof(void *) + 8);
  EXPECT_EQ(raw->use_count(), 0);
  {
    intrusive_ptr<Prefixed> a(raw);
    int32_t count; // the word behind the table pointer
    std::memcpy(&count, reinterpret_cast<const char *>(raw) + sizeof(void *), sizeof count);
    EXPECT_EQ(count, 1);
    intrusive_ptr<Prefixed> b = a;
    EXPECT_EQ(raw->use_count(), 2);
    intrusive_ptr<Prefixed> c(std::move(b));
    EXPECT_EQ(b.get(), nullptr);
    EXPECT_EQ(raw->use_count(), 2);
    intrusive_ptr<Prefixed> &same = a;
    a = same; // self-assignment keeps the object
    a = raw;
    EXPECT_EQ(raw->use_count(), 2);
    a.reset();
    EXPECT_EQ(raw->use_count(), 1);
    EXPECT_EQ(g_destroyed, 0);
  }
  EXPECT_EQ(g_destroyed, 1);
}

TEST_F(IntrusivePtrTest, EachDeallocationRuleFreesOnItsHeap) {
  {
    intrusive_ptr<refcnt> local(oru::fdt::CreateObject<Prefixed>(oru::fdt::OBJECT_LOCAL));
    intrusive_ptr<refcnt> shared(oru::fdt::CreateObject<Prefixed>(oru::fdt::OBJECT_SHARED));
    intrusive_ptr<refcnt> plain(Plain::Make());
    EXPECT_EQ(LiveBlocks(Heap::Local), m_local + 2);
    EXPECT_EQ(LiveBlocks(Heap::Shared), m_shared + 1);
    shared.reset(local.get());
    EXPECT_EQ(LiveBlocks(Heap::Shared), m_shared);
    EXPECT_EQ(local->use_count(), 2);
  }
  EXPECT_EQ(g_destroyed, 3);
}

TEST_F(IntrusivePtrTest, ConvertsToABaseAndReleasesTheWholeObject) {
  SecondBase *raw = oru::fdt::CreateObject<SecondBase>(oru::fdt::OBJECT_LOCAL);
  ASSERT_NE(raw, nullptr);
  intrusive_ptr<SecondBase> derived(raw);
  intrusive_ptr<refcnt> base(derived);
  EXPECT_NE(static_cast<void *>(base.get()), static_cast<void *>(raw));
  EXPECT_EQ(base, derived);
  EXPECT_EQ(raw->use_count(), 2);
  intrusive_ptr<SecondBase> back = oru::fdt::static_pointer_cast<SecondBase>(base);
  EXPECT_EQ(back, derived);
  EXPECT_EQ(back->Id(), 1);
  back.reset();
  derived.reset();
  EXPECT_EQ(g_destroyed, 0);
  intrusive_ptr<refcnt> last(std::move(base));
  last = nullptr;
  EXPECT_EQ(g_destroyed, 1);
}

} // namespace
