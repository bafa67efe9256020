// kestcap's service thread: what a long-running sensor answers to while the
// classifying threads run. It alone handles the signals (SIGHUP reopens the
// output files, SIGUSR1 writes a statistics line to standard error, SIGINT
// and SIGTERM end the capture so that every open connection is written;
// a second one ends kestcap at once), rotates the output file by size or
// time, writes the periodic statistics lines and flushes the output every
// second. It reads no packet, so it stays outside the sandbox: opening and
// renaming files is its work, never a classifying thread's.
#ifndef KESTCAP_SERVICE_H
#define KESTCAP_SERVICE_H

#include "CaptureInput.h"
#include "FanoutCapture.h"
#include "FlowLog.h"
#include "Worker.h"

#include <kest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kestcap {

struct ServiceSetup {
  // The capture: libpcap's (a file or one live source), or AF_PACKET's
  // sockets; the other is null.
  CaptureInput *input = nullptr;
  FanoutCapture *fanout = nullptr;
  kest_handle_t handle = -1;
  // The JSON lines and the file they go to ("" for standard output, which
  // is neither reopened nor rotated).
  LineOutput *output = nullptr;
  std::string output_path;
  uint64_t rotate_bytes = 0;
  uint64_t rotate_seconds = 0;
  // Statistics every stats_seconds (0: only on SIGUSR1), to `stats` (the
  // output itself, or the file stats_path).
  uint64_t stats_seconds = 0;
  LineOutput *stats = nullptr;
  std::string stats_path;
  // The host's allocation hooks count memory by tag.
  bool memory_by_tag = false;
};

class Service {
public:
  Service() = default;
  ~Service() { Stop(); }
  Service(const Service &) = delete;
  Service &operator=(const Service &) = delete;

  // Blocks the signals it answers in the calling thread, and so in every
  // thread started after it (call it before any other), and starts the
  // thread. False with `error` set when a descriptor cannot be made.
  bool Start(const ServiceSetup &setup, std::string &error);
  // Writes the last statistics line (with --stats) and ends the thread.
  void Stop();

  // The workers whose counts the statistics add up, while they exist.
  void Watch(const std::vector<std::unique_ptr<Worker>> &workers);
  void Unwatch();

  // The statistics line, without the newline.
  std::string StatsLine();

private:
  void Loop();
  void Reopen(bool rotate);
  void Answer(int signal);

  ServiceSetup m_setup;
  std::thread m_thread;
  int m_signals = -1; // signalfd
  int m_wake = -1;    // eventfd: Stop()
  bool m_stopping = false;
  std::atomic<bool> m_stop_asked{false}; // Stop() was called
  std::mutex m_lock;                     // the watched workers and the counts of those gone
  std::vector<const Worker *> m_workers;
  uint64_t m_gone_packets = 0;
  std::vector<std::string> m_tag_names;
  uint64_t m_started_ms = 0;
};

// The service of this run, or null (Run tells it its workers).
extern Service *g_service;

// Shows `workers` to the service for as long as it lives.
class WatchWorkers {
public:
  explicit WatchWorkers(const std::vector<std::unique_ptr<Worker>> &workers) {
    if (g_service != nullptr) {
      g_service->Watch(workers);
    }
  }
  ~WatchWorkers() {
    if (g_service != nullptr) {
      g_service->Unwatch();
    }
  }
  WatchWorkers(const WatchWorkers &) = delete;
  WatchWorkers &operator=(const WatchWorkers &) = delete;
};

} // namespace kestcap

#endif
