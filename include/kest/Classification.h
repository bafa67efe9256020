// The per-thread switchboard between the host's packets and the plug-ins.
//
// Plug-ins register an IClassify per packet form in their thread start-up;
// a packet of that form goes to that handler, or, for payload of a connection
// the host already holds, to the IClassify the connection itself offers. The
// handler's flags become a result code for a sink, and a sink that refuses a
// connection has it destroyed through its transport's connection factory.
// Plug-ins may append further requests to m_deferred while they handle a
// packet; they run after it, in order.
#ifndef KEST_CLASSIFICATION_H
#define KEST_CLASSIFICATION_H

#include <kest/ClassifyRequest.h>
#include <kest/ClassifySink.h>
#include <kest/Conn.h>
#include <kest/Export.h>
#include <kest/IClassify.h>
#include <kest/Runtime.h>
#include <kest/fdt/List.h>
#include <kest/fdt/intrusive_ptr.h>
#include <kest/fdt/refcnt.h>

namespace oru {

class KEST_API Classification {
public:
  enum ClassifyType {
    CLASSIFY_TYPE_0 = 0, // host selector 1
    CLASSIFY_TYPE_1 = 1, // host selector 2
    CLASSIFY_TYPE_2 = 2, // host selector 3
    CLASSIFY_CONN = 3,   // host selector 0: ask the request's connection
  };
  static constexpr int kHandlerRows = 4;

  // One row of the handler table.
  struct Handler {
    IClassify *handler;
    fdt::intrusive_ptr<fdt::refcnt> owner;
  };

  using RequestList = List<ClassifyRequest>;

  // The calling thread's object; made on first use. Null only without memory.
  static Classification *Instance();
  // The thread's object if it exists; never creates one.
  static Classification *Peek();
  // Destroys the thread's object (thread teardown).
  static void Release();

  Classification();
  ~Classification();
  Classification(const Classification &) = delete;
  Classification &operator=(const Classification &) = delete;

  // Fills the row of `type` unless it has a handler already: the first
  // registration wins. Takes a reference on the owner.
  bool Register(ClassifyType type, IClassify *handler, fdt::intrusive_ptr<fdt::refcnt> owner);
  // Clears the row only if both handler and owner are the registered ones.
  void Unregister(ClassifyType type, IClassify *handler, fdt::intrusive_ptr<fdt::refcnt> owner);

  // Runs one request: picks the handler, maps its flags to a code and hands
  // the result to the sink. False when no handler took it or no result came.
  bool Classify(ClassifyRequest &request, ClassifySink &sink);
  // Runs the deferred requests in order, including those appended meanwhile,
  // up to the first that fails; then releases and frees all of them. True
  // when every request ran.
  bool ProcessDeferred(ClassifySink &sink);

  // The result code of a handler's flags, or -1 when none of the result
  // flags is set.
  static int FlagsToCode(unsigned flags);

  // A connection for the tuple from the factory of its protocol, or null.
  // Raises ERR_PROTONOSUPPORT for a protocol other than TCP and UDP.
  static Conn *CreateConn(const Tuple &tuple);
  // Hands the connection to the factory of its Protocol(). Raises
  // ERR_PROTONOSUPPORT for a protocol other than TCP and UDP; a missing
  // factory does nothing.
  static void DestroyConn(Conn *conn);

  // Thread life of the classification layer: connection and flow thread
  // state, and the default connection.
  bool InitThread();
  void ExitThread();

  static ThreadLocalKey l_instance;

private:
  // Unlinks every deferred request from the front, calls its release hook and
  // frees its node.
  void DrainDeferred();

  // A connection with number 0, made at thread start. Only owned here.
  fdt::intrusive_ptr<Conn> m_default_conn;
  Handler m_handlers[kHandlerRows];

public:
  // Requests to run after the current one. Plug-ins append to it; nodes come
  // from kest_malloc_local and are freed here with kest_free_local.
  RequestList m_deferred;
};

} // namespace oru

#endif
