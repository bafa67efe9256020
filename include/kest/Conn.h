// The connection base class: the library's record of one bidirectional flow.
//
// The library never makes a real connection: the TCP and UDP plug-ins derive
// from Conn and create and destroy their objects through their connection
// factories (INTERFACE_CONN_FACTORY). The base holds what all flows share:
// identity, the two byte streams, the policy and status words, the
// application stack and the endpoints. A connection and its reference count
// belong to the one thread that processes it.
//
// The whole object is plug-in ABI: the order of the first virtual table and
// the order and widths of the fields stay as they are.
#ifndef KEST_CONN_H
#define KEST_CONN_H

#include <kest/Export.h>
#include <kest/FlowBuffer.h>
#include <kest/InterfaceBroker.h>
#include <kest/IpAddr.h>
#include <kest/Runtime.h>
#include <kest/fdt/List.h>
#include <kest/fdt/refcnt.h>
#include <stdint.h>

namespace oru {

// Policy bits: what may be done for a connection. The status word uses the
// same positions for what has been found or done. The bits of value 1 and 2
// have no name and no configuration key.
enum : uint32_t {
  POLICY_CHAMELEON = 4,
  POLICY_FUTUREFLOWS = 8,
  POLICY_ATTRIBUTES = 16,
  POLICY_TUNNELS = 32,
};

// Addresses, ports (host byte order) and IP protocol of a connection. Filled
// by the plug-in that derives the connection, from what its factory was given.
struct KEST_API Tuple {
  IpAddr src;
  IpAddr dst;
  uint16_t src_port;
  uint16_t dst_port;
  uint8_t protocol;
};

// One protocol of an application stack. In the list node it follows the two
// links; plug-ins may keep more behind it in nodes they size themselves.
struct KEST_API AppEntry {
  uint32_t proto;
};

// The protocols a connection carries, lowest first, and its application.
//
// The application index sits right behind the list's sentinel, at the place
// where a node keeps its entry. A walk that reaches the end of the list
// (the sentinel) therefore reads the application index as the entry's
// protocol: the host's walking calls and kest_app_get rely on that.
struct KEST_API AppStack {
  using EntryList = List<AppEntry>;
  using Node = EntryList::node_type;

  EntryList entries;
  uint32_t app;
  uint32_t reserved;

  AppStack() : app(0), reserved(0) {}
  AppStack(const AppStack &) = delete;
  AppStack &operator=(const AppStack &) = delete;
};

// The base that carries the first virtual table of every connection. Its
// order is fixed: GetInterface, Protocol, SetSide, destructor, deleting
// destructor, Expired.
class KEST_API IConn {
public:
  // Interfaces of the connection itself (not the broker's): a derived class
  // answers INTERFACE_CONN_CLASSIFY with its IClassify.
  virtual void *GetInterface(InterfaceId id) = 0;
  // IP protocol: 6 or 17 for the plug-ins' connections, 0 for the base.
  virtual uint8_t Protocol() const = 0;
  // Side of the packet being handled, 0 or 1.
  virtual void SetSide(unsigned char side) = 0;
  virtual ~IConn() {}
  // Called by the owning plug-in when it removes the connection: reports
  // "conn.expired" to its listeners.
  virtual void Expired() = 0;
};

class KEST_API Conn : public IConn, public fdt::refcnt {
public:
  // Takes the next number of the current instance: the first is 1.
  Conn();
  // Takes the given number; the instance's counter is left alone.
  explicit Conn(unsigned long long number);
  // Members go in reverse: the application stack (each node with
  // kest_free_local), then both flow buffers.
  ~Conn() override {}

  Conn(const Conn &) = delete;
  Conn &operator=(const Conn &) = delete;

  // Connections come whole from kest_malloc_local, with no object prefix.
  KEST_DELETE_WITH_FREE_LOCAL

  // The virtual operations are defined here, so that the class has no key
  // function: plug-ins built with run-time type information then emit the
  // type information of Conn themselves, which the library does not have.
  void *GetInterface(InterfaceId /*id*/) override { return nullptr; }
  uint8_t Protocol() const override { return 0; }
  void SetSide(unsigned char side) override { m_side = side; }
  void Expired() override { DispatchExpired(); }

  // What Expired() does in the base: if anyone on this thread listens to
  // "conn.expired" and the thread's active connection (not this one) has
  // POLICY_ATTRIBUTES, dispatches this connection's 8-byte number. The
  // owning plug-in must have touched a live connection on this thread.
  void DispatchExpired();

  // Marks the connection as seen now and as this thread's active connection.
  void Touch();
  uint64_t Touched() const { return m_touched; }
  // True when more than a minute has passed since the last Touch().
  bool Idle() const;
  AppStack *GetAppStack() { return &m_app_stack; }
  // Puts `proto` (a protocol index) on top of the application stack, unless
  // it is there already, and makes it the application: what an inspector
  // does when it has recognised its protocol, so that the host's walk reads
  // the transport, then it. False without memory; the stack is then as it
  // was.
  bool PushProtocol(uint32_t proto);

  // Instance and thread life. The instance start-up sets the default policy
  // keys and creates "conn.expired" and "flow.risks"; the thread start-up
  // makes the thread's default policy follow those keys and registers for
  // both names. False
  // without memory or when the registration fails.
  static bool InitInstance();
  static bool InitThread();
  static void ExitThread();

  // Idle() holds a connection idle beyond this many milliseconds.
  static constexpr uint64_t kIdleMs = 60000;

  // The connection last touched on this thread; no reference is held.
  static ThreadLocalKey l_active_conn;
  // The thread's default policy word, copied by every new connection.
  static ThreadLocalKey l_default_policy;
  // The thread's identifier of "conn.expired"; 0 or less while nobody listens.
  static ThreadLocalKey l_conn_expired;
  // The thread's identifier of "flow.risks", registered like "conn.expired"
  // so that it outlives the plug-ins that raise risks.
  static ThreadLocalKey l_flow_risks;
  // Last number handed out, per instance, under a process-wide lock.
  static uint64_t s_next_conn[kInstanceRows];

  uint64_t m_touched;
  uint64_t m_number;
  uint32_t m_policy;
  uint32_t m_status;
  // One stream per side, indexed by m_side.
  FlowBuffer m_flow[2];
  AppStack m_app_stack;
  uint8_t m_side;
  Tuple m_tuple;
};

} // namespace oru

#endif
