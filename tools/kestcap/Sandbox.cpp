#include "Sandbox.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <mutex>
#include <seccomp.h>
#include <sys/mman.h>
#include <unistd.h>

namespace kestcap {

namespace {

// Death by SIGSYS, as a shell reports it.
constexpr int kExitForbidden = 128 + SIGSYS;

scmp_filter_ctx g_filter = nullptr;
std::mutex g_load_lock;

// Names of the system calls, resolved at start-up: the handler may run
// inside the allocator, where asking libseccomp (which allocates) could
// dead-lock.
constexpr int kNames = 512;
std::array<const char *, kNames> g_names{};

void WriteAll(const char *text, size_t length) {
  while (length > 0) {
    const ssize_t n = write(2, text, length);
    if (n <= 0) {
      return;
    }
    text += n;
    length -= static_cast<size_t>(n);
  }
}

// Async-signal-safe: digits by hand, one write, then the process ends.
void OnForbidden(int, siginfo_t *info, void *) {
  char line[256];
  size_t at = 0;
  const auto put = [&](const char *text) {
    for (; *text != '\0' && at < sizeof line - 1; ++text) {
      line[at++] = *text;
    }
  };
  put("kestcap: sandbox: a classifying thread made the forbidden system call ");
  char digits[16];
  int n = info->si_syscall;
  int d = 0;
  do {
    digits[d++] = static_cast<char>('0' + n % 10);
    n /= 10;
  } while (n > 0 && d < 15);
  while (d > 0 && at < sizeof line - 1) {
    line[at++] = digits[--d];
  }
  const int number = info->si_syscall;
  if (number >= 0 && number < kNames && g_names[static_cast<size_t>(number)] != nullptr) {
    put(" (");
    put(g_names[static_cast<size_t>(number)]);
    put(")");
  }
  put("; ending (--no-sandbox runs without the filter)\n");
  WriteAll(line, at);
  _exit(kExitForbidden);
}

bool Allow(int number) {
  return seccomp_rule_add(g_filter, SCMP_ACT_ALLOW, number, 0) == 0;
}

} // namespace

bool SandboxAvailable() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  return false;
#else
  return true;
#endif
#else
  return true;
#endif
}

bool PrepareSandbox(bool enabled, std::string &error) {
  if (!enabled || !SandboxAvailable()) {
    return true;
  }
  // The C library gives a thread's spare heap back to the system once it
  // holds more than the trim threshold, and the first time it does so it
  // opens /proc/sys/vm/overcommit_memory to learn how: a call the filter
  // refuses, at a moment the heap picks (a classifying thread's end, a large
  // free). Past this threshold nothing is given back that way, so freed
  // memory stays with kestcap for its next connections.
  mallopt(M_TRIM_THRESHOLD, INT_MAX);
  // Standard output gets its buffer now: the C library makes one at the
  // first write, and then asks whether a character device (/dev/null, a
  // terminal) is a terminal, an ioctl the filter refuses.
  static char buffer[BUFSIZ];
  std::setvbuf(stdout, buffer, isatty(1) != 0 ? _IOLBF : _IOFBF, sizeof buffer);
  g_filter = seccomp_init(SCMP_ACT_TRAP);
  if (g_filter == nullptr) {
    error = "the sandbox's filter could not be made";
    return false;
  }
  static const int kPlain[] = {
      // Memory (mmap and mprotect below, without execution rights).
      SCMP_SYS(brk), SCMP_SYS(munmap), SCMP_SYS(mremap), SCMP_SYS(madvise),
      // Threads waiting for each other, and their ends.
      SCMP_SYS(futex), SCMP_SYS(sched_yield), SCMP_SYS(exit), SCMP_SYS(exit_group),
      SCMP_SYS(rt_sigreturn), SCMP_SYS(rt_sigprocmask), SCMP_SYS(restart_syscall),
      // Clocks and sleeps.
      SCMP_SYS(clock_gettime), SCMP_SYS(gettimeofday), SCMP_SYS(time), SCMP_SYS(nanosleep),
      SCMP_SYS(clock_nanosleep), SCMP_SYS(getpid), SCMP_SYS(gettid),
      // Descriptors already open: captures, output files, standard error.
      SCMP_SYS(read), SCMP_SYS(readv), SCMP_SYS(pread64), SCMP_SYS(write), SCMP_SYS(writev),
      SCMP_SYS(lseek), SCMP_SYS(fstat), SCMP_SYS(newfstatat), SCMP_SYS(close),
      // Capture rings and sockets already open (live capture, export).
      SCMP_SYS(poll), SCMP_SYS(ppoll), SCMP_SYS(select), SCMP_SYS(pselect6), SCMP_SYS(epoll_wait),
      SCMP_SYS(epoll_pwait), SCMP_SYS(recvfrom), SCMP_SYS(recvmsg), SCMP_SYS(sendto),
      SCMP_SYS(sendmsg), SCMP_SYS(getsockopt)};
  bool ok = true;
  for (const int number : kPlain) {
    ok = ok && Allow(number);
  }
  // No page may become executable: new code would be the attacker's.
  ok = ok &&
       seccomp_rule_add(g_filter, SCMP_ACT_ALLOW, SCMP_SYS(mmap), 1,
                        SCMP_A2(SCMP_CMP_MASKED_EQ, PROT_EXEC, 0)) == 0 &&
       seccomp_rule_add(g_filter, SCMP_ACT_ALLOW, SCMP_SYS(mprotect), 1,
                        SCMP_A2(SCMP_CMP_MASKED_EQ, PROT_EXEC, 0)) == 0;
  // Signals only to kestcap itself (abort() raises SIGABRT that way).
  // The comparison is spelled out: SCMP_A0 leaves its second datum to the
  // compiler, which clang's missing-initializer warning refuses.
  const scmp_arg_cmp own_process = {0, SCMP_CMP_EQ, static_cast<scmp_datum_t>(getpid()), 0};
  ok = ok && seccomp_rule_add(g_filter, SCMP_ACT_ALLOW, SCMP_SYS(tgkill), 1, own_process) == 0;
  if (!ok) {
    error = "the sandbox's filter could not be made";
    seccomp_release(g_filter);
    g_filter = nullptr;
    return false;
  }
  for (int i = 0; i < kNames; ++i) {
    g_names[static_cast<size_t>(i)] = seccomp_syscall_resolve_num_arch(SCMP_ARCH_NATIVE, i);
  }
  struct sigaction action = {};
  action.sa_sigaction = OnForbidden;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  if (sigaction(SIGSYS, &action, nullptr) != 0) {
    error = std::string("the sandbox's reporter: ") + std::strerror(errno);
    return false;
  }
  return true;
}

void EnterSandbox() {
  if (g_filter == nullptr) {
    return;
  }
  // libseccomp builds the program at each load: one thread at a time.
  std::lock_guard<std::mutex> hold(g_load_lock);
  const int rc = seccomp_load(g_filter);
  if (rc != 0) {
    std::fprintf(stderr, "kestcap: sandbox: the kernel refused the filter (%s)\n",
                 std::strerror(-rc));
    _exit(4);
  }
}

} // namespace kestcap
