/*
 * kest_host.h - host support: fills the platform hooks of libkest from the C
 * run-time library, for hosts that have no allocator or logger of their own.
 */
#ifndef KEST_HOST_H
#define KEST_HOST_H

#include <kest.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Stores a C run-time function in each of the 43 hook objects: malloc/free for
 * both heaps, the <ctype.h>, <string.h> and <stdio.h> namesakes, gettimeofday,
 * usleep, abort, a thread number counter, and a logger that writes
 * "[level] function: text" lines to stderr. Call it before kest_open(); a host
 * may overwrite single hooks afterwards (before kest_open()).
 */
void kest_host_use_libc(void);

/** Thread number of the calling thread as kest_host_use_libc() hands it out:
 * 1 for the first thread that asks, 2 for the next, and so on. */
uint32_t kest_host_thread_id(void);

#ifdef __cplusplus
}
#endif

#endif
