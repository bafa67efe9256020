#define _GNU_SOURCE
#include "kest_host.h"

#include <ctype.h>
#include <math.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

static uint32_t g_next_thread_id;
static __thread uint32_t t_thread_id;

uint32_t kest_host_thread_id(void) {
  if (t_thread_id == 0) {
    t_thread_id = __atomic_add_fetch(&g_next_thread_id, 1, __ATOMIC_RELAXED);
  }
  return t_thread_id;
}

static int host_diag_printf(const char *format, ...) {
  va_list args;
  va_start(args, format);
  int n = vprintf(format, args);
  va_end(args);
  return n;
}

static void host_log_message(const char *level, const char *function, const char *format, ...) {
  va_list args;
  va_start(args, format);
  fprintf(stderr, "[%s] %s: ", level, function);
  vfprintf(stderr, format, args);
  size_t n = strlen(format);
  if (n == 0 || format[n - 1] != '\n') {
    fputc('\n', stderr);
  }
  va_end(args);
}

static int host_gettimeofday(struct timeval *tv, void *tz) {
  (void)tz;
  return gettimeofday(tv, NULL);
}

static int host_usleep(unsigned int usec) { return usleep(usec); }

static char *host_strchr(const char *s, int c) { return strchr(s, c); }
static char *host_strrchr(const char *s, int c) { return strrchr(s, c); }
static char *host_strpbrk(const char *s, const char *accept) { return strpbrk(s, accept); }
static char *host_strstr(const char *h, const char *n) { return strstr(h, n); }

void kest_host_use_libc(void) {
  kest_malloc_local = malloc;
  kest_free_local = free;
  kest_malloc_shared = malloc;
  kest_free_shared = free;
  kest_islower = islower;
  kest_isupper = isupper;
  kest_tolower = tolower;
  kest_toupper = toupper;
  kest_isalnum = isalnum;
  kest_isspace = isspace;
  kest_isdigit = isdigit;
  kest_atoi = atoi;
  kest_memcpy = memcpy;
  kest_memcmp = memcmp;
  kest_memset = memset;
  kest_strcasecmp = strcasecmp;
  kest_strchr = host_strchr;
  kest_strrchr = host_strrchr;
  kest_strcmp = strcmp;
  kest_strncmp = strncmp;
  kest_strcpy = strcpy;
  kest_strncpy = strncpy;
  kest_strerror = strerror;
  kest_strftime = strftime;
  kest_strlen = strlen;
  kest_strpbrk = host_strpbrk;
  kest_strstr = host_strstr;
  kest_strtol = strtol;
  kest_printf = printf;
  kest_sprintf = sprintf;
  kest_snprintf = snprintf;
  kest_sscanf = sscanf;
  kest_putchar = putchar;
  kest_puts = puts;
  kest_diag_printf = host_diag_printf;
  kest_gettimeofday = host_gettimeofday;
  kest_mktime = mktime;
  kest_log = log;
  kest_fabs = fabs;
  kest_usleep = host_usleep;
  kest_abort = abort;
  kest_get_thread_id = kest_host_thread_id;
  kest_log_message = host_log_message;
}

/* Tag accounting. One counter pair per possible number of each half, updated
 * with atomic adds so that the hooks need no lock on any thread. */
#define KEST_HOST_TAG_NUMBERS 65536u

typedef struct {
  long long bytes;
  long long blocks;
} kest_host_tally;

static kest_host_tally host_by_obj[KEST_HOST_TAG_NUMBERS];
static kest_host_tally host_by_ctx[KEST_HOST_TAG_NUMBERS];

/* Kept in front of each block; 16 bytes so that the block stays aligned as
 * malloc aligns. */
typedef union {
  struct {
    size_t size;
    uint32_t tag;
  } info;
  long double align_unused;
  void *align_pointer_unused;
  unsigned char pad[16];
} kest_host_block_header;

static void host_tally(uint32_t tag, long long bytes, long long blocks) {
  kest_host_tally *obj = &host_by_obj[tag >> 16];
  kest_host_tally *ctx = &host_by_ctx[tag & 0xFFFFu];
  __atomic_fetch_add(&obj->bytes, bytes, __ATOMIC_RELAXED);
  __atomic_fetch_add(&obj->blocks, blocks, __ATOMIC_RELAXED);
  __atomic_fetch_add(&ctx->bytes, bytes, __ATOMIC_RELAXED);
  __atomic_fetch_add(&ctx->blocks, blocks, __ATOMIC_RELAXED);
}

static void *host_tagged_malloc(size_t size) {
  kest_host_block_header *header;
  if (size > (size_t)-1 - sizeof(*header)) {
    return NULL;
  }
  header = (kest_host_block_header *)malloc(sizeof(*header) + size);
  if (header == NULL) {
    return NULL;
  }
  header->info.size = size;
  header->info.tag = (uint32_t)kest_memory_tag_get();
  host_tally(header->info.tag, (long long)size, 1);
  return header + 1;
}

static void host_tagged_free(void *block) {
  kest_host_block_header *header;
  if (block == NULL) {
    return;
  }
  header = (kest_host_block_header *)block - 1;
  host_tally(header->info.tag, -(long long)header->info.size, -1);
  free(header);
}

void kest_host_use_tag_accounting(void) {
  kest_malloc_local = host_tagged_malloc;
  kest_free_local = host_tagged_free;
  kest_malloc_shared = host_tagged_malloc;
  kest_free_shared = host_tagged_free;
}

static void host_read(const kest_host_tally *table, unsigned number, long long *bytes,
                      long long *blocks) {
  if (number >= KEST_HOST_TAG_NUMBERS) {
    *bytes = 0;
    *blocks = 0;
    return;
  }
  *bytes = __atomic_load_n(&table[number].bytes, __ATOMIC_RELAXED);
  *blocks = __atomic_load_n(&table[number].blocks, __ATOMIC_RELAXED);
}

void kest_host_memory_by_obj(unsigned number, long long *bytes, long long *blocks) {
  host_read(host_by_obj, number, bytes, blocks);
}

void kest_host_memory_by_ctx(unsigned number, long long *bytes, long long *blocks) {
  host_read(host_by_ctx, number, bytes, blocks);
}

static void host_print_half(kest_handle_t handle, const char *what, const kest_host_tally *table,
                            int (*count)(kest_handle_t),
                            int (*name)(kest_handle_t, int, char *, int)) {
  const int named = count(handle);
  unsigned number;
  for (number = 0; number < KEST_HOST_TAG_NUMBERS; ++number) {
    char text[128];
    long long bytes;
    long long blocks;
    host_read(table, number, &bytes, &blocks);
    if ((int)number >= named && blocks == 0) {
      continue;
    }
    if (name(handle, (int)number, text, (int)sizeof(text)) != 0) {
      snprintf(text, sizeof(text), "unspec");
    }
    printf("%s %u %s: %lld bytes in %lld blocks\n", what, number, text, bytes, blocks);
  }
}

void kest_host_print_memory(kest_handle_t handle) {
  host_print_half(handle, "object", host_by_obj, kest_memory_obj_num, kest_memory_obj_name);
  host_print_half(handle, "context", host_by_ctx, kest_memory_ctx_num, kest_memory_ctx_name);
}
