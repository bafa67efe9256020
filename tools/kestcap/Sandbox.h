// The classifying threads' system call filter. Once a thread has started
// its kest context it only reads packets, computes, takes and frees memory
// and writes lines; a decoder bug that hostile traffic turns into code of
// the attacker's choosing then finds no system call to open a file, a
// socket or a program with. A call outside the list ends kestcap at once
// with one line on standard error naming the call, and exit code 159 (as a
// death by SIGSYS would be reported).
//
// Allowed after start-up: memory (brk, mmap and mprotect without execution
// rights, munmap, mremap, madvise), futexes and yielding, clocks and
// sleeps, reading, writing and seeking on descriptors already open (read,
// readv, pread64, write, writev, lseek, fstat, newfstatat, close), waiting
// and receiving or sending on sockets already open (poll, ppoll, select,
// pselect6, epoll_wait, epoll_pwait, recvfrom, recvmsg, sendto, sendmsg,
// getsockopt), signals to kestcap itself only (tgkill, rt_sigprocmask,
// rt_sigreturn), and the ends of a thread (exit, exit_group). Everything
// else, above all opening a file or a socket, starting a program or a
// thread, and changing identities, is refused. Files are opened and
// renamed only by kestcap's service thread, which reads no packet.
#ifndef KESTCAP_SANDBOX_H
#define KESTCAP_SANDBOX_H

#include <string>

namespace kestcap {

// Builds the filter and installs the handler that reports a refused call;
// called once on the main thread before any other thread starts. With
// `enabled` false (--no-sandbox, or a build under a sanitizer, whose
// run-time library needs calls of its own at its reports and at exit),
// EnterSandbox does nothing. False with `error` set when the filter cannot
// be built.
bool PrepareSandbox(bool enabled, std::string &error);

// Confines the calling thread (a classifying thread once its kest context
// is started, or the reading thread before its first packet). Ends
// kestcap with a message when the kernel refuses the filter: a sensor
// that was asked for the sandbox does not run without it.
void EnterSandbox();

// Whether this build can apply the filter at all (false under a sanitizer).
bool SandboxAvailable();

} // namespace kestcap

#endif
