#include "Worker.h"

#include <algorithm>
#include <cstring>

namespace kestcap {

namespace {

// The worker of the calling thread: attribute listeners are instance-wide
// functions, and during kest_idle and kest_fini no user word of ours runs.
thread_local Worker *t_worker = nullptr;

} // namespace

bool Worker::Start(std::string &error) {
  if (m_setup.prepare_thread != nullptr) {
    m_setup.prepare_thread();
  }
  m_h = m_setup.handle;
  if (kest_init(m_h) != 0) {
    // The missing transports were ruled out before: a plug-in refused the
    // thread, or memory ran out.
    error = "no classifying thread started (error " + std::to_string(kest_errno) +
            "): a plug-in failed to start on it (the library's messages name it; "
            "kestcap --list-plugins lists the folder)";
    return false;
  }
  m_started = true;
  t_worker = this;
  if (kest_attr_callback_set(m_h, "conn.expired", OnAttr) != 0) {
    error = "no connection expiry reports (error " + std::to_string(kest_errno) + ")";
    return false;
  }
  for (const std::string &name : m_setup.attrs) {
    if (kest_attr_callback_set(m_h, name.c_str(), OnAttr) != 0) {
      m_unknown.push_back(name);
    }
  }
  // Listeners and identifiers reach the thread in its idle pass.
  kest_idle(m_h);
  m_expired_key = kest_attr_key_get(m_h, "conn.expired");
  for (const std::string &name : m_setup.attrs) {
    const int key = kest_attr_key_get(m_h, name.c_str());
    if (key > 0) {
      if (m_key_names.size() <= static_cast<size_t>(key)) {
        m_key_names.resize(static_cast<size_t>(key) + 1);
        m_partial.resize(static_cast<size_t>(key) + 1);
      }
      m_key_names[static_cast<size_t>(key)] = name;
    }
  }
  return true;
}

void Worker::Handle(const Frame &frame) {
  ++m_totals.packets;
  m_seen_packets.store(m_totals.packets, std::memory_order_relaxed);
  m_seen_open.store(m_records.size(), std::memory_order_relaxed);
  if (frame.form == 0 || frame.length == 0 || frame.length > 0xFFFF) {
    // Nothing the library takes: not IP behind a stripped link header, or
    // larger than a packet can be.
    ++m_totals.not_classified;
    return;
  }
  m_now.ts_us = frame.ts_us;
  m_now.counted = 0;
  m_now.have_facts = false;
  if (m_setup.capture_clock) {
    const uint64_t ms = frame.ts_us / 1000;
    if (ms != m_clock_ms) {
      kest_clock_set(m_h, ms);
      m_clock_ms = ms;
    }
  }
  kest_classify(m_h, frame.form, frame.data, static_cast<uint16_t>(frame.length), nullptr, 0,
                OnResult, this);
  if (m_now.counted == 0) {
    m_now.have_facts = false; // read early by a listener, perhaps
  }
  const kest_packet_facts_t &facts = Facts();
  if (m_setup.tunnels && facts.tunnel != KEST_TUNNEL_NONE) {
    CountTunnel(facts);
  }
  if (m_now.counted != 0) {
    ++m_totals.classified;
    // The fragments before the one that completed its datagram were not
    // classified when they came; they count with the datagram's connection.
    const uint64_t earlier =
        facts.fragments > 1 ? std::min<uint64_t>(facts.fragments - 1, m_totals.not_classified) : 0;
    if (earlier != 0 && facts.conn_id == m_now.counted) {
      Record(m_now.counted).packets[facts.direction] += earlier;
      m_totals.classified += earlier;
      m_totals.not_classified -= earlier;
    }
  } else if (facts.status == KEST_PACKET_MALFORMED) {
    ++m_totals.malformed;
  } else {
    ++m_totals.not_classified;
  }
}

const kest_packet_facts_t &Worker::Facts() {
  if (!m_now.have_facts) {
    if (kest_packet_facts_get(m_h, &m_now.facts) != 0) {
      m_now.facts = kest_packet_facts_t{};
    }
    m_now.have_facts = true;
  }
  return m_now.facts;
}

void Worker::Idle() {
  kest_idle(m_h);
}

void Worker::Finish() {
  if (!m_started) {
    return;
  }
  t_worker = this;
  kest_fini(m_h);
  m_started = false;
  // Whatever the library did not report (a thread that failed half-way)
  // is written out as well.
  while (!m_records.empty()) {
    Expired(m_records.begin()->first);
  }
  WriteTunnels();
}

void Worker::CountTunnel(const kest_packet_facts_t &facts) {
  const char *name = facts.tunnel == KEST_TUNNEL_TEREDO  ? "Teredo"
                     : facts.tunnel == KEST_TUNNEL_GTP   ? "GTP"
                     : facts.tunnel == KEST_TUNNEL_VXLAN ? "VXLAN"
                                                         : nullptr;
  if (name == nullptr || facts.outer_protocol != 17) {
    return;
  }
  // One flow for both directions: the key puts the lower end point first.
  const kest_endpoint_t &src = facts.outer_src;
  const kest_endpoint_t &dst = facts.outer_dst;
  const auto pack = [](const kest_endpoint_t &end, char *out) {
    out[0] = static_cast<char>(end.family);
    std::memcpy(out + 1, &end.port, sizeof end.port);
    std::memcpy(out + 1 + sizeof end.port, end.address, sizeof end.address);
  };
  char from[kEndKey];
  char to[kEndKey];
  pack(src, from);
  pack(dst, to);
  const bool ordered = std::memcmp(from, to, kEndKey) < 0;
  TunnelKey key;
  std::memcpy(key.data(), ordered ? from : to, kEndKey);
  std::memcpy(key.data() + kEndKey, ordered ? to : from, kEndKey);
  auto it = m_tunnel_index.find(key);
  if (it == m_tunnel_index.end()) {
    if (m_tunnel_flows.size() >= kMaxTunnelFlows) {
      return;
    }
    it = m_tunnel_index.emplace(key, m_tunnel_flows.size()).first;
    TunnelFlow &made = m_tunnel_flows.emplace_back();
    made.name = name;
    FlowRecord &record = made.record;
    record.first_us = record.last_us = m_now.ts_us;
    record.protocol = 17;
    if (m_setup.features) {
      record.features = std::make_shared<FlowFeatures>();
    }
    // The sender of the first packet seen is the client.
    record.client = src;
    record.server = dst;
  }
  FlowRecord &record = m_tunnel_flows[it->second].record;
  const int side = src.family == record.client.family && src.port == record.client.port &&
                           std::memcmp(src.address, record.client.address, 16) == 0
                       ? 0
                       : 1;
  ++record.packets[side];
  record.bytes[side] += facts.outer_payload_length;
  if (record.features != nullptr) {
    record.features->Add(side, facts.outer_ip_length, m_now.ts_us, record.first_us, 0);
  }
  if (m_now.ts_us > record.last_us) {
    record.last_us = m_now.ts_us;
  }
}

void Worker::WriteTunnels() {
  for (const TunnelFlow &tunnel : m_tunnel_flows) {
    const FlowRecord &record = tunnel.record;
    ++m_totals.connections;
    AppRow &row = m_apps[tunnel.name];
    ++row.connections;
    row.packets += record.packets[0] + record.packets[1];
    row.bytes += record.bytes[0] + record.bytes[1];
    if (m_setup.sink != nullptr) {
      m_setup.sink->Finished(record, tunnel.name, {"UDP", tunnel.name});
    }
    if (m_setup.ipfix != nullptr) {
      m_setup.ipfix->Add(record, tunnel.name, {"UDP", tunnel.name}, nullptr);
    }
  }
  m_tunnel_flows.clear();
  m_tunnel_index.clear();
}

int Worker::OnResult(kest_handle_t, kest_result_t *result, int, kest_conn_id_t id, void *user,
                     int) {
  if (id != 0) {
    static_cast<Worker *>(user)->Result(result, id);
  }
  return 0;
}

int Worker::OnAttr(kest_handle_t, kest_conn_id_t id, int key, int length, const void *value,
                   int packed, void *) {
  Worker *worker = t_worker;
  if (worker == nullptr || length < 0) {
    return 0;
  }
  if (key == worker->m_expired_key && length == 8) {
    kest_conn_id_t dying;
    std::memcpy(&dying, value, sizeof dying);
    worker->Expired(dying);
    return 0;
  }
  worker->Attr(id, key, static_cast<const char *>(value), length, (packed & 0xFFFF) != 0);
  return 0;
}

FlowRecord &Worker::Record(kest_conn_id_t id) {
  if (id == m_cached_id && m_cached != nullptr) {
    return *m_cached;
  }
  auto [it, made] = m_records.try_emplace(id);
  FlowRecord &record = it->second;
  if (made) {
    ++m_totals.connections;
    record.first_us = record.last_us = m_now.ts_us;
    const kest_packet_facts_t &facts = Facts();
    record.protocol = facts.protocol;
    if (m_setup.features) {
      record.features = std::make_shared<FlowFeatures>();
    }
    if (facts.conn_id == id) {
      // The packet's own connection: its end points, client first, in the
      // family of the packet's IP header.
      record.client = facts.client;
      record.server = facts.server;
    } else {
      kest_endpoint_get(m_h, id, &record.client, &record.server);
    }
  }
  m_cached_id = id;
  m_cached = &record;
  return record;
}

void Worker::Result(kest_result_t *result, kest_conn_id_t id) {
  if (m_now.counted == 0) {
    // The facts are whole once the packet's result comes; a listener may
    // have read them before the packet reached its connection.
    m_now.have_facts = false;
  }
  FlowRecord &record = Record(id);
  // The stack, bottom first, as it stands now. Protocols only ever go on
  // top, so while the top is the one recorded, so is the rest.
  kest_result_t cursor = *result;
  kest_proto_top(m_h, &cursor);
  const int top = kest_proto_valid(m_h, &cursor) != 0 ? kest_proto_get_index(m_h, &cursor) : -1;
  if (record.depth == 0 || record.stack[record.depth - 1] != top) {
    cursor = *result;
    int depth = 0;
    for (kest_proto_first(m_h, &cursor);
         kest_proto_valid(m_h, &cursor) != 0 && depth < FlowRecord::kMaxStack;
         kest_proto_next(m_h, &cursor)) {
      record.stack[depth++] = static_cast<uint16_t>(kest_proto_get_index(m_h, &cursor));
    }
    record.depth = static_cast<uint8_t>(depth);
  }
  if (m_now.counted == id) {
    return; // a deferred result of the same packet
  }
  m_now.counted = id;
  const kest_packet_facts_t &facts = Facts();
  // A deferred result of another connection: the packet is not its client's.
  const int side = facts.conn_id == id ? facts.direction : 1;
  const uint64_t bytes = facts.payload_length;
  if (facts.conn_id == id && record.packets[0] == 0 && record.packets[1] == 0) {
    // A listener may have made the record before its connection was known.
    record.client = facts.client;
    record.server = facts.server;
  }
  ++record.packets[side];
  record.bytes[side] += bytes;
  if (record.features != nullptr && facts.ip_length != 0) {
    record.features->Add(side, facts.ip_length, m_now.ts_us, record.first_us, facts.tcp_flags);
  }
  // Captures merged from several taps go back in time now and then: the
  // connection lasts until its latest packet, never less than nothing.
  if (m_now.ts_us > record.last_us) {
    record.last_us = m_now.ts_us;
  }
}

void Worker::Attr(kest_conn_id_t id, int key, const char *value, int length, bool more) {
  if (key <= 0 || static_cast<size_t>(key) >= m_key_names.size() || id == 0 ||
      m_key_names[static_cast<size_t>(key)].empty()) {
    return;
  }
  std::string &partial = m_partial[static_cast<size_t>(key)];
  if (more) {
    partial.append(value, static_cast<size_t>(length));
    return;
  }
  if (partial.empty()) {
    Record(id).AddAttr(m_key_names[static_cast<size_t>(key)],
                       std::string(value, static_cast<size_t>(length)));
    return;
  }
  partial.append(value, static_cast<size_t>(length));
  Record(id).AddAttr(m_key_names[static_cast<size_t>(key)], std::move(partial));
  partial.clear();
}

const std::string &Worker::ProtoName(int index) {
  auto it = m_proto_names.find(index);
  if (it != m_proto_names.end()) {
    return it->second;
  }
  char name[64];
  const char *got = kest_proto_get_name(m_h, index, name, sizeof name);
  return m_proto_names[index] = got != nullptr ? got : std::to_string(index);
}

void Worker::Expired(kest_conn_id_t id) {
  auto it = m_records.find(id);
  if (it == m_records.end()) {
    return;
  }
  const FlowRecord &record = it->second;
  // The application is the top of the stack, unless only the transport
  // was found. ICMP, IGMP, GRE, ESP and SCTP flows are named by their
  // protocol; the other numbers ("IP") are not known any better.
  static const std::string kUnknown = "unknown";
  const std::string *app = &kUnknown;
  if (record.depth > 0) {
    const std::string &top = ProtoName(record.stack[record.depth - 1]);
    if (top != "TCP" && top != "UDP" && top != "IP") {
      app = &top;
    }
  }
  // The table's rows are services where one is known ("YouTube" beside
  // "TLS"), applications otherwise.
  const std::string *service = record.LastAttr(kServiceName);
  AppRow &row = m_apps[service != nullptr ? *service : *app];
  ++row.connections;
  row.packets += record.packets[0] + record.packets[1];
  row.bytes += record.bytes[0] + record.bytes[1];
  if (m_setup.sink != nullptr || m_setup.ipfix != nullptr) {
    // The whole stack by name only for the outputs that print it, not for
    // the table.
    std::vector<std::string> stack;
    for (int i = 0; i < record.depth; ++i) {
      stack.push_back(ProtoName(record.stack[i]));
    }
    if (m_setup.sink != nullptr) {
      m_setup.sink->Finished(record, *app, stack);
    }
    if (m_setup.ipfix != nullptr) {
      m_setup.ipfix->Add(record, *app, stack, service);
    }
  }
  if (m_cached == &it->second) {
    m_cached = nullptr;
    m_cached_id = 0;
  }
  m_records.erase(it);
}

} // namespace kestcap
