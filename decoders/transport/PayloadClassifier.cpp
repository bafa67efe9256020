#include "transport/PayloadClassifier.h"

#include "transport/ConnTable.h"
#include "transport/TcpStream.h"
#include "transport/TransportConn.h"

#include <kest/Clock.h>
#include <kest/Error.h>
#include <kest/MemTag.h>

namespace kest_decoders {

namespace {

// A block holds at most this many bytes.
constexpr uint32_t kMaxBlock = 0xFFFF;

// Bytes of a side that inspectors may keep across packets.
constexpr uint32_t kMaxKept = 256 * 1024;

// Connections looked at for ageing per segment.
constexpr int kSweepBudget = 4;

unsigned char SideOf(const oru::Conn &conn) {
  return conn.m_side != 0 ? 1 : 0;
}

// Whether an inspector asked, during this packet, to keep the newest block.
bool KeptByInspection(oru::FlowBuffer &flow) {
  oru::FlowBuffer::BlockMap::iterator newest = flow.m_blocks.find(flow.m_last_start);
  return newest != flow.m_blocks.end() &&
         (newest->second.flags & oru::FlowBuffer::BLOCK_SYNCED) != 0;
}

} // namespace

unsigned PayloadClassifier::Classify(oru::ClassifyPacket *packet,
                                     oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  oru::Conn *target = packet->conn;
  TransportConn *own = TransportConn::Of(target);
  if (own == nullptr || packet->length == 0 || packet->length > kMaxBlock) {
    return 0;
  }
  oru::ScopedMemTag tag(oru::ScopedMemTag::CONTEXT, m_context);
  if (!ReportTransport(*target->GetAppStack())) {
    oru::ThrowError(oru::ERR_NOMEM);
    return 0;
  }
  const unsigned char side = SideOf(*target);
  oru::FlowBuffer &flow = target->m_flow[side];
  const uint64_t pos = flow.m_next_pos;
  const uint16_t size = static_cast<uint16_t>(packet->length);
  if (flow.AddBlock(pos, packet->data, size, false) == nullptr) {
    oru::ThrowError(oru::ERR_NOMEM);
    return 0;
  }
  flow.m_last_start = pos;
  flow.m_next_pos = pos + size;
  flow.UpdateStats(size);
  own->m_spoke |= static_cast<uint8_t>(1u << side);
  target->Touch();
  conn = target;
  return Inspect(*own, flow, pos, size, nullptr, conn);
}

unsigned PayloadClassifier::Inspect(TransportConn &own, oru::FlowBuffer &flow, uint64_t pos,
                                    uint32_t length, const oru::TransportSegment *segment,
                                    oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  unsigned result = oru::INSPECT_NOTHING;
  if (length != 0) {
    unsigned long long start = 0;
    const oru::FlowBuffer::Block *block = flow.GetBlock(pos, start);
    // The packet's own bytes: the new bytes of the block at `pos`; blocks
    // that waited for them follow in the flow up to End().
    const uint64_t in_block = block != nullptr ? start + block->size - pos : 0;
    oru::PktInfo pkt{
        block != nullptr ? reinterpret_cast<const uint8_t *>(block->data + (pos - start)) : nullptr,
        in_block < length ? static_cast<uint32_t>(in_block) : length,
        SideOf(own),
        segment != nullptr ? segment->tcp_flags : uint8_t{0},
        segment != nullptr ? segment->l3_offset : oru::PktInfo::kNoOffset,
        segment != nullptr ? segment->l4_offset : oru::PktInfo::kNoOffset,
        0,
        pos,
        oru::now(),
        segment != nullptr ? segment->frame : nullptr,
        segment != nullptr ? segment->frame_length : 0};
    result = Handoff(own.m_chain, pkt, own.m_tuple, conn);
  }
  // The blocks borrow the packet: unless an inspector made the newest one
  // outlive it (Sync), everything up to the end of the stream goes now. No
  // inspector keeps more than kMaxKept bytes of a side.
  if (!KeptByInspection(flow) || flow.Size() > kMaxKept) {
    flow.Flush();
  }
  return result;
}

unsigned PayloadClassifier::Segment(oru::TransportSegment &segment,
                                    oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  if (m_table == nullptr) {
    return 0;
  }
  oru::ScopedMemTag tag(oru::ScopedMemTag::CONTEXT, m_context);
  const bool tcp = m_table->IpProtocol() == 6;
  // Only TCP and UDP carry payload to inspectors; the other protocols are
  // flows of packets.
  const bool stream = tcp || m_table->IpProtocol() == 17;
  if (segment.quoted != 0) {
    // An error about a flow belongs to it, if it is still there; it neither
    // makes nor refreshes one.
    TransportConn *quoted = m_table->Find(segment.src, segment.src_port, segment.dst,
                                          segment.dst_port, segment.protocol);
    if (quoted == nullptr) {
      return 0;
    }
    conn = quoted;
    return oru::INSPECT_NOTHING;
  }
  // Ageing rides on the packets: a few of the least recently used at a time.
  m_table->Sweep(oru::now(), kSweepBudget);
  TransportConn *own =
      m_table->Find(segment.src, segment.src_port, segment.dst, segment.dst_port, segment.protocol);
  if (own != nullptr && own->m_closed != 0 && (segment.tcp_flags & 0x12) == 0x02) {
    // A new SYN on the end points of a finished connection: a new one.
    m_table->Destroy(own);
    own = nullptr;
  }
  const bool fresh = own == nullptr;
  if (own == nullptr) {
    // The client: the sender of a SYN without ACK; the receiver of a SYN with
    // ACK; otherwise whoever spoke first.
    const bool answer = tcp && (segment.tcp_flags & 0x12) == 0x12;
    oru::Tuple tuple;
    tuple.src = answer ? segment.dst : segment.src;
    tuple.dst = answer ? segment.src : segment.dst;
    tuple.src_port = answer ? segment.dst_port : segment.src_port;
    tuple.dst_port = answer ? segment.src_port : segment.dst_port;
    tuple.protocol = segment.protocol;
    m_table->MakeRoom();
    own = static_cast<TransportConn *>(m_table->Create(tuple));
    if (own == nullptr) {
      oru::ThrowError(oru::ERR_NOMEM);
      return 0;
    }
    own->m_aged = 1;
  }
  const oru::Tuple &t = own->m_tuple;
  const unsigned char side = segment.src == t.src && segment.src_port == t.src_port ? 0 : 1;
  own->SetSide(side);
  own->m_seen[side] = 1;
  own->m_spoke |= static_cast<uint8_t>(segment.payload_length != 0 ? 1u << side : 0u);
  m_table->Used(own);
  conn = own;
  if (!ReportTransport(*own->GetAppStack())) {
    oru::ThrowError(oru::ERR_NOMEM);
    return 0;
  }
  oru::FlowBuffer &flow = own->m_flow[side];
  own->Touch();
  flow.UpdateStats(segment.payload_length);
  uint64_t from = flow.m_next_pos;
  uint32_t grown = 0;
  unsigned joined = 0;
  if (!stream) {
    // Counted above; no bytes for inspectors. A new flow still shows its
    // first packet, without payload, to what rules on its end points put on
    // its chain (the ESP flows that a key exchange keyed are named so);
    // most such chains are empty and cost nothing.
    if (fresh && !own->m_chain.empty()) {
      oru::PktInfo pkt{nullptr,
                       0,
                       side,
                       0,
                       segment.l3_offset,
                       segment.l4_offset,
                       0,
                       from,
                       oru::now(),
                       segment.frame,
                       segment.frame_length};
      const unsigned result = Handoff(own->m_chain, pkt, own->m_tuple, conn);
      m_table->Used(own);
      return result;
    }
  } else if (!tcp) {
    if (segment.payload_length != 0 && segment.payload_length <= kMaxBlock &&
        flow.AddBlock(from, segment.payload, static_cast<uint16_t>(segment.payload_length),
                      false) != nullptr) {
      flow.m_last_start = from;
      flow.m_next_pos = from + segment.payload_length;
      grown = segment.payload_length;
    }
  } else {
    uint8_t flags = segment.tcp_flags;
    if ((flags & 0x02) != 0) {
      // SYN: position 0 is the byte after it.
      flow.m_base_pos = segment.seq + 1u;
      own->m_seq_known[side] = 1;
      own->m_opened |= side == 0 && (flags & 0x10) == 0 ? 1 : 0;
    } else if (own->m_seq_known[side] == 0 && segment.payload_length != 0) {
      // Picked up without a SYN: the first byte seen is position 0.
      flow.m_base_pos = segment.seq;
      own->m_seq_known[side] = 1;
    }
    if ((flags & 0x14) == 0x10 && own->m_seq_known[side ^ 1] != 0) {
      joined = Acknowledged(*own, side ^ 1, segment.ack, conn);
    }
    if (own->m_seq_known[side] != 0 && segment.payload_length != 0) {
      const uint32_t seq = (flags & 0x02) != 0 ? segment.seq + 1u : segment.seq;
      const uint64_t pos =
          TcpStream::Position(seq, static_cast<uint32_t>(flow.m_base_pos), flow.m_next_pos);
      // Once the chain has emptied and nothing waits on this side, nobody
      // reads the bytes again: the stream's end moves on without them.
      const bool read = !own->m_chain.empty() || own->m_callback[side].object.get() != nullptr;
      if (read || !flow.m_blocks.empty()) {
        grown =
            TcpStream::Insert(flow, pos, segment.payload, segment.payload_length,
                              read ? oru::ThreadWord(oru::FlowBuffer::l_reorder_window) : 0, from);
      } else if (pos + segment.payload_length > flow.m_next_pos) {
        flow.m_next_pos = pos + segment.payload_length;
      }
    }
    if ((flags & 0x01) != 0) {
      own->m_fin[side] = 1;
    }
  }
  unsigned result = Inspect(*own, flow, from, grown, &segment, conn);
  if (result == oru::INSPECT_NOTHING && joined != 0) {
    result = joined; // only the other side's bytes were inspected
  }
  if (tcp && ((segment.tcp_flags & 0x04) != 0 || (own->m_fin[0] != 0 && own->m_fin[1] != 0))) {
    own->m_closed = 1;
  }
  // To the front of the list of its (new) state.
  m_table->Used(own);
  return result;
}

unsigned PayloadClassifier::Acknowledged(TransportConn &own, unsigned char other, uint32_t ack,
                                         oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  oru::FlowBuffer &flow = own.m_flow[other];
  if (flow.m_blocks.empty()) {
    return 0;
  }
  const uint64_t acked =
      TcpStream::Position(ack, static_cast<uint32_t>(flow.m_base_pos), flow.m_next_pos);
  uint64_t from;
  const uint32_t joined = TcpStream::Acknowledged(flow, acked, from);
  if (joined == 0) {
    return 0;
  }
  // The bytes that waited go to the inspectors as their own side's, with
  // no packet of their own.
  const unsigned char side = SideOf(own);
  own.SetSide(other);
  const unsigned result = Inspect(own, flow, from, joined, nullptr, conn);
  own.SetSide(side);
  return result;
}

unsigned int PayloadClassifier::HandoffCallback(oru::PktInfo &pkt, oru::Tuple &tuple,
                                                oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  TransportConn *own = TransportConn::Of(conn.get());
  if (own == nullptr) {
    return oru::INSPECT_NOTHING;
  }
  const unsigned char side = SideOf(*own);
  const oru::InspectorCallback callback = own->m_callback[side];
  own->m_callback[side] = oru::InspectorCallback();
  own->m_event[side] = oru::Inspector::EVENT_NONE;
  if (callback.object.get() == nullptr) {
    return oru::INSPECT_NOTHING;
  }
  return callback.Call(this, pkt, tuple, conn);
}

bool PayloadClassifier::IsTimeToCallback(oru::PktInfo & /*pkt*/, oru::Tuple & /*tuple*/,
                                         oru::fdt::intrusive_ptr<oru::Conn> &conn,
                                         unsigned int & /*result*/) {
  TransportConn *own = TransportConn::Of(conn.get());
  return own != nullptr && own->m_event[SideOf(*own)] != oru::Inspector::EVENT_NONE;
}

void PayloadClassifier::RegisterCallback(oru::fdt::intrusive_ptr<oru::Conn> &conn,
                                         unsigned char side, oru::InspectorCallback callback,
                                         oru::Inspector::Event event) {
  TransportConn *own = TransportConn::Of(conn.get());
  if (own == nullptr) {
    return;
  }
  const unsigned char index = side != 0 ? 1 : 0;
  own->m_callback[index] = callback;
  own->m_event[index] = event;
}

bool PayloadClassifier::ReportTransport(oru::AppStack &stack) {
  if (stack.entries.empty()) {
    oru::ScopedMemTag tag(oru::ScopedMemTag::OBJECT, oru::MemTag::OBJ_APPSTACK_APPPROTO);
    if (stack.entries.push_back(oru::AppEntry{m_proto}) == stack.entries.end()) {
      return false;
    }
  }
  if (stack.app == 0) {
    stack.app = m_proto;
  }
  return true;
}

} // namespace kest_decoders
