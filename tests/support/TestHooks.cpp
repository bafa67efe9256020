#include "TestHooks.h"
#include "TransportPlugin.h"

#include <kest.h>
#include <kest_host.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

namespace kest_test {

namespace {

std::atomic<long> g_count{0}, g_fail_at{0}, g_live[2];
std::atomic<bool> g_fail_all{false}, g_fail_onwards{false}, g_recording{false};
std::mutex g_mutex;
std::vector<Allocation> g_recorded;
std::string g_printed, g_diag, g_log;

template <Heap H> void *Malloc(size_t size) {
  const long n = ++g_count;
  if (g_recording) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_recorded.push_back({H, size});
  }
  const long target = g_fail_at.load();
  if (g_fail_all || (target != 0 && (n == target || (g_fail_onwards && n > target)))) {
    return nullptr;
  }
  void *block = std::malloc(size == 0 ? 1 : size);
  g_live[static_cast<int>(H)] += block != nullptr;
  return block;
}

template <Heap H> void Free(void *block) {
  if (block != nullptr) {
    --g_live[static_cast<int>(H)];
    std::free(block);
  }
}

void Append(std::string &out, const char *format, va_list args) {
  char buffer[4096];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  std::lock_guard<std::mutex> lock(g_mutex);
  out += buffer;
}

// kest_printf and kest_diag_printf, each into its own text.
template <std::string *Out> int Print(const char *format, ...) {
  va_list args;
  va_start(args, format);
  Append(*Out, format, args);
  va_end(args);
  return 0;
}

void LogMessage(const char *level, const char *function, const char *format, ...) {
  const std::string head = std::string(level) + " " + function + ": ";
  va_list args;
  va_start(args, format);
  std::string text;
  Append(text, format, args);
  va_end(args);
  std::lock_guard<std::mutex> lock(g_mutex);
  g_log += head + text + "|";
}

std::string Take(std::string &text) {
  std::lock_guard<std::mutex> lock(g_mutex);
  return std::exchange(text, std::string());
}

} // namespace

void InstallHooks() {
  kest_host_use_libc();
  kest_malloc_local = Malloc<Heap::Local>;
  kest_free_local = Free<Heap::Local>;
  kest_malloc_shared = Malloc<Heap::Shared>;
  kest_free_shared = Free<Heap::Shared>;
  kest_printf = Print<&g_printed>;
  kest_diag_printf = Print<&g_diag>;
  kest_log_message = LogMessage;
  g_fail_at = 0;
  g_fail_all = g_fail_onwards = g_recording = false;
  ResetCounts();
  Take(g_printed);
  Take(g_diag);
  Take(g_log);
  AddTransportPlugin();
  SetTransportRegistration(true);
  SetTransportThreadStart(nullptr);
}

void FailNthAllocation(long n) {
  g_fail_onwards = false;
  g_fail_at = n == 0 ? 0 : g_count.load() + n;
}
void FailFromAllocation(long n) {
  FailNthAllocation(n);
  g_fail_onwards = n != 0;
}
void FailAllAllocations(bool on) {
  g_fail_all = on;
}
long AllocationCount() {
  return g_count;
}
void ResetCounts() {
  g_count = 0;
}

void StartRecording() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_recorded.clear();
  g_recording = true;
}

std::vector<Allocation> StopRecording() {
  g_recording = false;
  std::lock_guard<std::mutex> lock(g_mutex);
  return std::exchange(g_recorded, {});
}

long LiveBlocks(Heap heap) {
  return g_live[static_cast<int>(heap)];
}

std::string TakePrinted() {
  return Take(g_printed);
}
std::string TakeDiag() {
  return Take(g_diag);
}
std::string TakeLog() {
  return Take(g_log);
}

} // namespace kest_test
