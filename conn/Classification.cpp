#include <kest/Classification.h>
#include <kest/Error.h>
#include <kest/IConnFactory.h>
#include <kest/InterfaceBroker.h>
#include <kest/ThreadSingleton.h>
#include <new>
#include <stddef.h>

#include "flow/ReorderWindow.h"

namespace oru {

ThreadLocalKey Classification::l_instance;

namespace {

SlotRegistration g_classification_reg(Classification::l_instance);

// Result flags in the order they are tested; the first hit decides, so code 0
// wins over all others. The masks span the values inspection steps return.
struct FlagCode {
  unsigned mask;
  int code;
};
constexpr FlagCode kFlagCodes[] = {
    {0x100, 0},
    {3, 1},
    {60, 2},
    {192, 3},
};

// The connection factory of an IP protocol, or null. Raises
// ERR_PROTONOSUPPORT for anything but TCP and UDP.
IConnFactory *FactoryOf(uint8_t protocol) {
  ModuleId module;
  if (protocol == 6) {
    module = MODULE_TCP;
  } else if (protocol == 17) {
    module = MODULE_UDP;
  } else {
    ThrowError(ERR_PROTONOSUPPORT);
    return nullptr;
  }
  InterfaceBroker *broker = InterfaceBroker::Instance();
  if (broker == nullptr) {
    return nullptr;
  }
  return static_cast<IConnFactory *>(broker->GetInterface(module, INTERFACE_CONN_FACTORY));
}

// Calls the release hook of a request, if it has one.
void ReleaseRequest(ClassifyRequest &request) {
  if (request.packet.release != nullptr) {
    request.packet.release(&request.packet, request.packet.release_arg);
  }
}

} // namespace

Classification *Classification::Instance() {
  return SingletonInstance<Classification>(l_instance);
}

Classification *Classification::Peek() {
  return SingletonPeek<Classification>(l_instance);
}

void Classification::Release() {
  SingletonRelease<Classification>(l_instance);
}

Classification::Classification() : m_handlers() {
  // Plug-ins append to m_deferred in place: the field order is theirs too.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
  static_assert(offsetof(Classification, m_default_conn) == 0, "default connection first");
  static_assert(offsetof(Classification, m_handlers) == sizeof(void *), "then the handler table");
  static_assert(sizeof(Handler) == 2 * sizeof(void *), "a row is handler and owner");
  static_assert(offsetof(Classification, m_deferred) ==
                    offsetof(Classification, m_handlers) + kHandlerRows * sizeof(Handler),
                "then the deferred list");
#pragma GCC diagnostic pop
}

// Members then go in reverse: the (drained) list, the owners from the last
// row to the first, the default connection.
Classification::~Classification() {
  DrainDeferred();
}

bool Classification::Register(ClassifyType type, IClassify *handler,
                              fdt::intrusive_ptr<fdt::refcnt> owner) {
  // A row outside the table would land in the fields behind it.
  const int index = type;
  if (index < 0 || index >= kHandlerRows) {
    return false;
  }
  Handler &row = m_handlers[index];
  if (row.handler != nullptr) {
    return false;
  }
  row.handler = handler;
  row.owner = owner;
  return true;
}

void Classification::Unregister(ClassifyType type, IClassify *handler,
                                fdt::intrusive_ptr<fdt::refcnt> owner) {
  const int index = type;
  if (index < 0 || index >= kHandlerRows) {
    return;
  }
  Handler &row = m_handlers[index];
  if (row.handler != handler || row.owner != owner) {
    return;
  }
  row.handler = nullptr;
  row.owner.reset();
}

int Classification::FlagsToCode(unsigned flags) {
  for (const FlagCode &entry : kFlagCodes) {
    if ((flags & entry.mask) != 0) {
      return entry.code;
    }
  }
  return -1;
}

bool Classification::Classify(ClassifyRequest &request, ClassifySink &sink) {
  const int type = request.type;
  if (type < 0) {
    return false;
  }
  IClassify *handler;
  if (type < CLASSIFY_CONN) {
    handler = m_handlers[type].handler;
  } else if (type == CLASSIFY_CONN) {
    Conn *owner = request.packet.conn;
    if (owner == nullptr) {
      return false;
    }
    handler = static_cast<IClassify *>(owner->GetInterface(INTERFACE_CONN_CLASSIFY));
  } else {
    return false;
  }
  if (handler == nullptr) {
    return false;
  }

  fdt::intrusive_ptr<Conn> conn;
  const int code = FlagsToCode(handler->Classify(&request.packet, conn));
  // A handler that reports a result owes the connection; without one there
  // is nothing to report on.
  if (code < 0 || !conn) {
    return false;
  }
  bool keep;
  {
    fdt::intrusive_ptr<Conn> result(conn);
    keep = sink.OnClassified(result, code, kest_errno);
  }
  if (!keep) {
    // Our reference keeps the object alive while the factory lets go of it.
    DestroyConn(conn.get());
  }
  return true;
}

bool Classification::ProcessDeferred(ClassifySink &sink) {
  if (m_deferred.empty()) {
    return true;
  }
  // The end is read anew at each step, so requests that handlers append
  // during the walk run too.
  bool complete = true;
  for (RequestList::iterator it = m_deferred.begin(); it != m_deferred.end(); ++it) {
    kest_errno = 0;
    if (!Classify(*it, sink)) {
      complete = false;
      break;
    }
  }
  DrainDeferred();
  return complete;
}

void Classification::DrainDeferred() {
  while (!m_deferred.empty()) {
    fdt::list_link *link = m_deferred.begin().node();
    link->m_prev->m_next = link->m_next;
    link->m_next->m_prev = link->m_prev;
    RequestList::node_type *node = static_cast<RequestList::node_type *>(link);
    ReleaseRequest(node->m_value);
    kest_free_local(node);
  }
}

Conn *Classification::CreateConn(const Tuple &tuple) {
  IConnFactory *factory = FactoryOf(tuple.protocol);
  return factory != nullptr ? factory->Create(tuple) : nullptr;
}

void Classification::DestroyConn(Conn *conn) {
  IConnFactory *factory = FactoryOf(conn->Protocol());
  if (factory != nullptr) {
    factory->Destroy(conn);
  }
}

bool Classification::InitThread() {
  if (!Conn::InitThread() || !ReorderWindow::InitThread()) {
    ThrowError(ERR_NOMEM);
    return false;
  }
  void *block = kest_malloc_local(sizeof(Conn));
  if (block != nullptr) {
    m_default_conn = ::new (block) Conn(0ULL);
  }
  if (!m_default_conn) {
    ThrowError(ERR_NOMEM);
    return false;
  }
  return true;
}

void Classification::ExitThread() {
  m_default_conn.reset();
  Conn::ExitThread();
  ReorderWindow::ExitThread();
}

} // namespace oru
