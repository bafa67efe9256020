// The object a transport plug-in registers as INTERFACE_CONN_FACTORY of its
// module (MODULE_TCP for IP protocol 6, MODULE_UDP for 17): it makes and
// destroys that protocol's connections.
#ifndef KEST_ICONNFACTORY_H
#define KEST_ICONNFACTORY_H

#include <kest/Conn.h>
#include <kest/Export.h>

namespace oru {

// Two operations in this table order, nothing else: plug-ins implement it
// against this exact layout.
class KEST_API IConnFactory {
public:
  // A new connection for the tuple, or null.
  virtual Conn *Create(const Tuple &tuple) = 0;
  // Removes the connection from the plug-in's tables and drops its references.
  virtual void Destroy(Conn *conn) = 0;

protected:
  ~IConnFactory() = default;
};

} // namespace oru

#endif
