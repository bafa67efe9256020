// One classifying thread of kestcap: a kest thread of the shared instance
// (kest_init on the thread that runs it), with its own connection records.
// It hands each frame to kest_classify, follows the results to the
// connection records, listens to the attributes asked for, and writes a
// connection out when the library reports it expired (at its time-out, its
// end, or at kest_fini).
#ifndef KESTCAP_WORKER_H
#define KESTCAP_WORKER_H

#include "CaptureInput.h"
#include "FlowLog.h"
#include "FlowSink.h"
#include "IpfixExporter.h"

#include <array>
#include <atomic>
#include <kest.h>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kestcap {

struct WorkerSetup {
  kest_handle_t handle = -1;
  // Attribute names to listen to.
  std::vector<std::string> attrs;
  // JSON lines go here; null for the table only.
  LineOutput *json = nullptr;
  // Finished connections also go to a collector; null for none.
  IpfixExporter *ipfix = nullptr;
  // Finished connections go here; null for the table only.
  FlowSink *sink = nullptr;
  // Each connection keeps its flow features.
  bool features = false;
  // The clock follows the packets' time stamps (captures from files).
  bool capture_clock = true;
  // Tunnels are opened (the library's default policy says so).
  bool tunnels = true;
  // Called first on each worker's own thread, before kest_init; null for
  // nothing (kestcap tunes the thread's heap there).
  void (*prepare_thread)() = nullptr;
};

class Worker {
public:
  explicit Worker(const WorkerSetup &setup) : m_setup(setup) {}
  Worker(const Worker &) = delete;
  Worker &operator=(const Worker &) = delete;

  // On the worker's own thread, before its first frame: kest_init and the
  // listeners. False with `error` set when the library refuses.
  bool Start(std::string &error);
  void Handle(const Frame &frame);
  // Lets the library age connections while no packets come.
  void Idle();
  // Ends the thread's kest context: the connections still open are
  // reported expired and written out.
  void Finish();

  // Attribute names the library knew no plug-in for.
  const std::vector<std::string> &Unknown() const { return m_unknown; }
  const Totals &Counts() const { return m_totals; }
  const AppTable &Apps() const { return m_apps; }
  // For statistics read by another thread: packets handed to this worker
  // and connections it holds open, as of its last packet.
  uint64_t PacketsSeen() const { return m_seen_packets.load(std::memory_order_relaxed); }
  uint64_t OpenSeen() const { return m_seen_open.load(std::memory_order_relaxed); }

private:
  static int OnResult(kest_handle_t handle, kest_result_t *result, int code, kest_conn_id_t id,
                      void *user, int error);
  static int OnAttr(kest_handle_t handle, kest_conn_id_t id, int key, int length, const void *value,
                    int packed, void *user);

  FlowRecord &Record(kest_conn_id_t id);
  void Result(kest_result_t *result, kest_conn_id_t id);
  void Attr(kest_conn_id_t id, int key, const char *value, int length, bool more);
  void Expired(kest_conn_id_t id);
  const std::string &ProtoName(int index);
  // The library's facts of the frame at hand, read once per frame.
  const kest_packet_facts_t &Facts();
  WorkerSetup m_setup;
  kest_handle_t m_h = -1;
  bool m_started = false;
  std::unordered_map<kest_conn_id_t, FlowRecord> m_records;
  kest_conn_id_t m_cached_id = 0;
  FlowRecord *m_cached = nullptr;
  int m_expired_key = 0;
  // By attribute key (small numbers): the name ("" for keys not listened
  // to) and the pieces of a value still coming.
  std::vector<std::string> m_key_names;
  std::vector<std::string> m_partial;
  std::unordered_map<int, std::string> m_proto_names;
  std::vector<std::string> m_unknown;
  uint64_t m_clock_ms = ~0ull;

  // The frame being classified.
  struct Current {
    uint64_t ts_us = 0;
    kest_packet_facts_t facts{};
    bool have_facts = false;
    kest_conn_id_t counted = 0;
  } m_now;

  // The outer UDP flows of the tunnels opened (GTP-U, VXLAN, Teredo). The
  // library classifies only what they carry, so kestcap keeps these itself
  // and lists each beside its inner flows, as conn logs do; they are
  // written when the worker finishes, in order of their first packet.
  // Bounded: beyond kMaxTunnelFlows, further tunnels are not listed.
  struct TunnelFlow {
    FlowRecord record;
    const char *name;
  };
  static constexpr size_t kMaxTunnelFlows = 4096;
  // Both end points, the lower first: a fixed key, so that a tunnel's
  // packets look their flow up without a heap allocation each.
  // Each end point is its family, port and address, packed.
  static constexpr size_t kEndKey = 1 + sizeof(uint16_t) + 16;
  using TunnelKey = std::array<char, 2 * kEndKey>;
  struct TunnelKeyHash {
    size_t operator()(const TunnelKey &key) const {
      return std::hash<std::string_view>()(std::string_view(key.data(), key.size()));
    }
  };
  std::unordered_map<TunnelKey, size_t, TunnelKeyHash> m_tunnel_index;
  std::vector<TunnelFlow> m_tunnel_flows;
  void CountTunnel(const kest_packet_facts_t &facts);
  void WriteTunnels();

  Totals m_totals;
  AppTable m_apps;
  std::atomic<uint64_t> m_seen_packets{0};
  std::atomic<uint64_t> m_seen_open{0};
};

} // namespace kestcap

#endif
