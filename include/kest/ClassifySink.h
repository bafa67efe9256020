// Where classification results go.
#ifndef KEST_CLASSIFYSINK_H
#define KEST_CLASSIFYSINK_H

#include <kest/Conn.h>
#include <kest/Export.h>
#include <kest/fdt/intrusive_ptr.h>

namespace oru {

class KEST_API ClassifySink {
public:
  // One result: the connection, the code (0 to 3) and kest_errno as the
  // handler left it. False asks for the connection to be destroyed.
  virtual bool OnClassified(fdt::intrusive_ptr<Conn> &conn, int code, int error) = 0;

protected:
  ~ClassifySink() = default;
};

} // namespace oru

#endif
