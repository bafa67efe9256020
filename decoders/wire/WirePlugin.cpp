#include "wire/WirePlugin.h"

#include "transport/TransportPlugin.h"
#include "wire/Defragmenter.h"
#include "wire/WireParser.h"

#include <kest.h>
#include <kest/Classification.h>
#include <kest/Clock.h>
#include <kest/IIdle.h>
#include <kest/ITransportSegment.h>
#include <kest/MemTag.h>
#include <kest/PacketFacts.h>
#include <kest/ProtocolRegistry.h>
#include <kest/Runtime.h>
#include <kest/fdt/ObjectPrefix.h>
#include <new>

namespace kest_decoders {

namespace {

// What "not classified" results name: a connection of number 0 that no
// table holds.
class NoConn final : public oru::Conn {
public:
  NoConn() : Conn(0ull) {}
};

// One thread's decoder: a handler per packet form, the placeholder
// connection, and the transports' segment entries.
class WireDecoder final : public oru::fdt::refcnt, public oru::IIdle {
public:
  KEST_DELETE_BY_PREFIX

  // The module under which the decoder offers its upkeep (INTERFACE_IDLE).
  static constexpr oru::ModuleId kModule = oru::kit::MODULE_WIRE;
  static constexpr const char *kModuleName = "WIRE";

  class Form final : public oru::IClassify {
  public:
    unsigned Classify(oru::ClassifyPacket *packet,
                      oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
      return m_decoder->Classify(m_form, packet, conn);
    }
    WireDecoder *m_decoder = nullptr;
    PacketForm m_form = PacketForm::kIp;
  };

  WireDecoder() {
    for (int i = 0; i < 3; ++i) {
      m_forms[i].m_decoder = this;
      m_forms[i].m_form = static_cast<PacketForm>(i + 1);
    }
  }
  ~WireDecoder() override {
    if (m_none != nullptr) {
      m_none->release();
    }
  }

  // Fragments of datagrams that never complete go on a quiet link too.
  void Idle() override { m_defrag.Expire(oru::now()); }

  unsigned Classify(PacketForm form, oru::ClassifyPacket *packet,
                    oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    // What the host reads back of this packet (kest_packet_facts_get).
    kest_packet_facts_t &facts = *oru::PacketFactsRecord();
    facts.tunnel = KEST_TUNNEL_NONE;
    facts.outer_protocol = 0;
    facts.outer_payload_length = 0;
    facts.outer_ip_length = 0;
    facts.outer_src.family = facts.outer_dst.family = KEST_FAMILY_NONE;
    ParsedPacket p;
    ParseResult r = ParsePacket(form, packet->data, packet->length, p);
    const uint8_t *frame = packet->data;
    uint32_t frame_length = packet->length;
    // Tunnels: the innermost packet is the one classified, with the tunnels
    // it came through below its transport on the stack. A fragmented
    // datagram, outer or inner, is opened once its last fragment brings the
    // whole of it (a tunnel's datagrams are often cut by the path's MTU).
    TunnelKind layers[kMaxTunnels];
    int depth = 0;
    uint8_t *whole = nullptr;
    uint32_t fragments = 0;
    for (int rounds = 0;; ++rounds) {
      if ((oru::ThreadWord(oru::Conn::l_default_policy) & oru::POLICY_TUNNELS) != 0) {
        InnerPacket inner;
        while (r == ParseResult::kOk && depth < kMaxTunnels && Decapsulate(p, inner)) {
          if (depth == 0) {
            facts.tunnel = static_cast<uint8_t>(inner.kind);
            facts.outer_protocol = p.protocol;
            facts.outer_payload_length = p.payload_length;
            facts.outer_ip_length = IpLength(p, frame);
            FillEnd(facts.outer_src, p.ip_version, p.src, p.src_port);
            FillEnd(facts.outer_dst, p.ip_version, p.dst, p.dst_port);
          }
          ParsedPacket q;
          const ParseResult r2 = ParsePacket(inner.form, inner.data, inner.length, q);
          if (r2 != ParseResult::kOk && r2 != ParseResult::kFragment) {
            break;
          }
          layers[depth++] = inner.kind;
          p = q;
          r = r2;
          frame = inner.data;
          frame_length = inner.length;
        }
      }
      if (r != ParseResult::kFragment) {
        break;
      }
      Describe(facts, r, p, frame);
      uint32_t length = 0;
      uint32_t taken = 0;
      uint8_t *datagram =
          rounds <= kMaxTunnels ? m_defrag.Add(p, oru::now(), length, &taken) : nullptr;
      // The fragment was copied: the datagram it came out of may go.
      if (whole != nullptr) {
        kest_free_local(whole);
      }
      whole = datagram;
      if (whole == nullptr) {
        facts.fragments = 0;
        return NotClassified(conn);
      }
      fragments += taken;
      r = ParsePacket(PacketForm::kIp, whole, length, p);
      frame = whole;
      frame_length = length;
    }
    Describe(facts, r, p, frame);
    unsigned result = 0;
    if (whole != nullptr) {
      facts.fragments = fragments;
    }
    if (r == ParseResult::kOk) {
      result = ToTransport(p, frame, frame_length, conn);
      Counted(facts, p, conn);
    }
    if (whole != nullptr) {
      kest_free_local(whole);
    }
    if (r != ParseResult::kOk) {
      if (r == ParseResult::kMalformed) {
        ++m_malformed;
      }
      return NotClassified(conn);
    }
    if (depth != 0 && conn && conn.get() != m_none) {
      PushTunnels(*conn->GetAppStack(), layers, depth);
    }
    return result;
  }

  // One end point in the family of its IP header; the port in network order.
  static void FillEnd(kest_endpoint_t &end, uint8_t ip_version, const oru::IpAddr &address,
                      uint16_t port) {
    if (ip_version == 6) {
      end.family = KEST_FAMILY_IPV6;
      address.ToV6(end.address);
    } else {
      end.family = KEST_FAMILY_IPV4;
      const uint32_t v4 = address.v4();
      for (int i = 0; i < 4; ++i) {
        end.address[i] = static_cast<uint8_t>(v4 >> (24 - 8 * i));
      }
      for (int i = 4; i < 16; ++i) {
        end.address[i] = 0;
      }
    }
    uint8_t *bytes = reinterpret_cast<uint8_t *>(&end.port);
    bytes[0] = static_cast<uint8_t>(port >> 8);
    bytes[1] = static_cast<uint8_t>(port);
  }

  // The packet's own facts, before it reaches a connection.
  // The IP length of `p`, parsed from `frame`: its headers and payload.
  static uint32_t IpLength(const ParsedPacket &p, const uint8_t *frame) {
    if (p.payload == nullptr) {
      return 0;
    }
    return static_cast<uint32_t>(p.payload - (frame + p.l3_offset)) + p.payload_length;
  }

  static void Describe(kest_packet_facts_t &facts, ParseResult r, const ParsedPacket &p,
                       const uint8_t *frame) {
    facts.conn_id = 0;
    facts.direction = 0;
    facts.client.family = facts.server.family = KEST_FAMILY_NONE;
    facts.status = r == ParseResult::kOk         ? KEST_PACKET_OK
                   : r == ParseResult::kFragment ? KEST_PACKET_FRAGMENT
                   : r == ParseResult::kNotIp    ? KEST_PACKET_NOT_IP
                                                 : KEST_PACKET_MALFORMED;
    const bool ip = r == ParseResult::kOk || r == ParseResult::kFragment;
    facts.fragments = r == ParseResult::kOk ? 1 : 0;
    facts.protocol = ip ? p.protocol : 0;
    facts.payload_length = ip ? p.payload_length : 0;
    facts.ip_length = ip ? IpLength(p, frame) : 0;
    facts.tcp_flags = ip && p.protocol == 6 ? p.tcp_flags : 0;
    if (ip) {
      FillEnd(facts.src, p.ip_version, p.src, p.src_port);
      FillEnd(facts.dst, p.ip_version, p.dst, p.dst_port);
    } else {
      facts.src.family = facts.dst.family = KEST_FAMILY_NONE;
      facts.src.port = facts.dst.port = 0;
    }
  }

  // The connection the packet counted with, and whether it came from that
  // connection's first end point.
  void Counted(kest_packet_facts_t &facts, const ParsedPacket &p,
               const oru::fdt::intrusive_ptr<oru::Conn> &conn) const {
    if (!conn || conn.get() == m_none) {
      return;
    }
    const oru::Tuple &tuple = conn->m_tuple;
    facts.conn_id = conn->m_number;
    facts.direction = p.src == tuple.src && p.src_port == tuple.src_port ? 0 : 1;
    FillEnd(facts.client, p.ip_version, tuple.src, tuple.src_port);
    FillEnd(facts.server, p.ip_version, tuple.dst, tuple.dst_port);
  }

  // Puts the tunnels under the transport, once per connection.
  void PushTunnels(oru::AppStack &stack, const TunnelKind *layers, int depth) {
    if (stack.entries.empty()) {
      return;
    }
    const uint32_t bottom = stack.entries.front().proto;
    for (uint32_t proto : m_tunnel_proto) {
      if (proto != 0 && proto == bottom) {
        return;
      }
    }
    oru::ScopedMemTag tag(oru::ScopedMemTag::OBJECT, oru::MemTag::OBJ_APPSTACK_APPPROTO);
    for (int i = depth - 1; i >= 0; --i) {
      const uint32_t proto = m_tunnel_proto[static_cast<int>(layers[i])];
      if (proto != 0) {
        stack.entries.push_front(oru::AppEntry{proto});
      }
    }
  }

  // The transport of an IP protocol on this thread, or null.
  oru::ITransportSegment *TransportOf(uint8_t protocol) const {
    switch (protocol) {
    case 6:
      return m_tcp;
    case 17:
      return m_udp;
    default:
      for (int i = 0; i < kOtherKinds - 1; ++i) {
        if (kOtherNumbers[i] == protocol) {
          return m_other[i];
        }
      }
      return m_other[kOtherKinds - 1];
    }
  }

  unsigned ToTransport(const ParsedPacket &p, const uint8_t *frame, uint32_t length,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    ParsedPacket quoted;
    if ((p.protocol == 1 || p.protocol == 58) && QuotedFlow(p, quoted)) {
      // An ICMP error counts with the flow it is about, while that lasts.
      if (oru::ITransportSegment *owner = TransportOf(quoted.protocol)) {
        oru::TransportSegment about{};
        about.frame = frame;
        about.frame_length = length;
        about.l3_offset = p.l3_offset;
        about.l4_offset = p.l4_offset;
        about.src = quoted.src;
        about.dst = quoted.dst;
        about.src_port = quoted.src_port;
        about.dst_port = quoted.dst_port;
        about.protocol = quoted.protocol;
        about.quoted = 1;
        const unsigned result = owner->Segment(about, conn);
        if (result != 0) {
          return result;
        }
      }
    }
    oru::ITransportSegment *transport = TransportOf(p.protocol);
    if (transport == nullptr) {
      return NotClassified(conn);
    }
    oru::TransportSegment segment{frame, length,     p.l3_offset,      p.l4_offset, p.src,
                                  p.dst, p.src_port, p.dst_port,       p.tcp_flags, p.seq,
                                  p.ack, p.payload,  p.payload_length, p.protocol,  0};
    return transport->Segment(segment, conn);
  }

  unsigned NotClassified(oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    conn = m_none;
    return kNotClassified;
  }

  // Makes the placeholder and registers the three forms. False without
  // memory or when another plug-in has a form.
  bool Start() {
    void *block = kest_malloc_local(sizeof(NoConn));
    if (block == nullptr) {
      return false;
    }
    m_none = ::new (block) NoConn;
    m_none->add_ref();
    oru::Classification *classification = oru::Classification::Instance();
    oru::InterfaceBroker *broker = oru::InterfaceBroker::Instance();
    if (classification == nullptr || broker == nullptr ||
        !broker->RegisterInterface(kModule, oru::INTERFACE_IDLE, static_cast<oru::IIdle *>(this))) {
      return false;
    }
    for (int i = 0; i < 3; ++i) {
      if (!classification->Register(static_cast<oru::Classification::ClassifyType>(i), &m_forms[i],
                                    oru::fdt::intrusive_ptr<oru::fdt::refcnt>(this))) {
        Stop();
        return false;
      }
    }
    return true;
  }
  void Stop() {
    if (oru::InterfaceBroker *broker = oru::InterfaceBroker::Peek()) {
      broker->UnregisterInterface(kModule, oru::INTERFACE_IDLE, static_cast<oru::IIdle *>(this));
    }
    oru::Classification *classification = oru::Classification::Peek();
    if (classification == nullptr) {
      return;
    }
    for (int i = 0; i < 3; ++i) {
      classification->Unregister(static_cast<oru::Classification::ClassifyType>(i), &m_forms[i],
                                 oru::fdt::intrusive_ptr<oru::fdt::refcnt>(this));
    }
  }
  // The protocol indices of the tunnels on this thread.
  void NameTunnels() {
    for (int i = 1; i < kTunnelKinds; ++i) {
      const int id = oru::GetProtocolId(kTunnelNames[i]);
      m_tunnel_proto[i] = id > 0 ? static_cast<uint32_t>(id) : 0;
    }
  }

  void Link() {
    oru::InterfaceBroker *broker = oru::InterfaceBroker::Peek();
    if (broker != nullptr) {
      m_tcp = static_cast<oru::ITransportSegment *>(
          broker->GetInterface(oru::MODULE_TCP, oru::INTERFACE_TRANSPORT_SEGMENT));
      m_udp = static_cast<oru::ITransportSegment *>(
          broker->GetInterface(oru::MODULE_UDP, oru::INTERFACE_TRANSPORT_SEGMENT));
      for (int i = 0; i < kOtherKinds; ++i) {
        m_other[i] = static_cast<oru::ITransportSegment *>(
            broker->GetInterface(kOtherModules[i], oru::INTERFACE_TRANSPORT_SEGMENT));
      }
    }
  }
  void Unlink() {
    m_tcp = nullptr;
    m_udp = nullptr;
    for (oru::ITransportSegment *&other : m_other) {
      other = nullptr;
    }
  }

  // Result flag of "not classified" (code 0).
  static constexpr unsigned kNotClassified = 0x100;
  // Tunnels opened within one another, at most.
  static constexpr int kMaxTunnels = 4;
  static constexpr int kTunnelKinds = 6;
  // By TunnelKind.
  static constexpr const char *kTunnelNames[kTunnelKinds] = {nullptr, "IPIP",  "GRE",
                                                             "GTP",   "VXLAN", "Teredo"};
  // The transports of ip.plg, by IP protocol; the last takes every number
  // not named before it.
  static constexpr int kOtherKinds = 7;
  static constexpr uint8_t kOtherNumbers[kOtherKinds - 1] = {1, 58, 2, 47, 50, 132};
  static constexpr oru::ModuleId kOtherModules[kOtherKinds] = {
      oru::kit::MODULE_ICMP, oru::kit::MODULE_ICMP6, oru::kit::MODULE_IGMP, oru::kit::MODULE_GRE,
      oru::kit::MODULE_ESP,  oru::kit::MODULE_SCTP,  oru::kit::MODULE_IP};

private:
  Form m_forms[3];
  NoConn *m_none = nullptr;
  oru::ITransportSegment *m_tcp = nullptr;
  oru::ITransportSegment *m_udp = nullptr;
  oru::ITransportSegment *m_other[kOtherKinds] = {};
  uint64_t m_malformed = 0;
  Defragmenter m_defrag;
  uint32_t m_tunnel_proto[kTunnelKinds] = {};
};

// This thread's decoder in the current instance, with the reference the
// plug-in holds, in a slot of the thread's block (no thread-local storage of
// the plug-in's own).
oru::ThreadLocalKey l_decoder{};
oru::SlotRegistration s_decoder_slot(l_decoder);
WireDecoder *&Current() {
  return oru::ThreadPointer<WireDecoder>(l_decoder);
}

const char *GetName() {
  return "wire";
}
bool InitInstance() {
  for (int i = 1; i < WireDecoder::kTunnelKinds; ++i) {
    oru::RegisterProtocol(WireDecoder::kTunnelNames[i]);
  }
  return oru::InterfaceBroker::RegisterModule(WireDecoder::kModule, WireDecoder::kModuleName);
}
bool InitThread() {
  WireDecoder *&t_decoder = Current();
  t_decoder = oru::fdt::CreateObject<WireDecoder>(oru::fdt::OBJECT_LOCAL);
  if (t_decoder == nullptr) {
    return false;
  }
  t_decoder->add_ref();
  t_decoder->NameTunnels();
  if (!t_decoder->Start()) {
    t_decoder->release();
    t_decoder = nullptr;
    return false;
  }
  return true;
}
void LinkThread() {
  WireDecoder *t_decoder = Current();
  if (t_decoder != nullptr) {
    t_decoder->Link();
  }
}
void StartThread() {}
void ExitThread() {
  WireDecoder *&t_decoder = Current();
  if (t_decoder != nullptr) {
    t_decoder->Unlink();
    t_decoder->Stop();
    t_decoder->release();
    t_decoder = nullptr;
  }
}
void ExitInstance() {
  oru::InterfaceBroker::UnregisterModule(WireDecoder::kModule, WireDecoder::kModuleName);
}

constexpr oru::PluginEntryTable kTable = {GetName,    oru::kit::SdkVersion, InitInstance,
                                          InitThread, LinkThread,           StartThread,
                                          ExitThread, ExitInstance};

} // namespace

const oru::PluginEntryTable *WirePlugin::EntryTable() {
  return &kTable;
}

} // namespace kest_decoders
