// kest._kest: the Python package's native part. Flows runs kestcap's flow
// engine (capture input, workers, flow records and features) and hands the
// finished records to Python; Instance is the lower-level face for hosts
// written in Python: one packet at a time, attributes through callbacks.
#include "CaptureInput.h"
#include "FlowSink.h"
#include "SpscRing.h"
#include "Worker.h"

#include <kest.h>
#include <kest_host.h>

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <arpa/inet.h>
#include <atomic>
#include <barrier>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <deque>
#include <dlfcn.h>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <net/if.h>
#include <thread>

namespace py = pybind11;
namespace fs = std::filesystem;
using namespace kestcap;

namespace {

// A failure with kest's error number (or the system's, for files) and its
// text: raised in Python as kest.Error, an OSError.
struct KestError {
  int code;
  std::string text;
};

[[noreturn]] void Raise(int code, std::string text) {
  throw KestError{code, std::move(text)};
}

// The attributes kestcap --json reports without being asked.
const char *const kDefaultAttrs[] = {
    "http.request.header.host",
    "http.request.uri",
    "http.request.method",
    "http.request.header.user-agent",
    "http.response.code",
    "tls.server_name",
    "dns.query",
    "flow.risks",
    kServiceName,
    kServiceCategory,
    "service.source",
};

int PrintToStderr(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int n = std::vfprintf(stderr, format, args);
  va_end(args);
  return n;
}

void UseHooksOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    kest_host_use_libc();
    kest_printf = PrintToStderr;
  });
}

// The plug-in folder of this module's installation; the build's plug-ins
// for the module the build made, where it made it.
std::string DefaultPlugins() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void *>(&DefaultPlugins), &info) == 0 || info.dli_fname == nullptr) {
    Raise(ENOENT, "the kest module cannot tell where it is installed: give plugins=DIR");
  }
  std::error_code error;
  const fs::path self = fs::canonical(info.dli_fname, error);
  if (!error && fs::equivalent(self, KEST_PY_BUILD_MODULE, error) && !error) {
    return KEST_PY_BUILD_PLUGIN_DIR;
  }
  return (self.parent_path() / KEST_PY_INSTALLED_PLUGIN_DIR).lexically_normal().string();
}

// An instance open on `dir` with both transports and the settings made.
kest_handle_t OpenInstance(const std::string &dir,
                           const std::map<std::string, std::string> &config) {
  std::error_code error;
  bool any = false;
  for (fs::directory_iterator it(dir, error); !error && it != fs::directory_iterator();
       it.increment(error)) {
    any = any || it->path().extension() == ".plg";
  }
  if (!any) {
    Raise(ENOENT, "no decoders found in " + dir + " (no .plg files there)");
  }
  UseHooksOnce();
  const kest_handle_t h = kest_open(dir.c_str());
  if (h < 0) {
    Raise(kest_errno, "the library did not open " + dir);
  }
  if (kest_proto_find_index(h, "TCP") < 0 || kest_proto_find_index(h, "UDP") < 0) {
    kest_close(h);
    Raise(KEST_EPROTO, dir + " lacks the TCP or UDP decoder (tcp.plg, udp.plg)");
  }
  for (const auto &[key, value] : config) {
    if (kest_config_set(h, key.c_str(), value.c_str()) != 0) {
      const int code = kest_errno;
      kest_close(h);
      Raise(code, "the library refused the setting " + key + "=" + value);
    }
  }
  return h;
}

// What Python gets of a finished connection.
struct Done {
  FlowRecord record;
  std::string app;
  std::vector<std::string> stack;
};

class QueueSink : public FlowSink {
public:
  void Finished(const FlowRecord &record, const std::string &app,
                const std::vector<std::string> &stack) override {
    std::lock_guard<std::mutex> hold(m_lock);
    m_items.push_back(Done{record, app, stack});
    m_count.store(m_items.size(), std::memory_order_relaxed);
  }
  size_t Count() const { return m_count.load(std::memory_order_relaxed); }
  void Take(std::deque<Done> &into) {
    std::lock_guard<std::mutex> hold(m_lock);
    for (Done &item : m_items) {
      into.push_back(std::move(item));
    }
    m_items.clear();
    m_count.store(0, std::memory_order_relaxed);
  }

private:
  std::mutex m_lock;
  std::vector<Done> m_items;
  std::atomic<size_t> m_count{0};
};

py::object Text(const std::string &text) {
  // Attribute values are bytes off the wire: what is not UTF-8 keeps its
  // bytes as escapes rather than failing the record.
  return py::reinterpret_steal<py::object>(
      PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogateescape"));
}

py::dict Features(const FlowFeatures &f) {
  py::dict out;
  for (int i = 0; i < 2; ++i) {
    const FlowFeatures::Side &s = f.sides[i];
    py::dict side;
    side["pkts"] = s.packets;
    side["ip_bytes"] = s.bytes;
    for (const auto &[name, stats] : {std::pair{"len", &s.length}, {"iat", &s.gap}}) {
      const std::string prefix = std::string(name) + "_";
      side[py::str(prefix + "min")] = stats->min;
      side[py::str(prefix + "mean")] = stats->mean;
      side[py::str(prefix + "max")] = stats->max;
      side[py::str(prefix + "std")] = stats->Stddev();
    }
    for (int bit = 0; bit < FlowFeatures::kFlags; ++bit) {
      side[kFlagNames[bit]] = s.flags[bit];
    }
    out[i == 0 ? "orig" : "resp"] = side;
  }
  py::list first;
  for (int i = 0; i < f.first_count; ++i) {
    first.append(py::make_tuple(f.first[i].side, f.first[i].length,
                                static_cast<double>(f.first[i].offset_us) / 1e6));
  }
  out["first"] = first;
  return out;
}

// The record under the names of kestcap's JSON line, less the dots.
py::dict Record(const Done &done) {
  const FlowRecord &r = done.record;
  py::dict out;
  out["ts"] = static_cast<double>(r.first_us) / 1e6;
  out["duration"] = static_cast<double>(r.last_us - r.first_us) / 1e6;
  out["orig_h"] = Address(r.client);
  out["orig_p"] = ntohs(r.client.port);
  out["resp_h"] = Address(r.server);
  out["resp_p"] = ntohs(r.server.port);
  out["proto"] = ProtoName(r.protocol);
  out["app"] = done.app;
  const std::string *service = r.LastAttr(kServiceName);
  const std::string *category = r.LastAttr(kServiceCategory);
  out["service"] = service != nullptr ? Text(*service) : py::none();
  out["category"] = category != nullptr ? Text(*category) : py::none();
  out["stack"] = done.stack;
  py::list risks;
  for (const std::string &risk : r.Risks()) {
    risks.append(Text(risk));
  }
  out["risks"] = risks;
  out["orig_pkts"] = r.packets[0];
  out["resp_pkts"] = r.packets[1];
  out["orig_bytes"] = r.bytes[0];
  out["resp_bytes"] = r.bytes[1];
  py::dict attrs;
  for (const auto &[name, values] : r.attrs) {
    if (FlowRecord::OwnField(name)) {
      continue;
    }
    if (values.size() == 1) {
      attrs[py::str(name)] = Text(values[0]);
      continue;
    }
    py::list all;
    for (const std::string &value : values) {
      all.append(Text(value));
    }
    attrs[py::str(name)] = all;
  }
  out["attrs"] = attrs;
  if (r.features != nullptr) {
    out["features"] = Features(*r.features);
  }
  return out;
}

// The worker of a frame: both directions, fragments and tunnelled flows
// share the outermost addresses (as kestcap spreads them).
size_t ShardOf(const Frame &frame, size_t workers) {
  if (workers == 1 || frame.form == 0) {
    return 0;
  }
  return kest_packet_shard(frame.form, frame.data, frame.length) % workers;
}

// One pass over a capture file or an interface, pulled record by record.
class Flows {
public:
  Flows(const std::string &source, std::optional<std::string> plugins, int threads,
        std::vector<std::string> attrs, std::optional<std::string> bpf, bool features,
        std::map<std::string, std::string> config, std::optional<uint64_t> max_flows,
        std::optional<double> timeout)
      : m_max_flows(max_flows.value_or(0)) {
    if (threads < 1 || threads > 64) {
      Raise(EINVAL, "threads wants a number from 1 to 64, not " + std::to_string(threads));
    }
    std::string error;
    std::error_code exists_error;
    const std::string filter = bpf.value_or("");
    bool opened;
    if (source == "-" || fs::exists(source, exists_error)) {
      opened = m_input.OpenFile(source, filter, error);
    } else if (if_nametoindex(source.c_str()) != 0) {
      opened = m_input.OpenLive(source, filter, error);
    } else {
      Raise(ENOENT, source + ": no such capture file or interface");
    }
    if (!opened) {
      Raise(EINVAL, error);
    }
    m_h = OpenInstance(plugins.value_or(DefaultPlugins()), config);
    kest_clock_set_mode(m_h, m_input.Live() ? 0 : 1);
    if (timeout.has_value()) {
      m_deadline = std::chrono::steady_clock::now() +
                   std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                       std::chrono::duration<double>(*timeout));
      m_has_deadline = true;
    }
    m_setup.handle = m_h;
    m_setup.sink = &m_sink;
    m_setup.features = features;
    m_setup.capture_clock = !m_input.Live();
    char tunnels[8] = "1";
    kest_config_get(m_h, "conn.default_policy.tunnels", tunnels, sizeof tunnels);
    m_setup.tunnels = tunnels[0] == '1';
    m_setup.attrs.assign(std::begin(kDefaultAttrs), std::end(kDefaultAttrs));
    m_asked = attrs;
    m_setup.attrs.insert(m_setup.attrs.end(), attrs.begin(), attrs.end());
    for (int i = 0; i < threads; ++i) {
      m_workers.push_back(std::make_unique<Worker>(m_setup));
      m_rings.push_back(std::make_unique<SpscRing>(threads == 1 ? 0 : kRingBytes));
    }
  }

  ~Flows() {
    if (m_state == State::kRunning &&
        (m_workers.size() > 1 || m_owner == std::this_thread::get_id())) {
      py::gil_scoped_release nogil;
      EndWorkers();
    }
    EndPoker();
    if (m_h >= 0) {
      kest_close(m_h);
    }
  }

  Flows &Iter() { return *this; }

  py::dict Next() {
    for (;;) {
      if (m_max_flows != 0 && m_yielded >= m_max_flows) {
        Close();
        throw py::stop_iteration();
      }
      if (!m_pending.empty()) {
        break;
      }
      if (m_state == State::kEnded) {
        throw py::stop_iteration();
      }
      Pump();
    }
    Done done = std::move(m_pending.front());
    m_pending.pop_front();
    ++m_yielded;
    return Record(done);
  }

  // Ends the capture: the connections still open are reported.
  void Stop() { m_stop = true; }

  std::vector<std::string> Unknown() const { return m_unknown; }

private:
  enum class State { kNew, kRunning, kEnded };
  static constexpr size_t kRingBytes = 8u << 20;
  static constexpr size_t kBatch = 256;

  void Close() {
    if (m_state == State::kRunning) {
      py::gil_scoped_release nogil;
      EndWorkers();
    }
    m_state = State::kEnded;
    m_pending.clear();
  }

  // A live read may wait for a packet for ever: every kPoke it is broken
  // off, so that the reader looks at Ctrl-C and the time limit.
  static constexpr auto kPoke = std::chrono::milliseconds(100);
  void Poke() {
    std::unique_lock<std::mutex> hold(m_poke_lock);
    while (!m_poke_quit) {
      m_poke_wake.wait_for(hold, kPoke);
      if (!m_poke_quit) {
        m_poked = true;
        m_input.Stop();
      }
    }
  }
  void EndPoker() {
    if (m_poker.joinable()) {
      {
        std::lock_guard<std::mutex> hold(m_poke_lock);
        m_poke_quit = true;
      }
      m_poke_wake.notify_all();
      m_poker.join();
    }
  }

  void Start() {
    m_owner = std::this_thread::get_id();
    std::vector<std::string> errors(m_workers.size());
    if (m_workers.size() == 1) {
      m_workers[0]->Start(errors[0]);
    } else {
      // Both barriers outlive every thread that waits on them.
      m_started =
          std::make_unique<std::barrier<>>(static_cast<std::ptrdiff_t>(m_workers.size() + 1));
      m_ending = std::make_unique<std::barrier<>>(static_cast<std::ptrdiff_t>(m_workers.size()));
      for (size_t i = 0; i < m_workers.size(); ++i) {
        m_threads.emplace_back([this, i, &errors] {
          Worker &worker = *m_workers[i];
          const bool ok = worker.Start(errors[i]);
          m_started->arrive_and_wait();
          if (ok) {
            Drain(worker, *m_rings[i]);
          }
          m_ending->arrive_and_wait();
          worker.Finish();
        });
      }
      m_started->arrive_and_wait();
    }
    m_state = State::kRunning;
    if (m_input.Live()) {
      m_poker = std::thread([this] { Poke(); });
    }
    for (const std::string &e : errors) {
      if (!e.empty()) {
        EndWorkers();
        m_state = State::kEnded;
        Raise(KEST_ENOMEM, e);
      }
    }
    m_unknown = m_workers[0]->Unknown();
  }

  void Drain(Worker &worker, SpscRing &ring) {
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
      if (m_done.load(std::memory_order_acquire) && ring.Peek(bytes) == nullptr) {
        return;
      }
      if (!m_setup.capture_clock && ++quiet == 1000) {
        worker.Idle();
        quiet = 0;
      }
      std::this_thread::yield();
    }
  }

  void EndWorkers() {
    EndPoker();
    if (m_workers.size() == 1) {
      m_workers[0]->Finish();
    } else {
      m_done.store(true, std::memory_order_release);
      for (std::thread &thread : m_threads) {
        thread.join();
      }
      m_threads.clear();
    }
    m_state = State::kEnded;
  }

  void Deliver(const Frame &frame) {
    if (m_workers.size() == 1) {
      m_workers[0]->Handle(frame);
      return;
    }
    SpscRing &ring = *m_rings[ShardOf(frame, m_workers.size())];
    const SpscRing::Header header{frame.length, frame.form, frame.ts_us};
    while (!ring.Push(header, frame.data)) {
      std::this_thread::yield();
    }
  }

  // Reads frames, without the interpreter's lock, until records are ready,
  // the input ends or a live read waits; then looks at Python's signals.
  void Pump() {
    if (m_state == State::kNew) {
      Start();
      if (!m_unknown.empty()) {
        for (const std::string &name : m_unknown) {
          if (std::find(m_asked.begin(), m_asked.end(), name) != m_asked.end()) {
            PyErr_WarnFormat(PyExc_RuntimeWarning, 1, "no plug-in publishes attribute \"%s\"",
                             name.c_str());
          }
        }
      }
    } else if (m_workers.size() == 1 && std::this_thread::get_id() != m_owner) {
      Raise(EINVAL, "a Flows is iterated on the thread that started it");
    }
    bool check_signals = false;
    {
      py::gil_scoped_release nogil;
      const auto begun = std::chrono::steady_clock::now();
      Frame frame;
      for (uint32_t read = 1;; ++read) {
        if (m_stop || (m_has_deadline && (read & 63) == 0 &&
                       std::chrono::steady_clock::now() >= m_deadline)) {
          EndWorkers();
          break;
        }
        CaptureInput::Next next = m_input.Read(frame);
        if (next == CaptureInput::Next::kEnd && m_poked.exchange(false)) {
          next = CaptureInput::Next::kTimeout;
        }
        if (next == CaptureInput::Next::kTimeout) {
          if (m_workers.size() == 1) {
            m_workers[0]->Idle();
          }
          m_stop = m_has_deadline && std::chrono::steady_clock::now() >= m_deadline;
          check_signals = true;
          break;
        }
        if (next != CaptureInput::Next::kFrame) {
          m_cut_short = next == CaptureInput::Next::kCutShort;
          EndWorkers();
          break;
        }
        Deliver(frame);
        // Records go up in batches; a live capture's also after a while,
        // and a long file looks at Ctrl-C now and then.
        if (m_sink.Count() >= kBatch) {
          break;
        }
        if ((read & 0xFFFF) == 0) {
          check_signals = true;
          break;
        }
        if (m_input.Live() && (read & 63) == 0 && m_sink.Count() != 0 &&
            std::chrono::steady_clock::now() - begun > std::chrono::milliseconds(200)) {
          break;
        }
      }
      m_sink.Take(m_pending);
    }
    if (m_cut_short) {
      m_cut_short = false;
      PyErr_WarnFormat(PyExc_RuntimeWarning, 1, "capture cut short (%s); read up to the damage",
                       m_input.Error().c_str());
    }
    if (check_signals && PyErr_CheckSignals() != 0) {
      if (m_input.Live() && PyErr_ExceptionMatches(PyExc_KeyboardInterrupt)) {
        // Ctrl-C ends a live capture: the connections still open follow.
        PyErr_Clear();
        m_stop = true;
        return;
      }
      throw py::error_already_set();
    }
  }

  CaptureInput m_input;
  kest_handle_t m_h = -1;
  WorkerSetup m_setup;
  QueueSink m_sink;
  std::vector<std::unique_ptr<Worker>> m_workers;
  std::vector<std::unique_ptr<SpscRing>> m_rings;
  std::vector<std::thread> m_threads;
  std::unique_ptr<std::barrier<>> m_started;
  std::unique_ptr<std::barrier<>> m_ending;
  std::atomic<bool> m_done{false};
  std::thread::id m_owner;
  State m_state = State::kNew;
  std::deque<Done> m_pending;
  std::vector<std::string> m_asked;
  std::vector<std::string> m_unknown;
  uint64_t m_max_flows;
  uint64_t m_yielded = 0;
  bool m_has_deadline = false;
  std::chrono::steady_clock::time_point m_deadline;
  bool m_stop = false;
  bool m_cut_short = false;
  std::thread m_poker;
  std::mutex m_poke_lock;
  std::condition_variable m_poke_wake;
  bool m_poke_quit = false;
  std::atomic<bool> m_poked{false};
};

// The lower-level face: one instance, one classifying thread (the caller's),
// packets one at a time, attributes to Python callables.
class Instance {
public:
  Instance(std::optional<std::string> plugins, std::map<std::string, std::string> config)
      : m_h(OpenInstance(plugins.value_or(DefaultPlugins()), config)) {}
  ~Instance() { Close(); }

  void Close() {
    if (m_h < 0) {
      return;
    }
    if (m_started && std::this_thread::get_id() == m_owner) {
      kest_fini(m_h);
    }
    kest_close(m_h);
    m_h = -1;
  }

  void OnAttr(const std::string &name, py::object callback) {
    Open();
    Begin();
    if (kest_attr_callback_set(m_h, name.c_str(), Listen) != 0) {
      Raise(kest_errno, "no plug-in publishes attribute \"" + name + "\"");
    }
    kest_idle(m_h);
    const int key = kest_attr_key_get(m_h, name.c_str());
    if (key <= 0) {
      Raise(KEST_ENOENT, "attribute \"" + name + "\" has no key on this thread");
    }
    m_listeners[key] = {name, std::move(callback)};
  }

  // Classifies one packet; the connection's number and stack, or None.
  py::object Classify(py::bytes data, int link, std::optional<double> ts) {
    Open();
    Begin();
    const int form = link == 1                                 ? KEST_SELECTOR_ETHERNET
                     : link == 12 || link == 14 || link == 101 ? KEST_SELECTOR_IP
                     : link == 113                             ? KEST_SELECTOR_LINUX_SLL
                                                               : -1;
    if (form < 0) {
      Raise(EINVAL, "link type " + std::to_string(link) +
                        " is not one kest takes (1 Ethernet, 101 raw IP, 113 Linux cooked)");
    }
    std::string_view bytes = data;
    if (bytes.empty() || bytes.size() > 0xFFFF) {
      Raise(EINVAL, "a packet holds 1 to 65535 bytes, not " + std::to_string(bytes.size()));
    }
    if (ts.has_value() && !(*ts >= 0 && *ts < 1e15)) {
      Raise(EINVAL, "ts is seconds since 1970, not " + std::to_string(*ts));
    }
    if (ts.has_value()) {
      kest_clock_set_mode(m_h, 1);
      kest_clock_set(m_h, static_cast<uint64_t>(*ts * 1000.0));
    }
    m_result = {};
    m_heard.clear();
    {
      py::gil_scoped_release nogil;
      t_current = this;
      kest_classify(m_h, form, reinterpret_cast<const uint8_t *>(bytes.data()),
                    static_cast<uint16_t>(bytes.size()), nullptr, 0, OnResult, this);
      t_current = nullptr;
    }
    for (auto &[id, key, value] : m_heard) {
      const auto &[name, callback] = m_listeners[key];
      callback(id, name, Text(value));
    }
    if (m_result.id == 0) {
      return py::none();
    }
    py::dict out;
    out["conn"] = m_result.id;
    out["stack"] = m_result.stack;
    return out;
  }

private:
  struct Heard {
    kest_conn_id_t id;
    int key;
    std::string value;
  };

  void Open() const {
    if (m_h < 0) {
      Raise(EINVAL, "the instance is closed");
    }
  }

  void Begin() {
    if (!m_started) {
      if (kest_init(m_h) != 0) {
        Raise(kest_errno, "no classifying thread started: a plug-in failed to start on it");
      }
      m_started = true;
      m_owner = std::this_thread::get_id();
    } else if (std::this_thread::get_id() != m_owner) {
      Raise(EINVAL, "an Instance classifies on the thread that first used it");
    }
  }

  static int OnResult(kest_handle_t h, kest_result_t *result, int, kest_conn_id_t id, void *user,
                      int) {
    auto *self = static_cast<Instance *>(user);
    if (id == 0) {
      return 0;
    }
    self->m_result.id = id;
    self->m_result.stack.clear();
    kest_result_t cursor = *result;
    for (kest_proto_first(h, &cursor); kest_proto_valid(h, &cursor) != 0;
         kest_proto_next(h, &cursor)) {
      char name[64];
      const char *got = kest_proto_get_name(h, kest_proto_get_index(h, &cursor), name, sizeof name);
      self->m_result.stack.emplace_back(got != nullptr ? got : "?");
    }
    return 0;
  }

  static int Listen(kest_handle_t, kest_conn_id_t id, int key, int length, const void *value,
                    int packed, void *) {
    Instance *self = t_current;
    if (self == nullptr || length < 0 || self->m_listeners.count(key) == 0) {
      return 0;
    }
    std::string &partial = self->m_partial[key];
    partial.append(static_cast<const char *>(value), static_cast<size_t>(length));
    if ((packed & 0xFFFF) == 0) {
      self->m_heard.push_back({id, key, std::move(partial)});
      partial.clear();
    }
    return 0;
  }

  static thread_local Instance *t_current;
  kest_handle_t m_h;
  bool m_started = false;
  std::thread::id m_owner;
  std::map<int, std::pair<std::string, py::object>> m_listeners;
  std::map<int, std::string> m_partial;
  std::vector<Heard> m_heard;
  struct {
    kest_conn_id_t id = 0;
    std::vector<std::string> stack;
  } m_result;
};

thread_local Instance *Instance::t_current = nullptr;

} // namespace

PYBIND11_MODULE(_kest, m) {
  m.doc() = "kest's native part: use the kest package";
  static py::exception<KestError> error(m, "Error", PyExc_OSError);
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) {
        std::rethrow_exception(p);
      }
    } catch (const KestError &e) {
      // OSError(code, text): .errno and .strerror.
      PyErr_SetObject(error.ptr(), py::make_tuple(e.code, e.text).ptr());
    }
  });
  py::class_<Flows>(m, "_Flows")
      .def(py::init<const std::string &, std::optional<std::string>, int, std::vector<std::string>,
                    std::optional<std::string>, bool, std::map<std::string, std::string>,
                    std::optional<uint64_t>, std::optional<double>>())
      .def("__iter__", &Flows::Iter, py::return_value_policy::reference_internal)
      .def("__next__", &Flows::Next)
      .def("stop", &Flows::Stop)
      .def("unknown_attrs", &Flows::Unknown);
  py::class_<Instance>(m, "Instance")
      .def(py::init<std::optional<std::string>, std::map<std::string, std::string>>(),
           py::arg("plugins") = py::none(),
           py::arg("config") = std::map<std::string, std::string>{})
      .def("on_attr", &Instance::OnAttr, py::arg("name"), py::arg("callback"))
      .def("classify", &Instance::Classify, py::arg("data"), py::arg("link") = 1,
           py::arg("ts") = py::none())
      .def("close", &Instance::Close);
  m.def("default_plugins", &DefaultPlugins);
}
