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

/**
 * Replaces the four allocation hooks with malloc/free wrappers that count
 * every block by the memory tag (kest_memory_tag_get()) current when it was
 * allocated: a 16-byte header in front of each block keeps its size and tag.
 * Call it after kest_host_use_libc() and before kest_open(). The counts are
 * lock-free and safe from any thread.
 */
void kest_host_use_tag_accounting(void);

/**
 * Prints to stdout, per memory object name and per memory context name of the
 * instance (kest_memory_obj_name() / kest_memory_ctx_name()), the bytes and
 * blocks allocated under that number and not yet freed. Numbers without a
 * name but with blocks held print as "unspec" with their number.
 */
void kest_host_print_memory(kest_handle_t handle);

/** Bytes and blocks held under one object (high half of the tag) or one
 * context (low half) number; for hosts and tests that want the counts. */
void kest_host_memory_by_obj(unsigned number, long long *bytes, long long *blocks);
void kest_host_memory_by_ctx(unsigned number, long long *bytes, long long *blocks);

#ifdef __cplusplus
}
#endif

#endif
