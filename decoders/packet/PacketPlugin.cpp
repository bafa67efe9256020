#include "packet/PacketPlugin.h"

#include "common/TransportPlugin.h"
#include "packet/Defragmenter.h"
#include "packet/PacketParser.h"

#include <kest.h>
#include <kest/Classification.h>
#include <kest/Clock.h>
#include <kest/ITransportSegment.h>
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
class PacketDecoder final : public oru::fdt::refcnt {
public:
  KEST_DELETE_BY_PREFIX

  class Form final : public oru::IClassify {
  public:
    unsigned Classify(oru::ClassifyPacket *packet,
                      oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
      return m_decoder->Classify(m_form, packet, conn);
    }
    PacketDecoder *m_decoder = nullptr;
    PacketForm m_form = PacketForm::kIp;
  };

  PacketDecoder() {
    for (int i = 0; i < 3; ++i) {
      m_forms[i].m_decoder = this;
      m_forms[i].m_form = static_cast<PacketForm>(i + 1);
    }
  }
  ~PacketDecoder() override {
    if (m_none != nullptr) {
      m_none->release();
    }
  }

  unsigned Classify(PacketForm form, oru::ClassifyPacket *packet,
                    oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    ParsedPacket p;
    const ParseResult r = ParsePacket(form, packet->data, packet->length, p);
    if (r == ParseResult::kFragment) {
      // The last fragment of a datagram brings the whole of it.
      uint32_t length = 0;
      uint8_t *whole = m_defrag.Add(p, oru::now(), length);
      if (whole != nullptr) {
        ParsedPacket q;
        const unsigned result = ParsePacket(PacketForm::kIp, whole, length, q) == ParseResult::kOk
                                    ? ToTransport(q, whole, length, conn)
                                    : NotClassified(conn);
        kest_free_local(whole);
        return result;
      }
      return NotClassified(conn);
    }
    if (r == ParseResult::kOk) {
      return ToTransport(p, packet->data, packet->length, conn);
    }
    if (r == ParseResult::kMalformed) {
      ++m_malformed;
    }
    return NotClassified(conn);
  }

  unsigned ToTransport(const ParsedPacket &p, const uint8_t *frame, uint32_t length,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    oru::ITransportSegment *transport = p.protocol == 6    ? m_tcp
                                        : p.protocol == 17 ? m_udp
                                                           : nullptr;
    if (transport == nullptr) {
      return NotClassified(conn);
    }
    oru::TransportSegment segment{frame, length,     p.l3_offset,     p.l4_offset, p.src,
                                  p.dst, p.src_port, p.dst_port,      p.tcp_flags, p.seq,
                                  p.ack, p.payload,  p.payload_length};
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
    if (classification == nullptr) {
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
    oru::Classification *classification = oru::Classification::Peek();
    if (classification == nullptr) {
      return;
    }
    for (int i = 0; i < 3; ++i) {
      classification->Unregister(static_cast<oru::Classification::ClassifyType>(i), &m_forms[i],
                                 oru::fdt::intrusive_ptr<oru::fdt::refcnt>(this));
    }
  }
  void Link() {
    oru::InterfaceBroker *broker = oru::InterfaceBroker::Peek();
    if (broker != nullptr) {
      m_tcp = static_cast<oru::ITransportSegment *>(
          broker->GetInterface(oru::MODULE_TCP, oru::INTERFACE_TRANSPORT_SEGMENT));
      m_udp = static_cast<oru::ITransportSegment *>(
          broker->GetInterface(oru::MODULE_UDP, oru::INTERFACE_TRANSPORT_SEGMENT));
    }
  }
  void Unlink() {
    m_tcp = nullptr;
    m_udp = nullptr;
  }

  // Result flag of "not classified" (code 0).
  static constexpr unsigned kNotClassified = 0x100;

private:
  Form m_forms[3];
  NoConn *m_none = nullptr;
  oru::ITransportSegment *m_tcp = nullptr;
  oru::ITransportSegment *m_udp = nullptr;
  uint64_t m_malformed = 0;
  Defragmenter m_defrag;
};

// This thread's decoder, with the reference the plug-in holds.
thread_local PacketDecoder *t_decoder = nullptr;

const char *GetName() {
  return "packet";
}
bool GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
  if (own != nullptr) {
    *own = oru::VersionRecord{TransportPlugin::kMajor, 0, 0, 1, "decoders"};
  }
  return library != nullptr && library->major == TransportPlugin::kMajor;
}
bool InitInstance() {
  return true;
}
bool InitThread() {
  t_decoder = oru::fdt::CreateObject<PacketDecoder>(oru::fdt::OBJECT_LOCAL);
  if (t_decoder == nullptr) {
    return false;
  }
  t_decoder->add_ref();
  if (!t_decoder->Start()) {
    t_decoder->release();
    t_decoder = nullptr;
    return false;
  }
  return true;
}
void LinkThread() {
  if (t_decoder != nullptr) {
    t_decoder->Link();
  }
}
void StartThread() {}
void ExitThread() {
  if (t_decoder != nullptr) {
    t_decoder->Unlink();
    t_decoder->Stop();
    t_decoder->release();
    t_decoder = nullptr;
  }
}
void ExitInstance() {}

constexpr oru::PluginEntryTable kTable = {GetName,    GetVersion,  InitInstance, InitThread,
                                          LinkThread, StartThread, ExitThread,   ExitInstance};

} // namespace

const oru::PluginEntryTable *PacketPlugin::EntryTable() {
  return &kTable;
}

} // namespace kest_decoders
