#include "common/PayloadClassifier.h"

#include "common/TransportConn.h"

#include <kest/Clock.h>
#include <kest/Error.h>
#include <kest/MemTag.h>

namespace kest_decoders {

namespace {

// A block holds at most this many bytes.
constexpr uint32_t kMaxBlock = 0xFFFF;

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
  target->Touch();
  conn = target;

  oru::PktInfo pkt{static_cast<const uint8_t *>(packet->data),
                   size,
                   side,
                   0,
                   oru::PktInfo::kNoOffset,
                   oru::PktInfo::kNoOffset,
                   0,
                   pos,
                   oru::now(),
                   nullptr,
                   0};
  const unsigned result = Handoff(own->m_chain, pkt, target->m_tuple, conn);

  // The block borrows the packet: unless an inspector made it outlive the
  // packet (Sync), everything up to the end of the stream goes now.
  if (!KeptByInspection(flow)) {
    flow.Flush();
  }
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
