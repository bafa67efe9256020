#include "Worker.h"

#include <arpa/inet.h>
#include <cstring>
#include <tuple>

namespace kestcap {

namespace {

// The worker of the calling thread: attribute listeners are instance-wide
// functions, and during kest_idle and kest_fini no user word of ours runs.
thread_local Worker *t_worker = nullptr;

constexpr int kMaxTunnels = 4;

} // namespace

bool Worker::Start(std::string &error) {
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
  using kest_decoders::ParseResult;
  m_now.ts_us = frame.ts_us;
  m_now.counted = 0;
  m_now.parse = kest_decoders::ParsePacket(static_cast<kest_decoders::PacketForm>(frame.form),
                                           frame.data, frame.length, m_now.packet);
  m_now.ip = frame.data + m_now.packet.l3_offset;
  // The innermost packet decides the direction, as the library classifies
  // that one.
  for (int depth = 0; m_setup.tunnels && m_now.parse == ParseResult::kOk && depth < kMaxTunnels;
       ++depth) {
    kest_decoders::InnerPacket inner;
    kest_decoders::ParsedPacket q;
    if (!kest_decoders::Decapsulate(m_now.packet, inner)) {
      break;
    }
    if (depth == 0) {
      CountTunnel(m_now.packet, inner.kind);
    }
    const ParseResult r = kest_decoders::ParsePacket(inner.form, inner.data, inner.length, q);
    if (r != ParseResult::kOk && r != ParseResult::kFragment) {
      break;
    }
    m_now.packet = q;
    m_now.parse = r;
    m_now.ip = inner.data + q.l3_offset;
  }
  if (m_setup.capture_clock) {
    const uint64_t ms = frame.ts_us / 1000;
    if (ms != m_clock_ms) {
      kest_clock_set(m_h, ms);
      m_clock_ms = ms;
    }
  }
  kest_classify(m_h, frame.form, frame.data, static_cast<uint16_t>(frame.length), nullptr, 0,
                OnResult, this);
  if (m_now.parse == ParseResult::kFragment) {
    CountFragment();
  }
  if (m_now.counted != 0) {
    ++m_totals.classified;
  } else if (m_now.parse == ParseResult::kMalformed) {
    ++m_totals.malformed;
  } else {
    ++m_totals.not_classified;
  }
}

void Worker::CountFragment() {
  const kest_decoders::ParsedPacket &p = m_now.packet;
  std::string key(reinterpret_cast<const char *>(&p.src), sizeof p.src);
  key.append(reinterpret_cast<const char *>(&p.dst), sizeof p.dst);
  key.append(reinterpret_cast<const char *>(&p.frag_id), sizeof p.frag_id);
  key.push_back(static_cast<char>(p.protocol));
  if (m_now.counted == 0) {
    if (m_waiting.size() < kMaxWaiting || m_waiting.count(key) != 0) {
      ++m_waiting[key];
    }
    return;
  }
  auto it = m_waiting.find(key);
  if (it == m_waiting.end()) {
    return;
  }
  FlowRecord &record = Record(m_now.counted);
  record.packets[FromClient(record) ? 0 : 1] += it->second;
  m_totals.classified += it->second;
  m_totals.not_classified -= it->second;
  m_waiting.erase(it);
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

void Worker::CountTunnel(const kest_decoders::ParsedPacket &outer, kest_decoders::TunnelKind kind) {
  using kest_decoders::TunnelKind;
  const char *name = kind == TunnelKind::kTeredo  ? "Teredo"
                     : kind == TunnelKind::kGtpU  ? "GTP"
                     : kind == TunnelKind::kVxlan ? "VXLAN"
                                                  : nullptr;
  if (name == nullptr || outer.protocol != 17) {
    return;
  }
  // One flow for both directions: the key puts the lower end point first.
  constexpr size_t kEnd = sizeof(oru::IpAddr) + sizeof(uint16_t);
  char from[kEnd];
  char to[kEnd];
  std::memcpy(from, &outer.src, sizeof outer.src);
  std::memcpy(from + sizeof outer.src, &outer.src_port, sizeof outer.src_port);
  std::memcpy(to, &outer.dst, sizeof outer.dst);
  std::memcpy(to + sizeof outer.dst, &outer.dst_port, sizeof outer.dst_port);
  const bool ordered = std::memcmp(from, to, kEnd) < 0;
  TunnelKey key;
  std::memcpy(key.data(), ordered ? from : to, kEnd);
  std::memcpy(key.data() + kEnd, ordered ? to : from, kEnd);
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
    for (auto [end, address, port] : {std::tuple{&record.client, &outer.src, outer.src_port},
                                      std::tuple{&record.server, &outer.dst, outer.dst_port}}) {
      if (outer.ip_version == 6) {
        end->family = KEST_FAMILY_IPV6;
        address->ToV6(end->address);
      } else {
        // 0.0.0.0 too: the packet says IPv4.
        end->family = KEST_FAMILY_IPV4;
        const uint32_t v4 = htonl(address->v4());
        std::memcpy(end->address, &v4, sizeof v4);
      }
      end->port = htons(port);
    }
  }
  FlowRecord &record = m_tunnel_flows[it->second].record;
  const oru::IpAddr client = oru::IpAddr::FromEndpoint(record.client.family, record.client.address);
  const int side = outer.src == client && outer.src_port == ntohs(record.client.port) ? 0 : 1;
  ++record.packets[side];
  record.bytes[side] += outer.payload_length;
  if (record.features != nullptr) {
    // The outer packet: m_now.ip is still its IP header here.
    const uint64_t length = static_cast<uint64_t>(outer.payload - m_now.ip) + outer.payload_length;
    record.features->Add(side, static_cast<uint32_t>(length), m_now.ts_us, record.first_us, 0);
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
    // The connection is the active one here: its end points, client first.
    kest_endpoint_get(m_h, id, &record.client, &record.server);
    record.protocol = m_now.packet.protocol;
    if (m_setup.features) {
      record.features = std::make_shared<FlowFeatures>();
    }
    // The library reads an IPv6 address with twelve zero bytes (::1) as
    // IPv4, and 0.0.0.0 as IPv6 (::); the packet says which it was.
    for (kest_endpoint_t *end : {&record.client, &record.server}) {
      if (m_now.packet.ip_version == 6 && end->family == KEST_FAMILY_IPV4) {
        std::memmove(end->address + 12, end->address, 4);
        std::memset(end->address, 0, 12);
        end->family = KEST_FAMILY_IPV6;
      } else if (m_now.packet.ip_version == 4 && end->family == KEST_FAMILY_IPV6) {
        std::memmove(end->address, end->address + 12, 4);
        std::memset(end->address + 4, 0, 12);
        end->family = KEST_FAMILY_IPV4;
      }
    }
  }
  m_cached_id = id;
  m_cached = &record;
  return record;
}

bool Worker::FromClient(const FlowRecord &record) const {
  const kest_decoders::ParsedPacket &p = m_now.packet;
  const oru::IpAddr client = oru::IpAddr::FromEndpoint(record.client.family, record.client.address);
  if (p.src != client) {
    return false;
  }
  // A reassembled datagram's last fragment carries no ports.
  return m_now.parse == kest_decoders::ParseResult::kFragment ||
         p.src_port == ntohs(record.client.port);
}

void Worker::Result(kest_result_t *result, kest_conn_id_t id) {
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
      record.stack[depth++] = kest_proto_get_index(m_h, &cursor);
    }
    record.depth = depth;
  }
  if (m_now.counted == id) {
    return; // a deferred result of the same packet
  }
  m_now.counted = id;
  const int side = FromClient(record) ? 0 : 1;
  const kest_decoders::ParsedPacket &p = m_now.packet;
  uint64_t bytes = p.payload_length;
  if (m_now.parse == kest_decoders::ParseResult::kFragment) {
    // The whole datagram came in with its last fragment: its payload is
    // everything before this piece and the piece, less the transport header.
    const uint64_t whole = p.frag_offset + p.payload_length;
    const uint64_t header = p.protocol == 17 ? 8 : p.protocol == 6 ? 20 : 0;
    bytes = whole > header ? whole - header : 0;
  }
  ++record.packets[side];
  record.bytes[side] += bytes;
  if (record.features != nullptr && p.payload != nullptr) {
    const uint64_t length = static_cast<uint64_t>(p.payload - m_now.ip) + p.payload_length;
    record.features->Add(side, static_cast<uint32_t>(length), m_now.ts_us, record.first_us,
                         p.protocol == 6 ? p.tcp_flags : 0);
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
  std::vector<std::string> stack;
  for (int i = 0; i < record.depth; ++i) {
    stack.push_back(ProtoName(record.stack[i]));
  }
  // The application is the top of the stack, unless only the transport
  // was found. ICMP, IGMP, GRE, ESP and SCTP flows are named by their
  // protocol; the other numbers ("IP") are not known any better.
  std::string app = "unknown";
  if (!stack.empty() && stack.back() != "TCP" && stack.back() != "UDP" && stack.back() != "IP") {
    app = stack.back();
  }
  // The table's rows are services where one is known ("YouTube" beside
  // "TLS"), applications otherwise.
  const std::string *service = record.LastAttr(kServiceName);
  AppRow &row = m_apps[service != nullptr ? *service : app];
  ++row.connections;
  row.packets += record.packets[0] + record.packets[1];
  row.bytes += record.bytes[0] + record.bytes[1];
  if (m_setup.sink != nullptr) {
    m_setup.sink->Finished(record, app, stack);
  }
  if (m_setup.ipfix != nullptr) {
    m_setup.ipfix->Add(record, app, stack, service);
  }
  if (m_cached == &it->second) {
    m_cached = nullptr;
    m_cached_id = 0;
  }
  m_records.erase(it);
}

} // namespace kestcap
