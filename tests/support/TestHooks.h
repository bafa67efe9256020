// Hooks for tests: the C run-time library for everything, and an allocator that
// counts, records sizes, tracks live blocks per heap, and fails on demand.
#ifndef KEST_TESTS_TESTHOOKS_H
#define KEST_TESTS_TESTHOOKS_H

#include <cstddef>
#include <string>
#include <vector>

namespace kest_test {

enum class Heap { Local, Shared };

struct Allocation {
  Heap heap;
  size_t size;
};

// Fills all 43 hooks; the four allocation hooks go through the test allocator.
// Resets counters, recording and failure plan. Adds the built-in transport
// plug-in once per process, turns its protocols on and its thread start-up
// work off (TransportPlugin.h).
void InstallHooks();

// Fails the nth allocation from now (1 = the next one), on either heap; 0
// disables. Only one failure is injected.
void FailNthAllocation(long n);
// Fails the nth allocation from now and every one after it; 0 disables. This
// is what reaches the fallbacks that a single failure leaves unexercised.
void FailFromAllocation(long n);
// Fails every allocation from now on while `on` is true.
void FailAllAllocations(bool on);
// Allocations made since InstallHooks or ResetCounts.
long AllocationCount();
void ResetCounts();

// Records the sizes asked for while recording is on.
void StartRecording();
std::vector<Allocation> StopRecording();

// Blocks obtained and not yet freed, per heap.
long LiveBlocks(Heap heap);

// Text printed through kest_printf / kest_diag_printf / kest_log_message since
// the last Take; the hooks still print nothing to the terminal.
std::string TakePrinted();
std::string TakeDiag();
std::string TakeLog();

} // namespace kest_test

#endif
