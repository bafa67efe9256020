#define _GNU_SOURCE
#include "kest_host.h"

#include <ctype.h>
#include <math.h>
#include <stdarg.h>
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
