// A plug-in's packet entry point.
#ifndef KEST_ICLASSIFY_H
#define KEST_ICLASSIFY_H

#include <kest/ClassifyRequest.h>
#include <kest/Conn.h>
#include <kest/Export.h>
#include <kest/fdt/intrusive_ptr.h>

namespace oru {

// One virtual operation and nothing else in the table: plug-ins implement it
// against this exact layout.
class KEST_API IClassify {
public:
  // Handles one packet. `conn` starts out null; the handler sets it to the
  // connection the packet belongs to. The result is a word of flags; whenever
  // it maps to a result code, `conn` must be set.
  virtual unsigned Classify(ClassifyPacket *packet, fdt::intrusive_ptr<Conn> &conn) = 0;

protected:
  ~IClassify() = default;
};

} // namespace oru

#endif
