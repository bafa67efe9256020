// How an application decoder puts its inspector on connections: on every
// port of TCP and/or UDP (its bytes decide, never the port), tried before
// the other decoders on the protocol's well-known ports. Where the
// transport offers its decoder gate (kest/IDecoderGate.h) the inspector
// joins it, and a connection's chain holds one entry for all the decoders;
// otherwise it goes on the transport's rule store, on every port and again
// on the well-known ones with priority 0 (the store keeps each inspector
// once per chain, so a connection on a well-known port gets it once, early).
//
// Call Attach in the plug-in's LinkThread (the transports' stores are
// registered by then) and Detach in its ExitThread; both run on the thread
// that owns the stores.
#ifndef KEST_KIT_ATTACH_H
#define KEST_KIT_ATTACH_H

#include <kest/IDecoderGate.h>
#include <kest/Inspector.h>
#include <kest/InterfaceBroker.h>
#include <kest/IpPortRuleStore.h>

#include <stddef.h>
#include <stdint.h>

namespace oru::kit {

struct AppPorts {
  // 6 for TCP or 17 for UDP.
  uint8_t ip_protocol;
  // Well-known ports, tried first; may be empty.
  const uint16_t *ports;
  size_t port_count;
};

// An interface of the transport (TCP for 6, UDP otherwise) on this thread,
// or null (its thread may have ended first).
inline void *TransportInterface(uint8_t ip_protocol, oru::InterfaceId id) {
  oru::InterfaceBroker *broker = oru::InterfaceBroker::Peek();
  const oru::ModuleId module = ip_protocol == 6 ? oru::MODULE_TCP : oru::MODULE_UDP;
  return broker == nullptr ? nullptr : broker->GetInterface(module, id);
}

// The transport's store.
inline oru::IpPortRuleStore *AppRules(uint8_t ip_protocol) {
  return static_cast<oru::IpPortRuleStore *>(
      TransportInterface(ip_protocol, oru::INTERFACE_IPPORT_RULE_STORE));
}

// The transport's decoder gate.
inline oru::IDecoderGate *AppGate(uint8_t ip_protocol) {
  return static_cast<oru::IDecoderGate *>(
      TransportInterface(ip_protocol, oru::INTERFACE_DECODER_GATE));
}

// False when a store is missing or refused a rule (without memory), or the
// gate is full. With `first`, the gate offers the inspector only the
// connections whose first bytes it allows (IDecoderGate::Narrow); the
// store, without a gate, offers it every one.
inline bool Attach(oru::Inspector *inspector, const AppPorts &where,
                   const oru::FirstBytes *first = nullptr) {
  if (oru::IDecoderGate *gate = AppGate(where.ip_protocol)) {
    if (!gate->Join(inspector, where.ports, where.port_count)) {
      return false;
    }
    if (first != nullptr) {
      gate->Narrow(inspector, *first);
    }
    return true;
  }
  oru::IpPortRuleStore *rules = AppRules(where.ip_protocol);
  if (rules == nullptr || inspector == nullptr) {
    return false;
  }
  bool ok = rules->AddRule(where.ip_protocol, oru::InspectorCallback(inspector), 0, {}, {}, 0,
                           oru::IpPortRuleStore::EXPIRY_LOCAL, false);
  for (size_t i = 0; i < where.port_count; ++i) {
    ok = rules->AddRule(where.ip_protocol, oru::InspectorCallback(inspector), where.ports[i], {},
                        {}, 0, oru::IpPortRuleStore::EXPIRY_LOCAL, true) &&
         ok;
  }
  return ok;
}

inline void Detach(oru::Inspector *inspector, const AppPorts &where) {
  if (oru::IDecoderGate *gate = AppGate(where.ip_protocol)) {
    gate->Leave(inspector);
    return;
  }
  oru::IpPortRuleStore *rules = AppRules(where.ip_protocol);
  if (rules == nullptr || inspector == nullptr) {
    return;
  }
  rules->RemoveRuleFast(where.ip_protocol, oru::InspectorCallback(inspector), 0, {}, {});
  for (size_t i = 0; i < where.port_count; ++i) {
    rules->RemoveRuleFast(where.ip_protocol, oru::InspectorCallback(inspector), where.ports[i], {},
                          {});
  }
}

} // namespace oru::kit

#endif
