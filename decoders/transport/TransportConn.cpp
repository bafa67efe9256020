#include "transport/TransportConn.h"

#include <kest.h>
#include <new>

namespace kest_decoders {

TransportConn *TransportConn::Make(const oru::Tuple &tuple, oru::IClassify *classify,
                                   ConnTable *table) {
  void *block = kest_malloc_local(sizeof(TransportConn));
  if (block == nullptr) {
    return nullptr;
  }
  return ::new (block) TransportConn(tuple, classify, table);
}

TransportConn::TransportConn(const oru::Tuple &tuple, oru::IClassify *classify, ConnTable *table)
    : m_prev(nullptr), m_next(nullptr), m_index_next(nullptr),
      m_index_hash(0), m_event{0, 0}, m_seq_known{0, 0}, m_fin{0, 0}, m_seen{0, 0}, m_aged(0),
      m_closed(0), m_age(0), m_gate_started{0, 0}, m_spoke(0), m_opened(0),
      m_port_judged(0), m_gate{}, m_gate_first{}, m_classify(classify), m_table(table) {
  m_tuple = tuple;
}

void *TransportConn::GetInterface(oru::InterfaceId id) {
  switch (id) {
  case oru::INTERFACE_CONN_CLASSIFY:
    return m_classify;
  case INTERFACE_OWNER_TABLE:
    return m_table;
  case INTERFACE_TRANSPORT_CONN:
    return this;
  default:
    return nullptr;
  }
}

void TransportConn::EndInspection() {
  oru::fdt::intrusive_ptr<oru::Conn> self(this);
  m_chain.Clear(self);
  for (int side = 0; side < 2; ++side) {
    m_callback[side] = oru::InspectorCallback();
    m_event[side] = oru::Inspector::EVENT_NONE;
  }
}

} // namespace kest_decoders
