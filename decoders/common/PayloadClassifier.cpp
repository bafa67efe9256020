#include "common/PayloadClassifier.h"

#include <kest/Error.h>
#include <kest/MemTag.h>

namespace kest_decoders {

namespace {

// A block holds at most this many bytes.
constexpr uint32_t kMaxBlock = 0xFFFF;

} // namespace

unsigned PayloadClassifier::Classify(oru::ClassifyPacket *packet,
                                     oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  oru::Conn *target = packet->conn;
  if (target == nullptr || packet->length == 0 || packet->length > kMaxBlock) {
    return 0;
  }
  oru::ScopedMemTag tag(oru::ScopedMemTag::CONTEXT, m_context);
  if (!ReportTransport(*target->GetAppStack())) {
    oru::ThrowError(oru::ERR_NOMEM);
    return 0;
  }
  oru::FlowBuffer &flow = target->m_flow[target->m_side != 0 ? 1 : 0];
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

  // The block borrows the packet: it either owns a copy when the packet
  // returns or is gone. A failed copy loses the unconsumed bytes, as any
  // failed Sync does.
  if (!Inspect(*target, flow) || !flow.Sync()) {
    flow.Flush();
  }
  return RESULT_STAY;
}

bool PayloadClassifier::Inspect(oru::Conn & /*conn*/, oru::FlowBuffer & /*flow*/) {
  return false;
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
