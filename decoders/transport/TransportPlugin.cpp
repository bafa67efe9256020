#include "transport/TransportPlugin.h"

#include "transport/LimitSettings.h"

#include <kest.h>
#include <kest/Configuration.h>
#include <kest/MemTag.h>
#include <kest/ProtocolRegistry.h>
#include <kest/SyncEventQueue.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest/kit/Risks.h>

namespace kest_decoders {

bool TransportPlugin::GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) const {
  return oru::kit::SdkVersion(library, own);
}

namespace {

// What a thread's table offers through the broker, each as the interface it
// is looked up as. The connection factory comes last: through it the library
// (and Table()) find the table again.
struct Offer {
  oru::InterfaceId id;
  void *object;
};
constexpr int kOffers = 6;

void OffersOf(ConnTable &table, Offer (&out)[kOffers]) {
  out[0] = {oru::INTERFACE_IPPORT_RULE_STORE, static_cast<oru::IpPortRuleStore *>(&table.Rules())};
  out[1] = {oru::INTERFACE_CUSTOM_RULE, static_cast<oru::ICustomRule *>(&table.Custom())};
  out[2] = {oru::INTERFACE_TRANSPORT_SEGMENT,
            static_cast<oru::ITransportSegment *>(&table.Classifier())};
  out[3] = {oru::INTERFACE_IDLE, static_cast<oru::IIdle *>(&table)};
  out[4] = {oru::INTERFACE_DECODER_GATE, static_cast<oru::IDecoderGate *>(table.m_gate)};
  out[5] = {oru::INTERFACE_CONN_FACTORY, static_cast<oru::IConnFactory *>(&table)};
}

} // namespace

bool TransportPlugin::InitInstance() const {
  if (!LimitSettings::SetDefaults(m_name, m_ip_protocol == 6)) {
    return false;
  }
  oru::RegisterProtocol(m_protocol);
  if (oru::GetProtocolId(m_protocol) == 0) {
    return false;
  }
  return oru::InterfaceBroker::RegisterModule(m_module, m_protocol);
}

bool TransportPlugin::InitThread() const {
  const int proto = oru::GetProtocolId(m_protocol);
  oru::InterfaceBroker *broker = oru::InterfaceBroker::Instance();
  if (proto <= 0 || broker == nullptr ||
      broker->GetInterface(m_module, oru::INTERFACE_CONN_FACTORY) != nullptr) {
    return false;
  }
  ConnTable *table;
  {
    oru::ScopedMemTag tag(oru::ScopedMemTag::CONTEXT, m_context);
    table = oru::fdt::CreateObject<ConnTable>(oru::fdt::OBJECT_LOCAL, m_ip_protocol,
                                              static_cast<uint32_t>(proto), m_context, m_name);
  }
  if (table == nullptr) {
    return false;
  }
  table->m_settings = LimitSettings::Watch(table, m_name);
  if (table->m_settings == nullptr) {
    oru::fdt::DestroyObject(table);
    return false;
  }
  {
    oru::ScopedMemTag tag(oru::ScopedMemTag::CONTEXT, m_context);
    table->m_gate =
        oru::fdt::CreateObject<DecoderGate>(oru::fdt::OBJECT_LOCAL, table->Rules(), m_ip_protocol);
  }
  if (table->m_gate == nullptr) {
    oru::fdt::DestroyObject(table);
    return false;
  }
  table->m_gate->add_ref();
  // Known by now: every plug-in named its protocols when the instance opened.
  table->m_one_way[0] = static_cast<uint32_t>(oru::GetProtocolId("FTP_DATA"));
  table->m_one_way[1] = static_cast<uint32_t>(oru::GetProtocolId("Syslog"));
  oru::SyncEventQueue *queue = oru::SyncEventQueue::Instance();
  const uint32_t event = oru::SyncEventQueue::RegisterEvent(m_event);
  table->Rules().m_event = event;
  if (queue == nullptr || event == 0 ||
      !queue->InstallHandler(event, table, oru::MakeEventMethod(&ConnTable::OnRuleUsed))) {
    oru::fdt::DestroyObject(table);
    return false;
  }
  Offer offers[kOffers];
  OffersOf(*table, offers);
  int made = 0;
  while (made < kOffers &&
         broker->RegisterInterface(m_module, offers[made].id, offers[made].object)) {
    ++made;
  }
  if (made == kOffers) {
    return true;
  }
  while (made-- > 0) {
    broker->UnregisterInterface(m_module, offers[made].id, offers[made].object);
  }
  queue->InstallHandler(event, nullptr, nullptr);
  oru::fdt::DestroyObject(table);
  return false;
}

void TransportPlugin::ExitThread() const {
  ConnTable *table = Table();
  if (table == nullptr) {
    return;
  }
  oru::InterfaceBroker *broker = oru::InterfaceBroker::Instance();
  Offer offers[kOffers];
  OffersOf(*table, offers);
  for (const Offer &offer : offers) {
    broker->UnregisterInterface(m_module, offer.id, offer.object);
  }
  oru::SyncEventQueue *queue = oru::SyncEventQueue::Peek();
  if (queue != nullptr && table->Rules().m_event != 0) {
    queue->InstallHandler(table->Rules().m_event, nullptr, nullptr);
  }
  oru::fdt::DestroyObject(table);
}

void TransportPlugin::ExitInstance() const {
  oru::InterfaceBroker::UnregisterModule(m_module, m_protocol);
}

ConnTable *TransportPlugin::Table() const {
  oru::InterfaceBroker *broker = oru::InterfaceBroker::Peek();
  if (broker == nullptr) {
    return nullptr;
  }
  // Registered as its factory interface, so it comes back the same way.
  void *factory = broker->GetInterface(m_module, oru::INTERFACE_CONN_FACTORY);
  return static_cast<ConnTable *>(static_cast<oru::IConnFactory *>(factory));
}

} // namespace kest_decoders
