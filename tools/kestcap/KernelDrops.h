// Packets the kernel dropped on live capture because kestcap did not take
// them in time (its capture buffers were full): one process-wide count that
// every live input adds to as it learns of new drops, and that the progress
// line, the totals and any stats line read from their own threads.
#ifndef KESTCAP_KERNELDROPS_H
#define KESTCAP_KERNELDROPS_H

#include <cstdint>

namespace kestcap {

// Drops counted so far; 0 when reading a file. Any thread.
uint64_t KernelDrops();
// Adds drops the kernel reported since the caller's last report.
void AddKernelDrops(uint64_t dropped);

} // namespace kestcap

#endif
