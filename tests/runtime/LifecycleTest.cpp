#include "InstanceFixture.h"
#include "ParkedThread.h"

#include <kest/Error.h>
#include <kest/Runtime.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>

namespace {

using kest_test::InstanceFixture;
using kest_test::Refused;

class LifecycleTest : public InstanceFixture {};

// Every hook but kest_usleep is required.
template <class T> std::pair<const char *, void **> Hook(const char *name, T *hook) {
  return {name, reinterpret_cast<void **>(hook)};
}
#define HOOK(h) Hook(#h, &h)
const std::pair<const char *, void **> kRequiredHooks[] = {
    HOOK(kest_malloc_local), HOOK(kest_free_local),    HOOK(kest_malloc_shared),
    HOOK(kest_free_shared),  HOOK(kest_islower),       HOOK(kest_isupper),
    HOOK(kest_tolower),      HOOK(kest_toupper),       HOOK(kest_isalnum),
    HOOK(kest_isspace),      HOOK(kest_isdigit),       HOOK(kest_atoi),
    HOOK(kest_memcpy),       HOOK(kest_memcmp),        HOOK(kest_memset),
    HOOK(kest_strcasecmp),   HOOK(kest_strchr),        HOOK(kest_strrchr),
    HOOK(kest_strcmp),       HOOK(kest_strncmp),       HOOK(kest_strcpy),
    HOOK(kest_strncpy),      HOOK(kest_strerror),      HOOK(kest_strftime),
    HOOK(kest_strlen),       HOOK(kest_strpbrk),       HOOK(kest_strstr),
    HOOK(kest_strtol),       HOOK(kest_printf),        HOOK(kest_sprintf),
    HOOK(kest_snprintf),     HOOK(kest_sscanf),        HOOK(kest_putchar),
    HOOK(kest_puts),         HOOK(kest_diag_printf),   HOOK(kest_gettimeofday),
    HOOK(kest_mktime),       HOOK(kest_log),           HOOK(kest_fabs),
    HOOK(kest_abort),        HOOK(kest_get_thread_id), HOOK(kest_log_message),
};
#undef HOOK

TEST_F(LifecycleTest, EachMissingHookFailsOpenWithENOSYSButUsleepIsOptional) {
  ASSERT_EQ(sizeof(kRequiredHooks) / sizeof(kRequiredHooks[0]), 42u);
  for (const auto &[name, hook] : kRequiredHooks) {
    SCOPED_TRACE(name);
    kest_test::InstallHooks();
    *hook = nullptr;
    EXPECT_TRUE(Refused(kest_open(EmptyPluginDir()), KEST_ENOSYS));
    kest_test::InstallHooks();
    const kest_handle_t h = Open();
    EXPECT_EQ(h, 1) << "a failed open must not keep a row, a closed one is reused";
    EXPECT_EQ(kest_close(h), 0);
  }
  kest_usleep = nullptr;
  EXPECT_EQ(Open(), 1);
}

TEST_F(LifecycleTest, HandlesAreHandedOutLowestFirstUpTo31) {
  for (int expected = 1; expected <= 31; ++expected) {
    ASSERT_EQ(Open(), expected);
  }
  EXPECT_TRUE(Refused(Open(), KEST_ECHILD));
  ASSERT_EQ(kest_close(7), 0);
  ASSERT_EQ(kest_close(3), 0);
  EXPECT_EQ(Open(), 3);
  EXPECT_EQ(Open(), 7);
}

// A bad handle or a missing context sets EINVAL, but only over a clear word;
// kest_error_get reads the word whatever the handle. Refused calls leave the
// instance and the thread's context intact.
TEST_F(LifecycleTest, RefusalsSetEINVALOverAClearWordAndChangeNothing) {
  const kest_handle_t h = Open();
  ASSERT_EQ(h, 1);
  const std::pair<const char *, int (*)(kest_handle_t)> calls[] = {
      {"close", kest_close},
      {"init", kest_init},
      {"fini", kest_fini},
      {"idle", [](kest_handle_t x) { return kest_idle(x), -1; }}};
  for (kest_handle_t bad : {0, 2, 31, 32, -1, 1000}) {
    for (const auto &[name, call] : calls) {
      SCOPED_TRACE(testing::Message() << name << " " << bad);
      kest_errno = 0;
      EXPECT_TRUE(Refused(call(bad), KEST_EINVAL));
      EXPECT_EQ(kest_handle_get(), 0);
    }
  }
  kest_errno = KEST_EEXIST;
  EXPECT_TRUE(Refused(kest_close(0), KEST_EEXIST));
  for (int word : {0, KEST_EEXIST}) {
    kest_errno = word;
    kest_idle(h); // no context on this thread
    EXPECT_EQ(kest_errno, word == 0 ? KEST_EINVAL : word);
  }
  kest_errno = 71;
  EXPECT_EQ(kest_error_get(0), 71);
  EXPECT_EQ(kest_error_get(-5), 71);
  EXPECT_EQ(kest_errno, 71);

  ASSERT_EQ(kest_init(h), 0);
  EXPECT_TRUE(Refused(kest_close(h), KEST_EBUSY));
  EXPECT_TRUE(Refused(kest_init(h), KEST_EINVAL));
  kest_errno = 0;
  kest_idle(h);
  EXPECT_EQ(kest_errno, 0);
  ASSERT_EQ(kest_fini(h), 0);
  EXPECT_TRUE(Refused(kest_fini(h), KEST_EINVAL));
  EXPECT_EQ(kest_close(h), 0);
}

// Each instance gives a thread a block of its own, whose cells the other
// instance does not see; and a full round leaves no block behind.
TEST_F(LifecycleTest, ThreadsComeAndGoIndependentlyWithOneBlockPerInstance) {
  const kest_handle_t a = Open();
  const kest_handle_t b = Open();
  ASSERT_EQ(kest_init(a), 0);
  kest_test::RunOnThread(a, [a] {
    kest_idle(a);
    EXPECT_EQ(kest_errno, 0);
  });
  ASSERT_EQ(kest_init(b), 0);
  EXPECT_NE(oru::t_thread_base[a], nullptr);
  EXPECT_NE(oru::t_thread_base[b], nullptr);
  EXPECT_NE(oru::t_thread_base[a], oru::t_thread_base[b]);
  EXPECT_EQ(oru::t_thread_base[0], nullptr);
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
  EXPECT_EQ(oru::t_thread_base[a], nullptr);
  EXPECT_NE(oru::t_thread_base[b], nullptr);
  kest_idle(b);
  EXPECT_EQ(kest_fini(b), 0);
  EXPECT_EQ(kest_close(a), 0);
  EXPECT_EQ(kest_close(b), 0);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Shared), 0);
}

// Fails the nth allocation of `attempt` for n = 1, 2, ... until a run makes
// fewer than n; `settle` then answers the attempt and takes the instance back
// to where it was, and no block may be left over.
void EveryAllocationFails(const std::function<bool()> &attempt,
                          const std::function<void(bool)> &settle) {
  using kest_test::Heap;
  const long local = kest_test::LiveBlocks(Heap::Local);
  const long shared = kest_test::LiveBlocks(Heap::Shared);
  for (long n = 1; n < 2000; ++n) {
    SCOPED_TRACE(n);
    kest_test::ResetCounts();
    kest_test::FailNthAllocation(n);
    const bool ok = attempt();
    kest_test::FailNthAllocation(0);
    const bool injected = kest_test::AllocationCount() >= n;
    settle(ok);
    EXPECT_EQ(kest_test::LiveBlocks(Heap::Local), local);
    EXPECT_EQ(kest_test::LiveBlocks(Heap::Shared), shared);
    if (!injected) {
      EXPECT_TRUE(ok);
      return;
    }
  }
  ADD_FAILURE() << "no end";
}

// kest_open, with or without plug-in files to load, either fails with ENOMEM
// and keeps no row, or succeeds without what failed.
TEST_F(LifecycleTest, OpenSurvivesEveryFailingAllocation) {
  for (const char *dir : {EmptyPluginDir(), KEST_TEST_PM_ORDER_DIR}) {
    SCOPED_TRACE(dir);
    kest_handle_t h = 0;
    EveryAllocationFails([&] { return (h = kest_open(dir)) > 0; },
                         [&](bool ok) {
                           if (ok) {
                             EXPECT_EQ(h, 1);
                             EXPECT_EQ(kest_close(h), 0);
                           } else {
                             EXPECT_EQ(kest_errno, KEST_ENOMEM);
                           }
                         });
  }
}

// The same for kest_init: a failed start-up leaves the slot block, which
// kest_fini clears, and everything else is given back.
TEST_F(LifecycleTest, InitSurvivesEveryFailingAllocation) {
  const kest_handle_t h = Open();
  ASSERT_GT(h, 0);
  EveryAllocationFails([&] { return kest_init(h) == 0; },
                       [&](bool ok) {
                         // A protocol lookup out of memory reads as an unknown protocol.
                         EXPECT_TRUE(ok || kest_errno == KEST_ENOMEM || kest_errno == KEST_EPROTO);
                         if (ok) {
                           kest_idle(h);
                         }
                         if (ok || oru::t_thread_base[h] != nullptr) {
                           EXPECT_EQ(kest_init(h), -1) << "the slot block stays until kest_fini";
                           EXPECT_EQ(kest_fini(h), 0);
                         }
                         EXPECT_EQ(kest_close(h), 0) << "nothing of the thread is left listed";
                         EXPECT_EQ(Open(), h);
                       });
}

// A host hook that calls back into the API for another instance, as a host's
// allocator or logger may: the inner call sees its own handle, and the outer
// one gets its handle back.
kest_handle_t g_other;
bool g_armed;
std::string g_probe; // the handle before, the inner call's result and value, the handle after
void *(*g_next_malloc_shared)(size_t);

void *ProbingMallocShared(size_t size) {
  if (g_armed) {
    g_armed = false;
    char value[16] = "";
    const kest_handle_t before = kest_handle_get();
    const int inner = kest_config_get(g_other, "system.loglevel", value, sizeof value);
    g_probe = std::to_string(before) + " " + std::to_string(inner) + ":" + value + " " +
              std::to_string(kest_handle_get());
  }
  return g_next_malloc_shared(size);
}

TEST_F(LifecycleTest, AHookCallingTheApiRestoresTheOuterHandle) {
  const kest_handle_t a = Open();
  g_other = Open();
  ASSERT_EQ(kest_config_set(g_other, "system.loglevel", "24"), 0);
  g_next_malloc_shared = kest_malloc_shared;
  kest_malloc_shared = ProbingMallocShared;
  g_armed = true;
  EXPECT_EQ(kest_config_set(a, "nested.key", "value"), 0); // allocates a new item
  kest_malloc_shared = g_next_malloc_shared;
  EXPECT_EQ(g_probe, std::to_string(a) + " 0:24 " + std::to_string(a));
  EXPECT_EQ(kest_handle_get(), 0);
  char buffer[16];
  EXPECT_EQ(kest_config_get(a, "nested.key", buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "value");
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

} // namespace
