// Memory failure on the whole road: a real capture replayed in-process the
// way kestcap feeds it (frames into kest_classify on the capture's own clock,
// the default attribute listeners, conn.expired, idle passes), through every
// built decoder plug-in. A clean replay counts the allocations A and notes the
// call that made each; then for every N in 1..A (the scenarios) the Nth
// allocation fails, and the replay must give every block of both heaps back
// after kest_fini and kest_close answer 0; each call that met the failure
// goes on or fails as the host interface says it fails for want of memory
// (kCalls below), every later call answers as in the clean replay, and every
// connection that starts after the failure is classified as in the clean
// replay. A failed kest_open or kest_init is answered as a host does: the
// instance is opened again, and the whole capture must come out as clean. A
// failure absorbed while the instance starts may leave it without a plug-in,
// a name or a listener, as the interface allows: it may then classify less,
// never otherwise. A second sweep fails a burst of allocations from N on: the
// instance must recover for the connections that start after.
//
// Replays are deterministic up to the failure: a driver replay runs clean
// and forks at each N; the child fails that allocation, replays the rest,
// judges itself and reports through a pipe. A crash or a sanitizer report in
// a child fails the sweep with its N. KEST_SWEEP_CAPTURE, _STRIDE, _BURST,
// _LOAD_STRIDE and _RESTART_STRIDE choose the capture and how densely it is
// swept (scripts/fault_sweep.sh); KEST_SWEEP_ONLY=N tries that N alone.
#include "TestHooks.h"
#include "TransportPlugin.h"

#include <gtest/gtest.h>
#include <kest.h>
#include <link.h>
#include <pcap/pcap.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace {

using kest_test::AllocationCount;
using kest_test::Heap;
using kest_test::LiveBlocks;

// ---------------------------------------------------------------------------
// The capture

struct Frame {
  uint64_t ts_us;
  int form; // the host's selector: 1 IP, 2 Ethernet, 3 Linux cooked
  std::vector<uint8_t> bytes;
};

// Every frame the library can take, as kestcap hands them over. Empty with
// `error` set when the file cannot be read.
std::vector<Frame> ReadCapture(const std::string &path, std::string &error) {
  std::vector<Frame> frames;
  char text[PCAP_ERRBUF_SIZE] = "";
  pcap_t *pcap = pcap_open_offline(path.c_str(), text);
  if (pcap == nullptr) {
    error = text;
    return frames;
  }
  // The host's frame form for each link type, and the bytes before the IP
  // header that kestcap strips.
  const struct {
    int link, form;
    uint32_t skip;
  } links[] = {{DLT_EN10MB, 2, 0}, {DLT_LINUX_SLL, 3, 0}, {DLT_RAW, 1, 0}, {DLT_IPV4, 1, 0},
               {DLT_IPV6, 1, 0},   {DLT_NULL, 1, 4},      {DLT_LOOP, 1, 4}};
  int form = 0;
  uint32_t skip = 0;
  for (const auto &l : links) {
    if (l.link == pcap_datalink(pcap)) {
      form = l.form;
      skip = l.skip;
    }
  }
  if (form == 0) {
    error = "link type " + std::to_string(pcap_datalink(pcap)) + " is not swept";
    pcap_close(pcap);
    return frames;
  }
  pcap_pkthdr *header;
  const u_char *data;
  while (pcap_next_ex(pcap, &header, &data) == 1) {
    if (header->caplen <= skip || header->caplen - skip > 0xFFFF) {
      continue;
    }
    const uint64_t ts = static_cast<uint64_t>(header->ts.tv_sec) * 1000000u +
                        static_cast<uint64_t>(header->ts.tv_usec);
    frames.push_back({ts, form, std::vector<uint8_t>(data + skip, data + header->caplen)});
  }
  pcap_close(pcap);
  return frames;
}

// ---------------------------------------------------------------------------
// One replay

const char *const kAttrs[] = {"http.request.header.host",
                              "http.request.uri",
                              "http.request.method",
                              "http.request.header.user-agent",
                              "http.response.code",
                              "tls.server_name",
                              "dns.query"};

// The frame index of the calls before the first frame and after the last.
constexpr long kSetup = -1;
constexpr long kTeardown = 1L << 40;

// A top-level call of the host interface, with the allocations it made.
struct Call {
  std::string name;
  long frame;
  long first; // allocation count before the call
  long last;  // and after it
  int result;
  int error; // kest_errno right after the call
};

struct Answer {
  int code;
  kest_conn_id_t id;
  std::string stack; // names, bottom first; the index where a protocol has no name
  std::vector<int> indices;
  std::vector<std::string> names; // empty where the index has no name
  // Connection numbers are not compared: a connection the decoders could not
  // make still took its number.
  bool operator==(const Answer &o) const { return code == o.code && stack == o.stack; }
};

struct Attr {
  kest_conn_id_t id;
  std::string text; // name=value
};

// The failures of one replay: `count` allocations from the `first` on (one
// for a single failure), counted from the start of the replay.
struct Plan {
  long first = 0;
  long count = 1;
  // Whether an instance that failed to start is started again and the
  // capture replayed on it; otherwise the replay ends with its teardown.
  bool restart = true;
};

struct Replay {
  std::vector<Call> calls;
  std::vector<std::vector<Answer>> answers; // per frame
  std::vector<std::vector<Attr>> attrs;     // per frame
  std::map<kest_conn_id_t, long> first;     // the first frame of each connection
  std::vector<int> callback_errors;         // non-zero error words given to the callback
  long expired = 0;
  long restarts = 0;
  bool started = false;
  long allocations = 0;
  long live_local = 0;
  long live_shared = 0;
  // The call during which the last planned failure fell, or -1.
  long end_call = -1;
};

// The replay under way: attribute listeners and allocation hooks are
// process-wide functions.
struct Running {
  Replay *replay = nullptr;
  Plan plan;
  long frame = kSetup;
  std::map<int, std::string> names; // attribute key -> name on this thread
  int expired_key = 0;
  bool armed = false;
};
Running g_run;

// Ends a burst once its allocations are spent. Called between calls and in
// the callbacks, so a burst ends at the first of those after its last
// allocation.
void Disarm() {
  if (g_run.armed && AllocationCount() >= g_run.plan.first + g_run.plan.count - 1) {
    kest_test::FailNthAllocation(0);
    g_run.armed = false;
  }
}

// Reads the stack that a result reports.
void ReadStack(kest_handle_t h, kest_result_t cursor, Answer &answer) {
  for (kest_proto_first(h, &cursor); kest_proto_valid(h, &cursor) != 0;
       kest_proto_next(h, &cursor)) {
    const int index = kest_proto_get_index(h, &cursor);
    char name[64];
    const char *got = kest_proto_get_name(h, index, name, sizeof name);
    answer.indices.push_back(index);
    answer.names.push_back(got != nullptr ? got : "");
    answer.stack += (answer.stack.empty() ? "" : "/") +
                    (got != nullptr ? std::string(got) : std::to_string(index));
  }
}

int OnResult(kest_handle_t h, kest_result_t *result, int code, kest_conn_id_t id, void *,
             int error) {
  // The walking and naming calls have call frames of their own, which start
  // kest_errno afresh: the classify call's error is put back afterwards.
  const int saved = kest_errno;
  Disarm();
  Replay &r = *g_run.replay;
  Answer answer{code, id, {}, {}, {}};
  ReadStack(h, *result, answer);
  r.answers[static_cast<size_t>(g_run.frame)].push_back(std::move(answer));
  if (id != 0) {
    r.first.try_emplace(id, g_run.frame);
    kest_endpoint_t client, server;
    kest_endpoint_get(h, id, &client, &server);
  }
  if (error != 0) {
    r.callback_errors.push_back(error);
  }
  kest_errno = saved;
  return 0;
}

int OnAttr(kest_handle_t, kest_conn_id_t id, int key, int length, const void *value, int packed,
           void *) {
  Disarm();
  Replay &r = *g_run.replay;
  if (key == g_run.expired_key && length == 8) {
    ++r.expired;
    return 0;
  }
  if (g_run.frame < 0 || g_run.frame >= static_cast<long>(r.attrs.size()) || length < 0) {
    return 0;
  }
  auto name = g_run.names.find(key);
  std::string text = (name != g_run.names.end() ? name->second : std::to_string(key)) + "=" +
                     std::string(static_cast<const char *>(value), static_cast<size_t>(length));
  if ((packed & 0xFFFF) != 0) {
    text += "...";
  }
  r.attrs[static_cast<size_t>(g_run.frame)].push_back({id, text});
  return 0;
}

// Makes one call of the host interface and notes it.
template <typename F> int Note(const char *name, F &&call) {
  Disarm();
  const long first = AllocationCount();
  const int result = call();
  const int error = kest_errno;
  Replay &r = *g_run.replay;
  r.calls.push_back({name, g_run.frame, first, AllocationCount(), result, error});
  const Plan &plan = g_run.plan;
  if (plan.first != 0 && first < plan.first + plan.count - 1 && AllocationCount() >= plan.first) {
    r.end_call = static_cast<long>(r.calls.size()) - 1;
  }
  return result;
}

// Opens an instance on the plug-ins and starts the calling thread in it, as
// kestcap does. 0 when that failed; the instance is closed again then.
kest_handle_t Start(const std::string &plugins) {
  const kest_handle_t h = Note("kest_open", [&] { return kest_open(plugins.c_str()); });
  if (h <= 0) {
    return 0;
  }
  Note("kest_clock_set_mode", [&] { return kest_clock_set_mode(h, 1), 0; });
  if (Note("kest_init", [&] { return kest_init(h); }) != 0) {
    // The thread's slot block stays after a failed start: kest_fini clears it.
    Note("kest_fini", [&] { return kest_fini(h); });
    Note("kest_close", [&] { return kest_close(h); });
    return 0;
  }
  Note("kest_attr_callback_set", [&] { return kest_attr_callback_set(h, "conn.expired", OnAttr); });
  for (const char *name : kAttrs) {
    Note("kest_attr_callback_set", [&] { return kest_attr_callback_set(h, name, OnAttr); });
  }
  // Listeners and identifiers reach the thread in its idle pass.
  Note("kest_idle", [&] { return kest_idle(h), 0; });
  g_run.names.clear();
  g_run.expired_key =
      Note("kest_attr_key_get", [&] { return kest_attr_key_get(h, "conn.expired"); });
  for (const char *name : kAttrs) {
    const int key = Note("kest_attr_key_get", [&] { return kest_attr_key_get(h, name); });
    if (key > 0) {
      g_run.names[key] = name;
    }
  }
  return h;
}

// What a forked replay does once it is done (see Fork below).
void Finish(const Replay &replay);
bool g_in_child = false;

Replay ReplayCapture(const std::vector<Frame> &frames, const std::string &plugins) {
  Replay replay;
  replay.answers.resize(frames.size());
  replay.attrs.resize(frames.size());
  g_run.replay = &replay;
  g_run.frame = kSetup;
  kest_handle_t h = Start(plugins);
  // A host whose instance failed to start tries again, until the failures
  // are over.
  while (h == 0 && g_run.plan.restart && replay.restarts < 1000) {
    ++replay.restarts;
    h = Start(plugins);
  }
  replay.started = h != 0;
  if (replay.started) {
    uint64_t clock_ms = ~uint64_t{0};
    for (size_t i = 0; i < frames.size(); ++i) {
      const Frame &frame = frames[i];
      g_run.frame = static_cast<long>(i);
      const uint64_t ms = frame.ts_us / 1000;
      if (ms != clock_ms) {
        Note("kest_clock_set", [&] { return kest_clock_set(h, ms), 0; });
        clock_ms = ms;
      }
      Note("kest_classify", [&] {
        return kest_classify(h, frame.form, frame.bytes.data(),
                             static_cast<uint16_t>(frame.bytes.size()), nullptr, 0, OnResult,
                             nullptr);
      });
      // A timer's idle pass now and then, as a live host has.
      if (i % 16 == 15) {
        Note("kest_idle", [&] { return kest_idle(h), 0; });
      }
    }
    g_run.frame = kTeardown;
    Note("kest_idle", [&] { return kest_idle(h), 0; });
    Note("kest_fini", [&] { return kest_fini(h); });
    Note("kest_close", [&] { return kest_close(h); });
  }
  kest_test::FailNthAllocation(0);
  g_run.armed = false;
  replay.allocations = AllocationCount();
  replay.live_local = LiveBlocks(Heap::Local);
  replay.live_shared = LiveBlocks(Heap::Shared);
  if (g_in_child) {
    Finish(replay);
  }
  g_run.replay = nullptr;
  return replay;
}

// ---------------------------------------------------------------------------
// Judging a replay against the clean one

// How each call of the host interface reports a failure, and the failures it
// may report for want of memory.
struct CallKind {
  const char *name;
  bool returns_nothing; // then kest_errno alone tells a failure
  int failed_at_most;   // a result at most this is a failure
  int documented_min, documented_max;
  std::vector<int> errors; // kest_errno of a documented failure
};
const CallKind kCalls[] = {
    // The configuration store reports an item it could not take in as a
    // refusal (EINVAL), whatever the reason.
    {"kest_open", false, 0, -1, -1, {KEST_ENOMEM, KEST_EINVAL}},
    // A protocol name that cannot be looked up reads as absent, and a missing
    // transport is EPROTO, also when memory was the reason.
    {"kest_init", false, -1, -1, -1, {KEST_ENOMEM, KEST_EPROTO}},
    // A key that cannot even be split is refused without a word of its own.
    {"kest_attr_callback_set", false, -1, -1, -1, {KEST_ENOMEM, KEST_EINVAL}},
    // A decoder that could not take the packet leaves what it raised.
    {"kest_classify", false, -1, -1, -1, {0, KEST_ENOMEM}},
    // 0 or -1: no listener is active for the name on this thread yet.
    {"kest_attr_key_get", false, 0, INT32_MIN, 0, {0}},
    {"kest_idle", true, 0, 0, 0, {KEST_ENOMEM}},
    {"kest_clock_set", true, 0, 0, 0, {KEST_ENOMEM}},
    {"kest_clock_set_mode", true, 0, 0, 0, {}},
    {"kest_fini", false, -1, 0, -1, {}},
    {"kest_close", false, -1, 0, -1, {}},
};

const CallKind &KindOf(const Call &call) {
  for (const CallKind &kind : kCalls) {
    if (call.name == kind.name) {
      return kind;
    }
  }
  return kCalls[std::size(kCalls) - 1]; // as kest_close: no failure is documented
}

// kest_errno speaks only for a call that failed, save for the calls that
// return nothing.
bool Failed(const Call &call) {
  const CallKind &kind = KindOf(call);
  return kind.returns_nothing ? call.error != 0 : call.result <= kind.failed_at_most;
}

bool DocumentedFailure(const Call &call) {
  const CallKind &kind = KindOf(call);
  return kind.documented_min <= call.result && call.result <= kind.documented_max &&
         std::find(kind.errors.begin(), kind.errors.end(), call.error) != kind.errors.end();
}

// Whether a call answered as its counterpart in the clean replay.
bool Same(const Call &call, const Call &clean) {
  return KindOf(call).returns_nothing ? call.error == clean.error : call.result == clean.result;
}

// The index of the clean replay's call that made allocation n, or -1.
long CallOf(const Replay &clean, long n) {
  auto it = std::find_if(clean.calls.begin(), clean.calls.end(),
                         [n](const Call &c) { return c.first < n && n <= c.last; });
  return it == clean.calls.end() ? -1 : it - clean.calls.begin();
}

std::string Describe(const std::vector<Answer> &answers) {
  std::string text;
  for (const Answer &a : answers) {
    text += "[" + std::to_string(a.code) + " " + a.stack + "]";
  }
  return text.empty() ? "(none)" : text;
}

// The attributes of frame k that belong to connections which started after
// frame `after`, in order.
std::vector<std::string> FreshAttrs(const Replay &r, size_t k, long after) {
  std::vector<std::string> out;
  for (const Attr &a : r.attrs[k]) {
    if (auto first = r.first.find(a.id); first != r.first.end() && first->second > after) {
      out.push_back(a.text);
    }
  }
  return out;
}

// Whether `part` is `whole` with some of its elements left out.
template <typename T> bool Within(const std::vector<T> &part, const std::vector<T> &whole) {
  size_t i = 0;
  for (const T &x : whole) {
    i += i < part.size() && part[i] == x;
  }
  return i == part.size();
}

// Whether every answer names the start of a stack that one of the clean
// answers names (the same protocols, or the same index where the registry had
// no memory left for a name): what a missing piece of the instance leaves.
bool LessOf(const std::vector<Answer> &got, const std::vector<Answer> &clean) {
  auto start_of = [](const Answer &part, const Answer &whole) {
    for (size_t i = 0; i < part.indices.size(); ++i) {
      if (i >= whole.indices.size() || (part.names[i].empty() ? part.indices[i] != whole.indices[i]
                                                              : part.names[i] != whole.names[i])) {
        return false;
      }
    }
    return true;
  };
  return std::all_of(got.begin(), got.end(), [&](const Answer &a) {
    return std::any_of(clean.begin(), clean.end(), [&](const Answer &c) { return start_of(a, c); });
  });
}

// How far a replay may fall short of the clean one where it is compared.
enum class Measure {
  kSame,      // same answers, same attributes
  kListeners, // same answers; attributes whose listener met the failure may be missing
  kInstance,  // the instance or thread started without what the failure took: less, never other
};

// Every frame after `after` whose connections all started after it, held
// against the clean replay.
std::string Compare(const Replay &clean, const Replay &got, long after, Measure measure) {
  for (size_t k = static_cast<size_t>(after + 1); k < clean.answers.size(); ++k) {
    if (!std::all_of(clean.answers[k].begin(), clean.answers[k].end(),
                     [&](const Answer &a) { return a.id == 0 || clean.first.at(a.id) > after; })) {
      continue;
    }
    const bool answers = measure == Measure::kInstance ? LessOf(got.answers[k], clean.answers[k])
                                                       : got.answers[k] == clean.answers[k];
    if (!answers) {
      return "frame " + std::to_string(k) + " answered " + Describe(got.answers[k]) +
             " instead of " + Describe(clean.answers[k]) + "\n";
    }
    const std::vector<std::string> mine = FreshAttrs(got, k, after);
    const std::vector<std::string> theirs = FreshAttrs(clean, k, after);
    if (measure == Measure::kSame ? mine != theirs : !Within(mine, theirs)) {
      return "frame " + std::to_string(k) + " brought other attributes than in the clean replay\n";
    }
  }
  return "";
}

// What one replay with failures came to.
struct Verdict {
  std::string call; // the call that met the first failure
  bool reported = false;
  long restarts = 0;
  std::string problems;
};

Verdict Judge(const Replay &clean, const Replay &got, const Plan &plan) {
  Verdict v;
  v.restarts = got.restarts;
  if (got.live_local != 0 || got.live_shared != 0) {
    v.problems += "blocks left after kest_close: " + std::to_string(got.live_local) + " local, " +
                  std::to_string(got.live_shared) + " shared\n";
  }
  const long at = CallOf(clean, plan.first);
  if (at < 0 || static_cast<size_t>(at) >= got.calls.size()) {
    v.problems += "the failure fell in no call\n";
    return v;
  }
  const Call &call = got.calls[static_cast<size_t>(at)];
  v.call = call.name;
  v.reported = Failed(call);
  if (!got.started && plan.restart) {
    v.problems += "no instance could be started again\n";
  }
  // Failures while the instance and its listeners are set up may leave it
  // without what they took, as the host interface allows: a plug-in, a
  // name, a listener on the thread. Then later calls may fail for want of
  // it, in the documented ways, and replies are compared for less.
  const bool setup = call.frame == kSetup && got.restarts == 0;
  // The calls that met planned failures either went on as if nothing had
  // happened or failed as documented. A failed start was taken down and done
  // again, so the calls after it do not line up with the clean replay's: the
  // outcome below judges them. Otherwise every call after the failures
  // answers as in the clean replay.
  const long last = got.end_call > at ? got.end_call : at;
  for (size_t i = static_cast<size_t>(at); i < got.calls.size(); ++i) {
    const Call &c = got.calls[i];
    if (c.name == "kest_fini" || c.name == "kest_close") {
      // A kest_init that failed before the thread had a context leaves
      // kest_fini nothing to end.
      const bool no_context =
          c.name == "kest_fini" && i > 0 && got.calls[i - 1].name == "kest_init" &&
          got.calls[i - 1].result != 0 && (c.error == KEST_ENOMEM || c.error == KEST_EINVAL);
      if (c.result != 0 && !no_context) {
        v.problems += c.name + " failed with kest_errno " + std::to_string(c.error) + "\n";
      }
    } else if (static_cast<long>(i) <= last ||
               (setup && i < clean.calls.size() && !Same(c, clean.calls[i]))) {
      if (Failed(c) && !DocumentedFailure(c)) {
        v.problems += c.name + " of frame " + std::to_string(c.frame) + " answered " +
                      std::to_string(c.result) + " with kest_errno " + std::to_string(c.error) +
                      "\n";
      }
    } else if (got.restarts == 0 && i < clean.calls.size() && !Same(c, clean.calls[i])) {
      v.problems += c.name + " of frame " + std::to_string(c.frame) + " answered " +
                    std::to_string(c.result) + " with kest_errno " + std::to_string(c.error) +
                    " after the failure\n";
      break;
    }
  }
  if (!got.started) {
    return v;
  }
  // After a restart the whole capture must come out as in the clean replay;
  // otherwise the connections that start after the frame of the last failure.
  long after = kSetup;
  Measure measure = Measure::kSame;
  if (got.restarts == 0) {
    after = got.calls[static_cast<size_t>(last)].frame;
    if (setup) {
      // A plug-in that cannot attach its inspectors in LinkThread, which
      // has no way to fail, runs without them on the thread.
      const std::string &end = got.calls[static_cast<size_t>(last)].name;
      const bool starting = call.name == "kest_open" || call.name == "kest_init" ||
                            end == "kest_open" || end == "kest_init";
      measure = starting ? Measure::kInstance : Measure::kListeners;
    }
  }
  if (after < static_cast<long>(clean.answers.size())) {
    v.problems += Compare(clean, got, after, measure);
  }
  return v;
}

// ---------------------------------------------------------------------------
// Forking at the Nth allocation

// The verdicts of a sweep: failures the calls reported through their result
// or kest_errno, failures the library or a decoder absorbed (counted, dropped,
// done without), and the problems found.
struct Figures {
  long tried = 0;
  long reported = 0;
  long absorbed = 0;
  long restarts = 0;
  std::vector<std::string> problems;

  void Add(long n, const Verdict &v) {
    ++tried;
    restarts += v.restarts;
    ++(v.reported ? reported : absorbed);
    if (!v.problems.empty()) {
      problems.push_back("N = " + std::to_string(n) + " (in " + v.call + "):\n" + v.problems);
    }
  }
};

struct Forking {
  const Replay *clean = nullptr;
  std::vector<long> at; // the allocations to fork at, ascending
  size_t next = 0;
  long count = 1; // allocations a child fails
  // Every restart_stride-th child starts a failed instance again.
  size_t restart_stride = 1;
  Figures *figures = nullptr;
  int pipe = -1; // the child's end
  void *(*malloc_local)(size_t) = nullptr;
  void *(*malloc_shared)(size_t) = nullptr;
};
Forking g_fork;

// In the child: judges the replay, reports and leaves without running the
// parent's exit handlers or flushing its buffers.
void Finish(const Replay &replay) {
  const Verdict v = Judge(*g_fork.clean, replay, g_run.plan);
  const std::string text = (v.call.empty() ? "-" : v.call) + " " + std::to_string(v.reported) +
                           " " + std::to_string(v.restarts) + "\n" + v.problems;
  for (size_t done = 0, put = 0; done < text.size(); done += put) {
    const ssize_t wrote = write(g_fork.pipe, text.data() + done, text.size() - done);
    if (wrote <= 0) {
      break;
    }
    put = static_cast<size_t>(wrote);
  }
  _exit(0);
}

// The time a forked replay has, far above what one takes.
constexpr unsigned kChildSeconds = 60;

// Forks before allocation n; the child fails it and goes on, the parent
// waits for the verdict and goes on with the allocation.
void Fork(long n, bool restart) {
  int fds[2];
  if (pipe(fds) != 0) {
    return;
  }
  std::fflush(stdout);
  std::fflush(stderr);
  const pid_t pid = fork();
  if (pid == 0) {
    // A replay that hangs is killed and counts as failed.
    alarm(kChildSeconds);
    close(fds[0]);
    g_in_child = true;
    g_fork.pipe = fds[1];
    g_run.plan = Plan{n, g_fork.count, restart};
    if (g_fork.count == 1) {
      kest_test::FailNthAllocation(1);
    } else {
      kest_test::FailFromAllocation(1);
    }
    g_run.armed = true;
    return;
  }
  close(fds[1]);
  std::string text;
  char buffer[4096];
  ssize_t got;
  while ((got = read(fds[0], buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<size_t>(got));
  }
  close(fds[0]);
  int status = 0;
  if (pid > 0) {
    waitpid(pid, &status, 0);
  }
  Verdict v;
  char call[64] = "";
  int reported = 0;
  const size_t line = text.find('\n');
  if (pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 && line != std::string::npos &&
      std::sscanf(text.c_str(), "%63s %d %ld", call, &reported, &v.restarts) == 3) {
    v.call = call;
    v.reported = reported != 0;
    v.problems = text.substr(line + 1);
  } else {
    const long at = CallOf(*g_fork.clean, n);
    v.call = at < 0 ? "?" : g_fork.clean->calls[static_cast<size_t>(at)].name;
    v.problems = pid < 0 ? "no child process\n"
                 : WIFSIGNALED(status)
                     ? "the replay died of signal " + std::to_string(WTERMSIG(status)) + "\n"
                     : "the replay ended with status " + std::to_string(WEXITSTATUS(status)) + "\n";
  }
  g_fork.figures->Add(n, v);
}

int CountObject(dl_phdr_info *, size_t, void *count) {
  ++*static_cast<int *>(count);
  return 0;
}

// The shared objects loaded in the process.
int LoadedObjects() {
  int count = 0;
  dl_iterate_phdr(CountObject, &count);
  return count;
}

// Where the plug-in files are loaded in a replay: the allocations made before
// the last object came in. A failure there costs its replay a reload of
// plug-ins, which is most of a replay under the sanitizers.
struct LoadWatch {
  bool on = false;
  int objects = 0;
  long loaded = 0;
};
LoadWatch g_loads;

void *Allocate(Heap heap, size_t size) {
  if (g_loads.on) {
    const int objects = LoadedObjects();
    if (objects > g_loads.objects) {
      g_loads.objects = objects;
      g_loads.loaded = AllocationCount();
    }
  }
  if (!g_in_child && g_fork.next < g_fork.at.size()) {
    const long n = AllocationCount() + 1;
    while (g_fork.next < g_fork.at.size() && g_fork.at[g_fork.next] < n) {
      ++g_fork.next;
    }
    if (g_fork.next < g_fork.at.size() && g_fork.at[g_fork.next] == n) {
      Fork(n, g_fork.next % g_fork.restart_stride == 0);
      ++g_fork.next;
    }
  }
  return heap == Heap::Local ? g_fork.malloc_local(size) : g_fork.malloc_shared(size);
}
void *MallocLocal(size_t size) {
  return Allocate(Heap::Local, size);
}
void *MallocShared(size_t size) {
  return Allocate(Heap::Shared, size);
}

// The test hooks, with the counters reset and no failure planned, under
// allocation hooks that fork as g_fork says.
void Hooks() {
  kest_test::InstallHooks();
  // The decoders name TCP and UDP themselves.
  kest_test::SetTransportRegistration(false);
  g_run = Running{};
  g_fork.malloc_local = kest_malloc_local;
  g_fork.malloc_shared = kest_malloc_shared;
  kest_malloc_local = MallocLocal;
  kest_malloc_shared = MallocShared;
}

// ---------------------------------------------------------------------------
// The sweeps

// Where a failure makes its replay load the plug-in files again, an N costs
// a tenth of a second or more under AddressSanitizer: the failures before
// the last load, and the restarts after a failed start. There the test
// command tries every 16th of the first and makes every 8th of the second
// (the others end with the failed instance's teardown); scripts/fault_sweep.sh
// and a build without the sanitizer do all.
#if defined(__SANITIZE_ADDRESS__)
constexpr long kLoadStride = 16;
constexpr long kRestartStride = 8;
#else
constexpr long kLoadStride = 1;
constexpr long kRestartStride = 1;
#endif

struct SweepInput {
  std::string capture;
  std::string plugins = KEST_SWEEP_PLUGIN_DIR;
  long stride = 1;
  long burst = 0;
  long loaded = 0; // allocations before the last plug-in file was loaded
  long load_stride = 1;
  long restart_stride = 1;
  std::string error; // why there are no frames
  std::vector<Frame> frames;
  Replay clean;
};

long EnvNumber(const char *name, long fallback) {
  const char *text = std::getenv(name);
  return text != nullptr && *text != '\0' ? std::strtol(text, nullptr, 10) : fallback;
}

// The capture and its clean replay, made once per program.
const SweepInput &Input() {
  static const SweepInput *input = [] {
    auto *s = new SweepInput;
    const char *capture = std::getenv("KEST_SWEEP_CAPTURE");
    s->capture = capture != nullptr && *capture != '\0' ? capture : KEST_SWEEP_DEFAULT_CAPTURE;
    s->stride = std::max(1L, EnvNumber("KEST_SWEEP_STRIDE", 1));
    s->burst = EnvNumber("KEST_SWEEP_BURST", 0);
    s->load_stride = std::max(1L, EnvNumber("KEST_SWEEP_LOAD_STRIDE", kLoadStride));
    s->restart_stride = std::max(1L, EnvNumber("KEST_SWEEP_RESTART_STRIDE", kRestartStride));
    s->frames = ReadCapture(s->capture, s->error);
    if (!s->frames.empty()) {
      Hooks();
      g_loads = LoadWatch{true, LoadedObjects(), 0};
      s->clean = ReplayCapture(s->frames, s->plugins);
      s->loaded = g_loads.loaded;
      g_loads = LoadWatch{};
    }
    return s;
  }();
  return *input;
}

class FaultSweep : public ::testing::TestWithParam<int> {
protected:
  static constexpr int kShards = 4;

  void SetUp() override {
    if (Input().frames.empty()) {
      GTEST_SKIP() << "no frames in " << Input().capture << ": " << Input().error;
    }
  }

  // Sweeps this shard's N, each failing `count` allocations: every
  // stride-th allocation of the clean replay, dealt out to the shards in
  // turn, and of those made before the last plug-in file came in only every
  // load_stride-th.
  void Sweep(long count, long stride, long load_stride, long restart_stride, const char *what) {
    const SweepInput &s = Input();
    ASSERT_TRUE(s.clean.started);
    const auto start = std::chrono::steady_clock::now();
    Figures figures;
    g_fork = Forking{};
    g_fork.clean = &s.clean;
    g_fork.count = count;
    g_fork.restart_stride = static_cast<size_t>(restart_stride);
    g_fork.figures = &figures;
    long dealt = 0;
    for (long n = 1; n <= s.clean.allocations; n += stride) {
      if ((n > s.loaded || (n - 1) % load_stride == 0) && dealt++ % kShards == GetParam()) {
        g_fork.at.push_back(n);
      }
    }
    if (const long only = EnvNumber("KEST_SWEEP_ONLY", 0); only > 0) {
      g_fork.at.assign(GetParam() == 0 ? 1 : 0, only);
    }
    const long planned = static_cast<long>(g_fork.at.size());
    Hooks();
    const Replay driver = ReplayCapture(s.frames, s.plugins);
    g_fork = Forking{};
    kest_test::InstallHooks();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%s, shard %d of %d: %s, %zu frames, %ld allocations in the clean replay (%ld "
                "before the last plug-in load)\n",
                what, GetParam() + 1, kShards, s.capture.c_str(), s.frames.size(),
                s.clean.allocations, s.loaded);
    std::printf("figures: tried=%ld reported=%ld absorbed=%ld restarts=%ld problems=%zu "
                "seconds=%.1f\n",
                figures.tried, figures.reported, figures.absorbed, figures.restarts,
                figures.problems.size(), seconds);
    // The driver itself ran clean, and every N of the shard was tried.
    EXPECT_EQ(driver.allocations, s.clean.allocations);
    EXPECT_EQ(figures.tried, planned);
    for (size_t i = 0; i < figures.problems.size() && i < 10; ++i) {
      ADD_FAILURE() << what << ": " << figures.problems[i];
    }
    EXPECT_EQ(figures.problems.size(), 0u);
  }
};

// The clean replay itself: every frame answered, every connection reported
// expired, every block back, and the same allocations twice over.
TEST(FaultSweepClean, ReplaysTheCaptureAndGivesEveryBlockBack) {
  const SweepInput &s = Input();
  if (s.frames.empty()) {
    GTEST_SKIP() << "no frames in " << s.capture << ": " << s.error;
  }
  const Replay &clean = s.clean;
  std::printf("clean replay of %s: %zu frames, %zu connections, %ld allocations\n",
              s.capture.c_str(), s.frames.size(), clean.first.size(), clean.allocations);
  ASSERT_TRUE(clean.started);
  EXPECT_EQ(clean.restarts, 0);
  EXPECT_EQ(clean.live_local, 0);
  EXPECT_EQ(clean.live_shared, 0);
  for (const Call &call : clean.calls) {
    if (call.name != "kest_open" && call.name != "kest_attr_key_get") {
      EXPECT_EQ(call.result, 0) << call.name << " of frame " << call.frame;
    }
    EXPECT_EQ(call.error, 0) << call.name << " of frame " << call.frame;
  }
  size_t answered = 0;
  for (const auto &answers : clean.answers) {
    answered += !answers.empty();
  }
  EXPECT_EQ(answered, s.frames.size());
  EXPECT_TRUE(clean.callback_errors.empty());
  EXPECT_EQ(clean.expired, static_cast<long>(clean.first.size()));
  Hooks();
  EXPECT_EQ(ReplayCapture(s.frames, s.plugins).allocations, clean.allocations);
}

TEST_P(FaultSweep, EveryAllocationFailsOnce) {
  const SweepInput &s = Input();
  Sweep(1, s.stride, s.load_stride, s.restart_stride, "one failure");
}

// Bursts as long as the stride between their starts, so that every
// allocation of the clean replay lies in one: 1/64 of the replay each by
// default.
TEST_P(FaultSweep, BurstsOfFailuresEnd) {
  const SweepInput &s = Input();
  const long burst = std::max(2L, s.burst > 0 ? s.burst : s.clean.allocations / 64);
  Sweep(burst, s.burst > 0 ? s.stride : burst, 1, 1, "bursts of failures");
}

INSTANTIATE_TEST_SUITE_P(Shards, FaultSweep, ::testing::Range(0, 4));

} // namespace
