// kestcap: classifies the connections of a capture file or a live interface
// with libkest and prints what runs over them.
#include "CaptureInput.h"
#include "Changes.h"
#include "ConfigFile.h"
#include "FanoutCapture.h"
#include "FlowLog.h"
#include "HeapSettings.h"
#include "IpfixExporter.h"
#include "KernelDrops.h"
#include "Options.h"
#include "PluginFolder.h"
#include "Privileges.h"
#include "Progress.h"
#include "Sandbox.h"
#include "Service.h"
#include "SpscRing.h"
#include "Worker.h"
#include "WorkerPool.h"

#include <kest.h>
#include <kest_host.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

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

// Enough for thousands of packets between a reader and a worker: the
// reader sleeps on a full ring, and a live capture's bursts wait in the
// kernel's buffer as well.
constexpr size_t kRingBytes = 2u << 20;
// The longest a reader or worker sleeps on its ring before it looks again;
// a live capture's worker passes idle time after each such wait.
constexpr std::chrono::milliseconds kQuietWait{5};

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

// What the workers listen to, and how they keep time.
WorkerSetup MakeSetup(const Options &options, kest_handle_t h, LineOutput *json, bool live) {
  WorkerSetup setup;
  setup.handle = h;
  setup.prepare_thread = TuneThreadHeap;
  setup.features = options.features;
  setup.capture_clock = !live;
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
  return setup;
}

// The pace of a run without a changes file: nothing is ever due, and the
// reading loop compiled with it checks nothing per packet.
struct NoChanges {
  static constexpr bool Due(uint64_t) { return false; }
  void Make(uint64_t) {}
};

// Reads every frame and hands it to `deliver`; `idle` runs while a live
// input is quiet. `changes` (a ChangeThread or NoChanges) makes the changes
// due between packets, after `settle` returned (once the packets handed on
// so far are classified), as their numbers say. The result: the capture
// was cut short.
template <class Changes, class Deliver, class Idle, class Settle>
bool ReadAll(CaptureInput &input, Progress &progress, Changes &changes, Deliver &&deliver,
             Idle &&idle, Settle &&settle) {
  Frame frame;
  uint64_t read = 0;
  bool cut_short = false;
  for (;;) {
    const CaptureInput::Next next = input.Read(frame);
    if (next == CaptureInput::Next::kTimeout) {
      idle();
      progress.Show(read);
      continue;
    }
    if (next == CaptureInput::Next::kCutShort) {
      cut_short = true;
    }
    if (next != CaptureInput::Next::kFrame) {
      break;
    }
    if (changes.Due(read)) {
      settle();
      changes.Make(read);
    }
    deliver(frame);
    progress.Tick(++read);
  }
  // Changes numbered past the capture's end are made after its last packet.
  if (changes.Due(~0ull)) {
    settle();
    changes.Make(~0ull);
  }
  return cut_short;
}

template <class Deliver, class Idle, class Settle>
bool ReadAll(CaptureInput &input, Progress &progress, ChangeThread *changes, Deliver &&deliver,
             Idle &&idle, Settle &&settle) {
  if (changes != nullptr) {
    return ReadAll(input, progress, *changes, deliver, idle, settle);
  }
  NoChanges none;
  return ReadAll(input, progress, none, deliver, idle, settle);
}

// One thread reads and classifies, and nothing is copied.
bool RunOnOneThread(CaptureInput &input, ChangeThread *changes, Worker &worker, bool &cut_short,
                    std::string &error) {
  if (!worker.Start(error)) {
    worker.Finish();
    return false;
  }
  Progress progress(&input, input.Live());
  EnterSandbox();
  cut_short = ReadAll(
      input, progress, changes, [&](const Frame &frame) { worker.Handle(frame); },
      [&] { worker.Idle(); }, [] {});
  worker.Finish();
  progress.Done();
  return true;
}

// The reading thread copies each frame into the ring of its worker, picked
// by ShardOf; each worker takes its frames out in order.
bool RunOnRings(CaptureInput &input, ChangeThread *changes, WorkerPool &pool, bool &cut_short,
                std::string &error) {
  const size_t n = pool.Size();
  const bool live = input.Live();
  std::vector<std::unique_ptr<SpscRing>> rings;
  for (size_t i = 0; i < n; ++i) {
    rings.push_back(std::make_unique<SpscRing>(kRingBytes));
  }
  Progress progress(&input, live);
  const auto consume = [&](Worker &worker, size_t i) {
    EnterSandbox();
    SpscRing &ring = *rings[i];
    for (;;) {
      const uint8_t *bytes;
      const SpscRing::Header *header = ring.Peek(bytes);
      if (header != nullptr) {
        worker.Handle(Frame{header->ts_us, header->form, bytes, header->length});
        ring.Pop(*header);
        continue;
      }
      if (ring.Closed()) {
        if (ring.Peek(bytes) == nullptr) {
          break;
        }
        continue;
      }
      ring.WaitForRecord(kQuietWait);
      // Idle passes only for live input, as on one thread: a file's
      // connections age by its time stamps as its packets come, and an idle
      // pass whenever this ring ran dry would end them at points that the
      // scheduling picks, so that two runs of one file could report
      // different connections.
      if (live && ring.Peek(bytes) == nullptr) {
        worker.Idle();
      }
    }
  };
  const auto read = [&] {
    EnterSandbox();
    cut_short = ReadAll(
        input, progress, changes,
        [&](const Frame &frame) {
          SpscRing &ring = *rings[ShardOf(frame, n)];
          const SpscRing::Header header{frame.length, frame.form, frame.ts_us};
          while (!ring.Push(header, frame.data)) {
            ring.WaitForRoom(kQuietWait);
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
    for (const auto &ring : rings) {
      ring->Close();
    }
  };
  const bool ok = pool.Run(consume, read, error);
  progress.Done();
  return ok;
}

// Each worker reads its own share of the live interfaces from its own
// sockets until the capture is stopped.
void ReadShare(FanoutCapture &capture, Worker &worker, size_t index, std::atomic<uint64_t> &taken,
               Progress *progress) {
  Frame frame;
  uint64_t count = 0;
  for (;;) {
    const CaptureInput::Next next = capture.Read(index, frame);
    if (next == CaptureInput::Next::kFrame) {
      worker.Handle(frame);
      taken.store(++count, std::memory_order_relaxed);
      if (progress != nullptr) {
        progress->Tick(count);
      }
    } else if (next == CaptureInput::Next::kTimeout) {
      worker.Idle();
      if (progress != nullptr) {
        progress->Show(count);
      }
    } else {
      return;
    }
  }
}

bool RunFanout(FanoutCapture &capture, WorkerPool &pool, std::string &error) {
  const size_t n = pool.Size();
  // Per worker, on a line of its own: the packets it took.
  struct alignas(64) Count {
    std::atomic<uint64_t> value{0};
  };
  std::vector<Count> taken(n);
  Progress progress(nullptr, true);
  if (n == 1) {
    Worker &worker = pool.At(0);
    if (!worker.Start(error)) {
      worker.Finish();
      return false;
    }
    EnterSandbox();
    ReadShare(capture, worker, 0, taken[0].value, &progress);
    worker.Finish();
    progress.Done();
    return true;
  }
  std::atomic<size_t> running{n};
  const auto share = [&](Worker &worker, size_t i) {
    EnterSandbox();
    ReadShare(capture, worker, i, taken[i].value, nullptr);
    running.fetch_sub(1, std::memory_order_release);
  };
  // The calling thread only keeps the progress line.
  const auto watch = [&] {
    EnterSandbox();
    while (running.load(std::memory_order_acquire) != 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      uint64_t sum = 0;
      for (const Count &count : taken) {
        sum += count.value.load(std::memory_order_relaxed);
      }
      progress.Show(sum);
    }
  };
  const bool ok = pool.Run(share, watch, error);
  progress.Done();
  return ok;
}

// Names asked for with --attr that no plug-in publishes.
void WarnUnknown(const Options &options, const Worker &worker) {
  for (const std::string &name : worker.Unknown()) {
    bool asked = false;
    for (const std::string &wanted : options.attrs) {
      asked = asked || wanted == name;
    }
    if (asked) {
      std::fprintf(stderr, "kestcap: warning: no plug-in publishes attribute \"%s\"\n",
                   name.c_str());
    }
  }
}

// Where the packets come from: a file or libpcap's live capture (`pcap`),
// or one AF_PACKET socket per worker (`fanout`).
struct Source {
  CaptureInput pcap;
  FanoutCapture fanout;
  bool by_fanout = false;
  bool live = false;
  // What kestcap listens on, said once it answers its signals.
  std::string listening;
};

// Reads every frame and has the workers classify it. The result is the
// exit code.
int Run(const Options &options, Source &source, kest_handle_t h, Totals &totals, AppTable &apps,
        LineOutput *json, ChangeThread *changes) {
  WorkerSetup setup = MakeSetup(options, h, json, source.live);
  JsonSink json_sink(json);
  setup.sink = json != nullptr ? &json_sink : nullptr;
  // Declared before the workers, so that it sends their last records
  // after they finish.
  std::unique_ptr<IpfixExporter> ipfix;
  if (!options.ipfix.empty()) {
    ipfix = std::make_unique<IpfixExporter>();
    std::string why;
    if (!ipfix->Open(options.ipfix, why)) {
      return Fail(kExitUsage, why);
    }
    setup.ipfix = ipfix.get();
  }
  const size_t n = static_cast<size_t>(options.threads);
  WorkerPool pool(setup, n);
  const WatchWorkers watch(pool.Workers());
  std::string error;
  bool cut_short = false;
  bool ok;
  if (source.by_fanout) {
    ok = RunFanout(source.fanout, pool, error);
  } else if (n == 1) {
    ok = RunOnOneThread(source.pcap, changes, pool.At(0), cut_short, error);
  } else {
    ok = RunOnRings(source.pcap, changes, pool, cut_short, error);
  }
  if (!ok) {
    return Fail(kExitLibrary, error);
  }
  pool.Gather(totals, apps);
  totals.live = source.live;
  totals.kernel_drops = KernelDrops();
  WarnUnknown(options, pool.At(0));
  if (cut_short) {
    std::fprintf(stderr, "kestcap: warning: %s: capture cut short (%s); read up to the damage\n",
                 options.input.c_str(), source.pcap.Error().c_str());
  }
  return kExitOk;
}

// Opens the file, or the live interfaces: through AF_PACKET where the
// system has it, unless --pcap asks for libpcap.
int OpenSource(const Options &options, Source &source) {
  std::string error;
  source.live = !options.interfaces.empty();
  if (!source.live) {
    return source.pcap.OpenFile(options.input, options.filter, error) ? kExitOk
                                                                      : Fail(kExitInput, error);
  }
  // One source that is not a network device (libpcap's "any", a netfilter
  // log group) is libpcap's to read.
  source.by_fanout = !options.pcap && FanoutCapture::Available() &&
                     (options.interfaces.size() > 1 || FanoutCapture::IsDevice(options.interface));
  if (!source.by_fanout && options.interfaces.size() > 1) {
    return Fail(kExitUsage, "several interfaces need AF_PACKET capture (Linux, without --pcap)");
  }
  if (source.by_fanout && !options.changes.empty()) {
    return Fail(kExitUsage, "--changes counts the packets of one reader: with -i it needs --pcap");
  }
  const bool opened =
      source.by_fanout
          ? source.fanout.Open(options.interfaces, static_cast<size_t>(options.threads),
                               options.filter, error)
          : source.pcap.OpenLive(options.interface, options.filter, error);
  if (!opened) {
    return Fail(kExitInput, error);
  }
  std::string names;
  for (const std::string &name : options.interfaces) {
    names += (names.empty() ? "" : ", ") + name;
  }
  source.listening = names + (source.by_fanout ? " (AF_PACKET fan-out, " : " (libpcap, ") +
                     std::to_string(options.threads) +
                     (options.threads == 1 ? " thread)" : " threads)");
  return kExitOk;
}

// Opens the output, gives up privileges, starts the service thread, then
// classifies. The result is the exit code.
int Serve(const Options &options, Source &source, kest_handle_t h, Privileges &privileges,
          bool memory_by_tag, std::vector<Change> change_list) {
  std::string error;
  // Captures from files age by their own time stamps.
  kest_clock_set_mode(h, source.live ? 0 : 1);
  // Every file kestcap writes is open before the drop; a reopened or
  // rotated one is made again by the user dropped to, in the same folder.
  const auto open = [&](const std::string &path) -> std::unique_ptr<LineOutput> {
    FILE *file = path.empty() ? stdout : std::fopen(path.c_str(), "a");
    if (file == nullptr || (!path.empty() && !privileges.GiveFile(fileno(file)))) {
      error = path + ": " + std::strerror(errno);
      return nullptr;
    }
    return std::make_unique<LineOutput>(file);
  };
  std::unique_ptr<LineOutput> json;
  std::unique_ptr<LineOutput> stats_file;
  if ((options.json && (json = open(options.output)) == nullptr) ||
      (!options.stats_file.empty() && (stats_file = open(options.stats_file)) == nullptr)) {
    return Fail(kExitService, error);
  }
  std::unique_ptr<LineOutput> stats_stdout;
  LineOutput *stats = stats_file != nullptr ? stats_file.get() : json.get();
  if (options.stats_seconds != 0 && stats == nullptr) {
    stats_stdout = std::make_unique<LineOutput>(stdout);
    stats = stats_stdout.get();
  }
  if ((privileges.Changing() || source.live) && !privileges.Drop(error)) {
    return Fail(kExitService, "giving up privileges: " + error);
  }
  if (!PrepareSandbox(!options.no_sandbox, error)) {
    return Fail(kExitService, error);
  }
  Service service;
  ServiceSetup setup;
  setup.input = source.by_fanout ? nullptr : &source.pcap;
  setup.fanout = source.by_fanout ? &source.fanout : nullptr;
  setup.handle = h;
  setup.output = json.get();
  setup.output_path = options.output;
  setup.rotate_bytes = options.rotate_bytes;
  setup.rotate_seconds = options.rotate_seconds;
  setup.stats_seconds = options.stats_seconds;
  setup.stats = stats;
  setup.stats_path = options.stats_file;
  setup.memory_by_tag = memory_by_tag;
  if (!service.Start(setup, error)) {
    return Fail(kExitService, error);
  }
  // Said only now, when SIGINT and SIGTERM end the capture cleanly: scripts
  // wait for this line before they signal.
  if (!source.listening.empty()) {
    std::fprintf(stderr, "kestcap: listening on %s\n", source.listening.c_str());
  }
  Totals totals;
  AppTable apps;
  const auto start = std::chrono::steady_clock::now();
  std::unique_ptr<ChangeThread> changes;
  if (!change_list.empty()) {
    changes = std::make_unique<ChangeThread>(h, std::move(change_list));
  }
  const int code = Run(options, source, h, totals, apps, json.get(), changes.get());
  changes.reset();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  service.Stop();
  // The service counted libpcap's last drops as it stopped.
  totals.kernel_drops = KernelDrops();
  if (code == kExitOk && !options.json) {
    PrintTable(stdout, apps, totals, seconds);
  } else if (code == kExitOk && source.live) {
    // The lines hold no totals: what the kernel dropped goes beside them.
    std::fprintf(stderr, "kestcap: %llu packets read, %llu dropped by the kernel\n",
                 static_cast<unsigned long long>(totals.packets),
                 static_cast<unsigned long long>(totals.kernel_drops));
  }
  for (LineOutput *out : {json.get(), stats_file.get()}) {
    if (out != nullptr) {
      out->Flush();
    }
  }
  if (stats_file != nullptr) {
    std::fclose(stats_file->Replace(stdout));
  }
  if (json != nullptr && !options.output.empty()) {
    std::fclose(json->Replace(stdout));
  }
  return code;
}

} // namespace

int Main(int argc, char **argv) {
  Options options;
  std::string error;
  std::vector<std::string> args;
  if (!ExpandConfigFile(argc, argv, args, error)) {
    return Fail(kExitUsage, error);
  }
  std::vector<char *> words;
  for (std::string &arg : args) {
    words.push_back(arg.data());
  }
  words.push_back(nullptr);
  if (!ParseOptions(static_cast<int>(args.size()), words.data(), options, error)) {
    return Fail(kExitUsage, error);
  }
  if (options.help) {
    std::fputs(UsageText(), stdout);
    return kExitOk;
  }
  if (options.version) {
    std::printf("kestcap (kest) %s\n", KESTCAP_VERSION);
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
  // The user database is read while it can be: before the capture opens,
  // and long before the drop.
  Privileges privileges;
  const bool live = !options.interfaces.empty();
  if (!privileges.Resolve(options.user, live && geteuid() == 0, error)) {
    return Fail(kExitService, error);
  }
  Source source;
  if (const int code = OpenSource(options, source); code != kExitOk) {
    return code;
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
  // A sensor reports its memory by tag (SIGUSR1, --stats); a file run
  // spares the header each block would carry.
  const bool memory_by_tag = live || options.stats_seconds != 0;
  if (memory_by_tag) {
    kest_host_use_tag_accounting();
  }
  // Plug-ins unpack into memory files unless the user chose otherwise: no
  // name under /tmp that another user could take first, and no file system
  // work (a tenth of a millisecond per plug-in saved at start).
  setenv("KEST_PLUGIN_COPY", "memfd", 0);
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
    code = Serve(options, source, h, privileges, memory_by_tag, std::move(change_list));
  }
  kest_close(h);
  std::fflush(stdout);
  return code;
}

} // namespace kestcap

int main(int argc, char **argv) {
  return kestcap::Main(argc, argv);
}
