#include "Service.h"

#include "KernelDrops.h"

#include <kest_host.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestcap {

Service *g_service = nullptr;

namespace {

uint64_t NowMs() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

// Resident memory in kB, from /proc/self/statm (pages).
uint64_t ResidentKb() {
  FILE *f = std::fopen("/proc/self/statm", "r");
  unsigned long long size = 0, resident = 0;
  if (f != nullptr) {
    if (std::fscanf(f, "%llu %llu", &size, &resident) != 2) {
      resident = 0;
    }
    std::fclose(f);
  }
  return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

// The name a rotated file takes: FILE.YYYYMMDDTHHMMSS, with -N when that
// second already has one.
std::string RotatedName(const std::string &path) {
  char stamp[32];
  const time_t now = time(nullptr);
  tm utc{};
  gmtime_r(&now, &utc);
  strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%S", &utc);
  std::string name = path + "." + stamp;
  struct stat info;
  for (int n = 1; lstat(name.c_str(), &info) == 0 && n < 1000; ++n) {
    name = path + "." + stamp + "-" + std::to_string(n);
  }
  return name;
}

} // namespace

bool Service::Start(const ServiceSetup &setup, std::string &error) {
  m_setup = setup;
  m_started_ms = NowMs();
  if (setup.memory_by_tag) {
    const int n = kest_memory_ctx_num(setup.handle);
    for (int i = 0; i < n; ++i) {
      char name[64] = "";
      kest_memory_ctx_name(setup.handle, i, name, sizeof name);
      m_tag_names.emplace_back(name);
    }
  }
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGHUP, SIGUSR1, SIGINT, SIGTERM}) {
    sigaddset(&set, signal);
  }
  m_signals = signalfd(-1, &set, SFD_CLOEXEC);
  m_wake = eventfd(0, EFD_CLOEXEC);
  if (m_signals < 0 || m_wake < 0 || pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) {
    error = std::string("the service thread's descriptors: ") + std::strerror(errno);
    return false;
  }
  m_thread = std::thread([this] { Loop(); });
  g_service = this;
  return true;
}

void Service::Stop() {
  if (!m_thread.joinable()) {
    return;
  }
  g_service = nullptr;
  // Published before the wake: the thread that tears the capture down sees
  // everything the reading threads did before this call.
  m_stop_asked.store(true, std::memory_order_release);
  const uint64_t one = 1;
  if (write(m_wake, &one, sizeof one) < 0) {
    std::perror("kestcap: waking the service thread");
  }
  m_thread.join();
  close(m_signals);
  close(m_wake);
}

void Service::Watch(const std::vector<std::unique_ptr<Worker>> &workers) {
  std::lock_guard<std::mutex> hold(m_lock);
  m_workers.clear();
  for (const auto &worker : workers) {
    m_workers.push_back(worker.get());
  }
}

void Service::Unwatch() {
  std::lock_guard<std::mutex> hold(m_lock);
  for (const Worker *worker : m_workers) {
    m_gone_packets += worker->PacketsSeen();
  }
  m_workers.clear();
}

std::string Service::StatsLine() {
  uint64_t packets = 0;
  uint64_t open = 0;
  {
    std::lock_guard<std::mutex> hold(m_lock);
    packets = m_gone_packets;
    for (const Worker *worker : m_workers) {
      packets += worker->PacketsSeen();
      open += worker->OpenSeen();
    }
  }
  const auto wall = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count();
  char head[160];
  std::snprintf(head, sizeof head, "{\"ts\":%lld.%03lld,\"stats\":{\"uptime\":%.3f",
                static_cast<long long>(wall / 1000), static_cast<long long>(wall % 1000),
                static_cast<double>(NowMs() - m_started_ms) / 1000.0);
  std::string line = head;
  const auto number = [&line](const char *key, uint64_t value) {
    line += ",\"";
    line += key;
    line += "\":" + std::to_string(value);
  };
  number("packets", packets);
  uint64_t kernel = 0;
  uint64_t interface = 0;
  if (m_setup.input != nullptr && m_setup.input->Drops(kernel, interface)) {
    number("drops", kernel);
    number("if_drops", interface);
  } else if (m_setup.fanout != nullptr) {
    number("drops", KernelDrops());
    number("if_drops", 0);
  }
  number("flows", open);
  number("connections", m_setup.output != nullptr ? m_setup.output->Lines() : 0);
  number("rss_kb", ResidentKb());
  if (m_setup.memory_by_tag) {
    line += ",\"memory\":{";
    bool first = true;
    for (size_t i = 0; i < m_tag_names.size(); ++i) {
      long long bytes = 0;
      long long blocks = 0;
      kest_host_memory_by_ctx(static_cast<unsigned>(i), &bytes, &blocks);
      if (bytes <= 0) {
        continue;
      }
      line += first ? "\"" : ",\"";
      first = false;
      line += (m_tag_names[i] == "unspec" ? "unspec" + std::to_string(i) : m_tag_names[i]) +
              "\":" + std::to_string(bytes);
    }
    line += "}";
  }
  line += "}}";
  return line;
}

void Service::Reopen(bool rotate) {
  const auto reopen = [rotate](LineOutput *out, const std::string &path) {
    if (out == nullptr || path.empty()) {
      return;
    }
    // Lines keep going to the old file until the new one is in place; the
    // old one is closed after the switch, so no line is lost.
    if (rotate) {
      const std::string name = RotatedName(path);
      if (std::rename(path.c_str(), name.c_str()) != 0) {
        std::fprintf(stderr, "kestcap: rotating %s: %s; writing on\n", path.c_str(),
                     std::strerror(errno));
        return;
      }
    }
    FILE *file = std::fopen(path.c_str(), "a");
    if (file == nullptr) {
      std::fprintf(stderr, "kestcap: reopening %s: %s; writing on to the file open before\n",
                   path.c_str(), std::strerror(errno));
      return;
    }
    std::fclose(out->Replace(file));
  };
  reopen(m_setup.output, m_setup.output_path);
  if (!rotate) {
    reopen(m_setup.stats, m_setup.stats_path);
  }
}

void Service::Answer(int signal) {
  switch (signal) {
  case SIGHUP:
    Reopen(false);
    break;
  case SIGUSR1:
    std::fprintf(stderr, "kestcap: stats %s\n", StatsLine().c_str());
    break;
  default:
    if (m_stopping) {
      // The first one is still writing out the connections; the user
      // insists.
      std::fprintf(stderr, "kestcap: %s again: ending without writing the open connections\n",
                   strsignal(signal));
      _exit(128 + signal);
    }
    m_stopping = true;
    if (m_setup.input != nullptr) {
      m_setup.input->Stop();
    }
    if (m_setup.fanout != nullptr) {
      m_setup.fanout->Stop();
    }
    break;
  }
}

void Service::Loop() {
  uint64_t next_stats = m_setup.stats_seconds != 0 ? NowMs() + m_setup.stats_seconds * 1000 : 0;
  uint64_t next_rotation =
      m_setup.rotate_seconds != 0 ? NowMs() + m_setup.rotate_seconds * 1000 : 0;
  for (;;) {
    pollfd fds[2] = {{m_signals, POLLIN, 0}, {m_wake, POLLIN, 0}};
    const int ready = poll(fds, 2, 1000);
    if (m_setup.input != nullptr) {
      m_setup.input->CountDrops();
    }
    if (ready > 0 && (fds[1].revents & POLLIN) != 0 &&
        m_stop_asked.load(std::memory_order_acquire)) {
      // The capture is over. The last statistics, and the capture's
      // teardown, are made here: both need calls the sandbox refuses.
      if (m_setup.stats_seconds != 0) {
        m_setup.stats->Write(StatsLine());
        m_setup.stats->Flush();
      }
      if (m_setup.input != nullptr) {
        m_setup.input->Close();
      }
      return;
    }
    if (ready > 0 && (fds[0].revents & POLLIN) != 0) {
      signalfd_siginfo info;
      if (read(m_signals, &info, sizeof info) == sizeof info) {
        Answer(static_cast<int>(info.ssi_signo));
      }
    }
    const uint64_t now = NowMs();
    if (m_setup.output != nullptr) {
      m_setup.output->Flush();
      // A period without a line makes no empty file.
      const uint64_t bytes = m_setup.output->Bytes();
      if ((m_setup.rotate_bytes != 0 && bytes >= m_setup.rotate_bytes) ||
          (next_rotation != 0 && now >= next_rotation && bytes != 0)) {
        Reopen(true);
        next_rotation = next_rotation != 0 ? now + m_setup.rotate_seconds * 1000 : 0;
      }
    }
    if (next_stats != 0 && now >= next_stats) {
      m_setup.stats->Write(StatsLine());
      m_setup.stats->Flush();
      next_stats += m_setup.stats_seconds * 1000;
    }
  }
}

} // namespace kestcap
