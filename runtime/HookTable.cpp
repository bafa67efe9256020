// The 43 platform hooks, in their fixed order, zero-initialised: a hook is null
// until the host stores one. The library reads each object at every call.
#include <kest.h>
#include <kest/Export.h>

extern "C" {
void *(*kest_malloc_local)(size_t);
void (*kest_free_local)(void *);
void *(*kest_malloc_shared)(size_t);
void (*kest_free_shared)(void *);
int (*kest_islower)(int);
int (*kest_isupper)(int);
int (*kest_tolower)(int);
int (*kest_toupper)(int);
int (*kest_isalnum)(int);
int (*kest_isspace)(int);
int (*kest_isdigit)(int);
int (*kest_atoi)(const char *);
void *(*kest_memcpy)(void *, const void *, size_t);
int (*kest_memcmp)(const void *, const void *, size_t);
void *(*kest_memset)(void *, int, size_t);
int (*kest_strcasecmp)(const char *, const char *);
char *(*kest_strchr)(const char *, int);
char *(*kest_strrchr)(const char *, int);
int (*kest_strcmp)(const char *, const char *);
int (*kest_strncmp)(const char *, const char *, size_t);
char *(*kest_strcpy)(char *, const char *);
char *(*kest_strncpy)(char *, const char *, size_t);
char *(*kest_strerror)(int);
size_t (*kest_strftime)(char *, size_t, const char *, const struct tm *);
size_t (*kest_strlen)(const char *);
char *(*kest_strpbrk)(const char *, const char *);
char *(*kest_strstr)(const char *, const char *);
long (*kest_strtol)(const char *, char **, int);
int (*kest_printf)(const char *, ...);
int (*kest_sprintf)(char *, const char *, ...);
int (*kest_snprintf)(char *, size_t, const char *, ...);
int (*kest_sscanf)(const char *, const char *, ...);
int (*kest_putchar)(int);
int (*kest_puts)(const char *);
int (*kest_diag_printf)(const char *, ...);
int (*kest_gettimeofday)(struct timeval *, void *);
time_t (*kest_mktime)(struct tm *);
double (*kest_log)(double);
double (*kest_fabs)(double);
int (*kest_usleep)(unsigned int);
void (*kest_abort)(void);
uint32_t (*kest_get_thread_id)(void);
void (*kest_log_message)(const char *, const char *, const char *, ...);
}

namespace oru {
// Reserved for hosts; the library neither reads nor writes it.
KEST_API void *config;
} // namespace oru

#include "runtime/HookTable.h"

namespace oru {

bool HooksPresent() {
  // Table order, stopping at the first gap; kest_usleep (entry 40) is left out.
  const void *const hooks[] = {
      reinterpret_cast<const void *>(kest_malloc_local),
      reinterpret_cast<const void *>(kest_free_local),
      reinterpret_cast<const void *>(kest_malloc_shared),
      reinterpret_cast<const void *>(kest_free_shared),
      reinterpret_cast<const void *>(kest_islower),
      reinterpret_cast<const void *>(kest_isupper),
      reinterpret_cast<const void *>(kest_tolower),
      reinterpret_cast<const void *>(kest_toupper),
      reinterpret_cast<const void *>(kest_isalnum),
      reinterpret_cast<const void *>(kest_isspace),
      reinterpret_cast<const void *>(kest_isdigit),
      reinterpret_cast<const void *>(kest_atoi),
      reinterpret_cast<const void *>(kest_memcpy),
      reinterpret_cast<const void *>(kest_memcmp),
      reinterpret_cast<const void *>(kest_memset),
      reinterpret_cast<const void *>(kest_strcasecmp),
      reinterpret_cast<const void *>(kest_strchr),
      reinterpret_cast<const void *>(kest_strrchr),
      reinterpret_cast<const void *>(kest_strcmp),
      reinterpret_cast<const void *>(kest_strncmp),
      reinterpret_cast<const void *>(kest_strcpy),
      reinterpret_cast<const void *>(kest_strncpy),
      reinterpret_cast<const void *>(kest_strerror),
      reinterpret_cast<const void *>(kest_strftime),
      reinterpret_cast<const void *>(kest_strlen),
      reinterpret_cast<const void *>(kest_strpbrk),
      reinterpret_cast<const void *>(kest_strstr),
      reinterpret_cast<const void *>(kest_strtol),
      reinterpret_cast<const void *>(kest_printf),
      reinterpret_cast<const void *>(kest_sprintf),
      reinterpret_cast<const void *>(kest_snprintf),
      reinterpret_cast<const void *>(kest_sscanf),
      reinterpret_cast<const void *>(kest_putchar),
      reinterpret_cast<const void *>(kest_puts),
      reinterpret_cast<const void *>(kest_diag_printf),
      reinterpret_cast<const void *>(kest_gettimeofday),
      reinterpret_cast<const void *>(kest_mktime),
      reinterpret_cast<const void *>(kest_log),
      reinterpret_cast<const void *>(kest_fabs),
      reinterpret_cast<const void *>(kest_abort),
      reinterpret_cast<const void *>(kest_get_thread_id),
      reinterpret_cast<const void *>(kest_log_message),
  };
  for (const void *hook : hooks) {
    if (hook == nullptr) {
      return false;
    }
  }
  return true;
}

} // namespace oru
