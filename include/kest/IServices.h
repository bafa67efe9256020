// Services: which service ("YouTube", "Microsoft 365") a connection's server
// belongs to. The service plug-in offers this interface on each thread as
// INTERFACE_SERVICES of MODULE_SERVICE; decoders reach it through
// kest/kit/Services.h rather than directly.
//
// The plug-in matches what it is told against its catalogue and publishes
// "service.name", "service.category" and "service.source" on the thread's
// active connection: once per connection and service, a better source
// replacing a worse one (sni and host above dns, dns above address).
#ifndef KEST_ISERVICES_H
#define KEST_ISERVICES_H

#include <kest/Export.h>
#include <kest/InterfaceBroker.h>
#include <stddef.h>
#include <stdint.h>

namespace oru {

constexpr InterfaceId INTERFACE_SERVICES = 25;

// Where a server name came from, worst first; the values are fixed.
enum ServiceSource : uint8_t {
  SERVICE_SOURCE_NONE = 0,
  // A published address range of the catalogue holds the server's address.
  SERVICE_SOURCE_ADDRESS = 1,
  // A DNS query, or a DNS answer that led to the server's address.
  SERVICE_SOURCE_DNS = 2,
  // An HTTP Host header or HTTP/2 :authority.
  SERVICE_SOURCE_HOST = 3,
  // A TLS, DTLS or QUIC server name.
  SERVICE_SOURCE_SNI = 4,
};

// Virtual table order fixed: ReportName, LearnAddress. No virtual
// destructor: the plug-in owns the object.
class KEST_API IServices {
public:
  // The active connection's server is called `name` (`length` bytes, not
  // NUL-terminated; one trailing dot is ignored), as `source` says.
  virtual void ReportName(const char *name, size_t length, ServiceSource source) = 0;
  // A DNS answer: `address` (4 bytes IPv4 or 16 bytes IPv6, network order)
  // serves `name`, the name the client asked for, for `ttl` seconds.
  virtual void LearnAddress(const uint8_t *address, size_t address_length, const char *name,
                            size_t length, uint32_t ttl) = 0;

protected:
  ~IServices() = default;
};

} // namespace oru

#endif
