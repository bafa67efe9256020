// kestcap: classifies the connections of a capture file or a live interface
// with libkest and prints what runs over them.
#include "CaptureInput.h"
#include "Changes.h"
#include "FlowLog.h"
#include "Options.h"
#include "PluginFolder.h"
#include "SpscRing.h"
#include "Worker.h"

#include <kest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <thread>
#include <unistd.h>

namespace kestcap {

namespace {

// What a user wants to see without asking: the attributes the bundled
// decoders publish.
const char *const kDefaultAttrs[] = {
    "http.request.header.host",
    "http.request.uri",
    "http.request.method",
    "http.request.header.user-agent",
    "http.response.code",
    "tls.server_name",
    "dns.query",
    // Not an attribute of the line's "attrs": its values make "risks".
    "flow.risks",
};

constexpr size_t kRingBytes = 8u << 20;

std::atomic<CaptureInput *> g_live{nullptr};

void OnSignal(int) {
  if (CaptureInput *input = g_live.load()) {
    input->Stop();
  }
}

int Fail(ExitCode code, const std::string &text) {
  std::fprintf(stderr, "kestcap: %s\n", text.c_str());
  return code;
}

// Custom protocols, settings and rules, in that order, before any packet.
bool Configure(kest_handle_t h, const Options &options, std::string &error) {
  const auto apply = [&](const char *verb, const std::vector<std::string> &items) {
    for (const std::string &item : items) {
      if (!ApplyChange(h, verb, item, error)) {
        error = "--" + error;
        return false;
      }
    }
    return true;
  };
  return apply("proto-add", options.protos) && apply("config", options.configs) &&
         apply("rule-add", options.rules);
}

// The worker of a frame: both directions, all fragments and everything
// inside a tunnel share the outermost IP addresses.
size_t ShardOf(const Frame &frame, size_t workers) {
  if (workers == 1 || frame.form == 0) {
    return 0;
  }
  return kest_packet_shard(frame.form, frame.data, frame.length) % workers;
}

// A progress line on a terminal, for files of known size.
class Progress {
public:
  explicit Progress(const CaptureInput &input)
      : m_input(input), m_on(!input.Live() && input.Size() != 0 && isatty(2) != 0) {}
  void Tick(uint64_t packets) {
    if (!m_on || (packets & 0xFFFF) != 0) {
      return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now - m_last < std::chrono::milliseconds(500)) {
      return;
    }
    m_last = now;
    const double seconds = std::chrono::duration<double>(now - m_start).count();
    std::fprintf(stderr, "\rkestcap: %3.0f%% of %.1f MB, %.0f packets/s ",
                 100.0 * static_cast<double>(m_input.Offset()) /
                     static_cast<double>(m_input.Size()),
                 static_cast<double>(m_input.Size()) / 1e6,
                 seconds > 0 ? static_cast<double>(packets) / seconds : 0.0);
  }
  void Done() {
    if (m_on) {
      std::fprintf(stderr, "\r\033[K");
    }
  }

private:
  const CaptureInput &m_input;
  const bool m_on;
  const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point m_last = m_start;
};

// Reads every frame and has the workers classify it. The result is the
// exit code.
int Run(const Options &options, CaptureInput &input, kest_handle_t h, Totals &totals,
        AppTable &apps, LineOutput *json, ChangeThread *changes) {
  WorkerSetup setup;
  setup.handle = h;
  setup.json = json;
  setup.capture_clock = !input.Live();
  char tunnels[8] = "1";
  kest_config_get(h, "conn.default_policy.tunnels", tunnels, sizeof tunnels);
  setup.tunnels = tunnels[0] == '1';
  // Only the JSON lines show attributes: the table asks for none but those
  // named on the command line (so that a name no plug-in knows is still
  // reported), and the library spends nothing on the rest.
  for (const char *name : kDefaultAttrs) {
    if (json != nullptr) {
      setup.attrs.emplace_back(name);
    }
  }
  // The table groups connections by their service, and the JSON lines name
  // it and its category, so both listen to the service plug-in.
  setup.attrs.emplace_back(kServiceName);
  setup.attrs.emplace_back(kServiceCategory);
  if (json != nullptr) {
    setup.attrs.emplace_back("service.source");
  }
  for (const std::string &name : options.attrs) {
    setup.attrs.push_back(name);
  }
  const size_t n = static_cast<size_t>(options.threads);
  std::vector<std::unique_ptr<Worker>> workers;
  std::vector<std::unique_ptr<SpscRing>> rings;
  for (size_t i = 0; i < n; ++i) {
    workers.push_back(std::make_unique<Worker>(setup));
    rings.push_back(std::make_unique<SpscRing>(n == 1 ? 0 : kRingBytes));
  }
  std::string error;
  bool cut_short = false;
  Progress progress(input);
  uint64_t read = 0;
  // `settle` returns once the packets handed on so far are classified:
  // changes are made between packets, as their numbers say.
  auto read_all = [&](auto &&deliver, auto &&idle, auto &&settle) {
    Frame frame;
    for (;;) {
      const CaptureInput::Next next = input.Read(frame);
      if (next == CaptureInput::Next::kTimeout) {
        idle();
        continue;
      }
      if (next == CaptureInput::Next::kCutShort) {
        cut_short = true;
      }
      if (next != CaptureInput::Next::kFrame) {
        break;
      }
      if (changes != nullptr && changes->Due(read)) {
        settle();
        changes->Make(read);
      }
      deliver(frame);
      progress.Tick(++read);
    }
    // Changes numbered past the capture's end are made after its last packet.
    if (changes != nullptr && changes->Due(~0ull)) {
      settle();
      changes->Make(~0ull);
    }
  };
  if (n == 1) {
    // One thread: the reading thread classifies, and nothing is copied.
    Worker &worker = *workers[0];
    if (!worker.Start(error)) {
      worker.Finish();
      return Fail(kExitLibrary, error);
    }
    read_all([&](const Frame &frame) { worker.Handle(frame); }, [&] { worker.Idle(); }, [] {});
  } else {
    // Every worker is a kest thread before the first packet, and all of
    // them end together: a thread that ended early would keep changes from
    // reaching the others.
    std::barrier started(static_cast<std::ptrdiff_t>(n + 1));
    std::barrier ending(static_cast<std::ptrdiff_t>(n));
    std::atomic<bool> done{false};
    std::atomic<bool> failed{false};
    std::vector<std::string> errors(n);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < n; ++i) {
      threads.emplace_back([&, i] {
        Worker &worker = *workers[i];
        SpscRing &ring = *rings[i];
        if (!worker.Start(errors[i])) {
          failed = true;
        }
        started.arrive_and_wait();
        int quiet = 0;
        for (;;) {
          const uint8_t *bytes;
          const SpscRing::Header *header = ring.Peek(bytes);
          if (header != nullptr) {
            worker.Handle(Frame{header->ts_us, header->form, bytes, header->length});
            ring.Pop(*header);
            quiet = 0;
            continue;
          }
          if (done.load(std::memory_order_acquire) && ring.Peek(bytes) == nullptr) {
            break;
          }
          // Idle passes only for live input, as on one thread: a file's
          // connections age by its time stamps as its packets come, and an
          // idle pass whenever this ring ran dry would end them at points
          // that the scheduling picks, so that two runs of one file could
          // report different connections.
          if (!setup.capture_clock && ++quiet == 1000) {
            worker.Idle();
            quiet = 0;
          }
          std::this_thread::yield();
        }
        ending.arrive_and_wait();
        worker.Finish();
      });
    }
    started.arrive_and_wait();
    if (!failed) {
      read_all(
          [&](const Frame &frame) {
            SpscRing &ring = *rings[ShardOf(frame, n)];
            const SpscRing::Header header{frame.length, frame.form, frame.ts_us};
            while (!ring.Push(header, frame.data)) {
              std::this_thread::yield();
            }
          },
          [] {},
          [&] {
            for (const auto &ring : rings) {
              while (!ring->Drained()) {
                std::this_thread::yield();
              }
            }
          });
    }
    done.store(true, std::memory_order_release);
    for (std::thread &thread : threads) {
      thread.join();
    }
    for (const std::string &e : errors) {
      if (!e.empty()) {
        return Fail(kExitLibrary, e);
      }
    }
  }
  if (n == 1) {
    workers[0]->Finish();
  }
  progress.Done();
  for (const auto &worker : workers) {
    totals.Add(worker->Counts());
    for (const auto &[app, row] : worker->Apps()) {
      AppRow &sum = apps[app];
      sum.connections += row.connections;
      sum.packets += row.packets;
      sum.bytes += row.bytes;
    }
  }
  for (const std::string &name : workers[0]->Unknown()) {
    bool asked = false;
    for (const std::string &wanted : options.attrs) {
      asked = asked || wanted == name;
    }
    if (asked) {
      std::fprintf(stderr, "kestcap: warning: no plug-in publishes attribute \"%s\"\n",
                   name.c_str());
    }
  }
  if (cut_short) {
    std::fprintf(stderr, "kestcap: warning: %s: capture cut short (%s); read up to the damage\n",
                 options.input.c_str(), input.Error().c_str());
  }
  return kExitOk;
}

} // namespace

int Main(int argc, char **argv) {
  Options options;
  std::string error;
  if (!ParseOptions(argc, argv, options, error)) {
    return Fail(kExitUsage, error);
  }
  if (options.help) {
    std::fputs(UsageText(), stdout);
    return kExitOk;
  }
  const std::string plugins = options.plugins.empty() ? DefaultPluginFolder() : options.plugins;
  if (plugins.empty()) {
    return Fail(kExitLibrary, "kestcap cannot tell where it is installed (no /proc/self/exe), "
                              "so it has no default plug-in folder: give --plugins DIR");
  }
  if (options.list_plugins) {
    return ListPlugins(plugins);
  }
  CaptureInput input;
  const bool opened = options.interface.empty()
                          ? input.OpenFile(options.input, options.filter, error)
                          : input.OpenLive(options.interface, options.filter, error);
  if (!opened) {
    return Fail(kExitInput, error);
  }
  std::vector<Change> change_list;
  if (!options.changes.empty() && !LoadChanges(options.changes, change_list, error)) {
    return Fail(kExitUsage, "--changes: " + error);
  }
  const FolderScan scan = ScanFolder(plugins);
  if (scan.plugins.empty()) {
    return Fail(kExitLibrary, "no plug-ins found in " + plugins + " (see --plugins)");
  }
  for (const Stray &stray : scan.strays) {
    std::fprintf(stderr, "kestcap: warning: %s/%s: %s\n", plugins.c_str(), stray.name.c_str(),
                 stray.why.c_str());
  }
  UseHostHooks();
  const kest_handle_t h = kest_open(plugins.c_str());
  if (h < 0) {
    return Fail(kExitLibrary, "the library did not open " + plugins + " (error " +
                                  std::to_string(kest_errno) + ")");
  }
  int code = kExitOk;
  if (const std::string missing = MissingTransports(h, plugins); !missing.empty()) {
    code = Fail(kExitLibrary, missing);
  } else if (!Configure(h, options, error)) {
    code = Fail(kExitLibrary, error);
  } else {
    // Captures from files age by their own time stamps.
    kest_clock_set_mode(h, input.Live() ? 0 : 1);
    if (input.Live()) {
      g_live = &input;
      std::signal(SIGINT, OnSignal);
      std::signal(SIGTERM, OnSignal);
    }
    std::unique_ptr<LineOutput> json;
    if (options.json) {
      json = std::make_unique<LineOutput>(stdout);
    }
    Totals totals;
    AppTable apps;
    const auto start = std::chrono::steady_clock::now();
    std::unique_ptr<ChangeThread> changes;
    if (!change_list.empty()) {
      changes = std::make_unique<ChangeThread>(h, std::move(change_list));
    }
    code = Run(options, input, h, totals, apps, json.get(), changes.get());
    changes.reset();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    g_live = nullptr;
    if (code == kExitOk && !options.json) {
      PrintTable(stdout, apps, totals, seconds);
    }
  }
  kest_close(h);
  std::fflush(stdout);
  return code;
}

} // namespace kestcap

int main(int argc, char **argv) {
  return kestcap::Main(argc, argv);
}
