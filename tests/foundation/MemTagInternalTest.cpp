// Memory tag numbering, run by hand on an instance held in its opening state
// through the instance table.
#include "InstanceFixture.h"
#include "TestHooks.h"
#include "runtime/InstanceTable.h"

#include <kest/Configuration.h>
#include <kest/MemTag.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using oru::InstanceTable;
using oru::MemTag;

class MemTagInitTest : public kest_test::InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    h = Open();
    ASSERT_GT(h, 0);
    oru::Runtime::l_instance_id = h;
    // kest_open made the built-in tags; plug-ins add theirs while opening.
    InstanceTable::SetState(h, oru::INST_OPENING);
  }
  void TearDown() override {
    oru::Runtime::l_instance_id = h;
    InstanceTable::SetState(h, oru::INST_OPEN);
    oru::Runtime::l_instance_id = 0;
    MemTag::l_mem_tag = 0;
    InstanceFixture::TearDown();
  }

  template <class Space> static std::string Name(uint32_t number, int size = 64) {
    std::vector<char> buf(static_cast<size_t>(size));
    Space::Name(number, buf.data(), size);
    return buf.data();
  }
  static std::string ObjName(uint32_t number, int size = 64) {
    return Name<MemTag::Obj>(number, size);
  }

  kest_handle_t h = -1;
};

TEST_F(MemTagInitTest, BuiltInTablesAreNumberedInOrder) {
  EXPECT_EQ(MemTag::Obj::Count(), 9u);
  EXPECT_EQ(MemTag::Ctx::Count(), 12u);
  EXPECT_STREQ(oru::Configuration::GetItem("memtag.obj.chain.rule").c_str(), "8");
  EXPECT_STREQ(oru::Configuration::GetItem("memtag.ctx.configuration.general").c_str(), "11");
  const struct {
    uint32_t number;
    const char *obj, *ctx;
  } rows[] = {{0, "unspec", "unspec"},
              {1, "appstack.appproto", "udp.inspect"},
              {4, "flowbuffer.data", "tcp.handoff"},
              {8, "chain.rule", "tls.general"},
              {9, "unspec", "pluginmgr.general"},
              {11, "unspec", "configuration.general"},
              {12, "unspec", "unspec"},
              {1000, "unspec", "unspec"}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.number);
    EXPECT_EQ(ObjName(row.number), row.obj);
    EXPECT_EQ(Name<MemTag::Ctx>(row.number), row.ctx);
  }
  EXPECT_EQ(MemTag::Obj::Lookup("flowbuffer.block"), 3u);
  EXPECT_EQ(MemTag::Ctx::Lookup("flowbuffer.block"), 0u);
  // Names are cut to the buffer.
  EXPECT_EQ(ObjName(1, 9), "appstack");
  EXPECT_EQ(ObjName(1, 1), "");
  EXPECT_EQ(ObjName(0, 4), "uns");
}

TEST_F(MemTagInitTest, PluginTagsFollowTheBuiltInsAndASecondCreateIsHarmless) {
  kest_test::FailAllAllocations(true);
  EXPECT_FALSE(MemTag::Obj::Create("nomem.object")) << "a failed write gives no number";
  kest_test::FailAllAllocations(false);
  EXPECT_EQ(MemTag::Obj::Lookup("nomem.object"), 0u);
  ASSERT_TRUE(MemTag::Obj::Create("myplugin.table"));
  ASSERT_TRUE(MemTag::Obj::Create("myplugin.table"));
  ASSERT_TRUE(MemTag::Obj::Create("chain.rule"));
  ASSERT_TRUE(MemTag::Ctx::Create("myplugin.general"));
  EXPECT_EQ(MemTag::Obj::Lookup("myplugin.table"), 9u);
  EXPECT_EQ(MemTag::Obj::Count(), 10u);
  EXPECT_EQ(MemTag::Ctx::Lookup("myplugin.general"), 12u);
  EXPECT_EQ(MemTag::Ctx::Count(), 13u);
  EXPECT_EQ(ObjName(9), "myplugin.table");
  // The table walk counts from the counter, so run again on top of a plug-in's
  // tag it sees numbers other than its own and reports that.
  EXPECT_FALSE(MemTag::Obj::InitInstance());
  MemTag::ExitInstance();
  EXPECT_EQ(MemTag::Obj::Count(), 1u);
  EXPECT_EQ(MemTag::Ctx::Count(), 1u);
}

TEST_F(MemTagInitTest, CreateIsRefusedOutsideTheOpeningStateEvenForAKnownName) {
  for (oru::InstanceState state : {oru::INST_CLOSED, oru::INST_OPEN, oru::INST_THREADED}) {
    SCOPED_TRACE(state);
    InstanceTable::SetState(h, state);
    EXPECT_FALSE(MemTag::Obj::Create("appstack.appproto"));
    EXPECT_FALSE(MemTag::Ctx::Create("late.context"));
    EXPECT_EQ(MemTag::Ctx::Lookup("late.context"), 0u);
    EXPECT_EQ(MemTag::Ctx::Count(), 12u);
  }
}

// The allocation hooks below see the word as the library leaves it.
std::vector<uint32_t> g_seen_tags;
void *(*g_shared_malloc)(size_t);
void *(*g_local_malloc)(size_t);
template <void *(**Real)(size_t)> void *RecordTag(size_t size) {
  g_seen_tags.push_back(static_cast<uint32_t>(kest_memory_tag_get()));
  return (*Real)(size);
}

// Runs `work` with the tag word set to `word` and gives the tag every
// allocation in it saw; the word must be as it was afterwards.
template <class F> std::vector<uint32_t> TagsSeen(uint32_t word, F work) {
  MemTag::l_mem_tag = static_cast<int>(word);
  g_seen_tags.clear();
  g_shared_malloc = std::exchange(kest_malloc_shared, RecordTag<&g_shared_malloc>);
  g_local_malloc = std::exchange(kest_malloc_local, RecordTag<&g_local_malloc>);
  work();
  kest_malloc_shared = g_shared_malloc;
  kest_malloc_local = g_local_malloc;
  EXPECT_EQ(static_cast<uint32_t>(MemTag::l_mem_tag), word);
  EXPECT_FALSE(g_seen_tags.empty());
  return g_seen_tags;
}

TEST_F(MemTagInitTest, NumberingIsUntaggedAndTheWordIsRestored) {
  const std::vector<uint32_t> tags = TagsSeen((5u << 16) | 7u, [&] {
    ASSERT_TRUE(MemTag::Obj::Create("tagged.caller"));
    EXPECT_EQ(MemTag::Obj::Lookup("tagged.caller"), 9u);
    EXPECT_EQ(ObjName(9), "tagged.caller");
  });
  for (uint32_t tag : tags) {
    // Only the store's own half may show, never the caller's context.
    EXPECT_EQ(tag & 0xFFFFu, 0u);
  }
}

TEST_F(MemTagInitTest, TheStoreTagsItsWorkWithObjectElevenAndKeepsTheContext) {
  const std::vector<uint32_t> tags = TagsSeen((3u << 16) | 9u, [] {
    ASSERT_TRUE(oru::Configuration::SetItem("memtag.test.key", "some value"));
  });
  for (uint32_t tag : tags) {
    EXPECT_EQ(tag, (11u << 16) | 9u);
  }
}

} // namespace
