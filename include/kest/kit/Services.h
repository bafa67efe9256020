// Reporting server names for service naming (kest/IServices.h): one call
// from a decoder, wherever it reads a name. Without the service plug-in
// the calls do nothing.
#ifndef KEST_KIT_SERVICES_H
#define KEST_KIT_SERVICES_H

#include <kest/IServices.h>
#include <kest/InterfaceBroker.h>
#include <kest/kit/ModuleIds.h>

#include <stddef.h>
#include <stdint.h>

namespace oru::kit {

// The thread's service interface, or null.
inline oru::IServices *ThreadServices() {
  oru::InterfaceBroker *broker = oru::InterfaceBroker::Peek();
  return broker != nullptr ? static_cast<oru::IServices *>(
                                 broker->GetInterface(MODULE_SERVICE, oru::INTERFACE_SERVICES))
                           : nullptr;
}

// The active connection's server is called `name`, as `source` says.
inline void ReportServerName(const void *name, size_t length, oru::ServiceSource source) {
  if (oru::IServices *services = ThreadServices(); services != nullptr && length != 0) {
    services->ReportName(static_cast<const char *>(name), length, source);
  }
}

// A decoder's own server-name attribute (Spec attribute `attribute`),
// published and reported for service naming in one step.
template <class S>
void PublishServerName(S &s, int attribute, const void *name, size_t length,
                       oru::ServiceSource source) {
  s.Publish(attribute, name, length);
  ReportServerName(name, length, source);
}

// A DNS answer: `address` (4 or 16 bytes) serves `name` for `ttl` seconds.
inline void ReportDnsAnswer(const uint8_t *address, size_t address_length, const char *name,
                            size_t length, uint32_t ttl) {
  if (oru::IServices *services = ThreadServices(); services != nullptr && length != 0) {
    services->LearnAddress(address, address_length, name, length, ttl);
  }
}

} // namespace oru::kit

#endif
