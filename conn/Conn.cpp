#include <kest/AttributeMgr.h>
#include <kest/Clock.h>
#include <kest/Conn.h>
#include <kest/MemTag.h>
#include <kest/SpinLock.h>
#include <stddef.h>

#include "conn/PolicyObserver.h"

namespace oru {

// List nodes and Conn have bases with fields of their own, so offsetof is only
// conditionally supported for them; GCC and Clang lay them out as the Itanium
// ABI says, which is what plug-ins compile against.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

// The walking calls read an entry at the sentinel's place and expect the
// application index there: the index must sit where a node keeps its entry.
static_assert(sizeof(AppStack::EntryList) == sizeof(fdt::list_link),
              "the entry list is its sentinel alone");
static_assert(offsetof(AppStack, entries) == 0, "the stack starts with the sentinel");
static_assert(offsetof(AppEntry, proto) == 0, "an entry starts with its protocol");
static_assert(offsetof(AppStack, app) ==
                  offsetof(AppStack::Node, m_value) + offsetof(AppEntry, proto),
              "the application index reads as the sentinel's entry");
static_assert(offsetof(AppStack, reserved) == offsetof(AppStack, app) + 4, "reserved follows app");

static_assert(offsetof(Tuple, src) == 0 && offsetof(Tuple, dst) == 16 &&
                  offsetof(Tuple, src_port) == 32 && offsetof(Tuple, dst_port) == 34 &&
                  offsetof(Tuple, protocol) == 36,
              "tuple layout is shared with plug-ins");

static_assert(sizeof(IConn) == sizeof(void *), "the interface base is its table pointer");
static_assert(offsetof(Conn, m_touched) == sizeof(void *) + sizeof(fdt::refcnt),
              "fields follow the two table pointers and the count");
static_assert(offsetof(Conn, m_number) == offsetof(Conn, m_touched) + 8, "number after touched");
static_assert(offsetof(Conn, m_policy) == offsetof(Conn, m_number) + 8, "policy after number");
static_assert(offsetof(Conn, m_status) == offsetof(Conn, m_policy) + 4, "status after policy");
static_assert(offsetof(Conn, m_flow) == offsetof(Conn, m_status) + 4, "flows after status");
static_assert(offsetof(Conn, m_app_stack) == offsetof(Conn, m_flow) + 2 * sizeof(FlowBuffer),
              "the application stack after the flows");
static_assert(offsetof(Conn, m_side) == offsetof(Conn, m_app_stack) + sizeof(AppStack),
              "side after the application stack");
static_assert(offsetof(Conn, m_tuple) == offsetof(Conn, m_side) + 8, "tuple last");
#pragma GCC diagnostic pop

ThreadLocalKey Conn::l_active_conn;
ThreadLocalKey Conn::l_default_policy;
ThreadLocalKey Conn::l_conn_expired;
ThreadLocalKey Conn::l_flow_risks;
uint64_t Conn::s_next_conn[kInstanceRows];

namespace {

SlotRegistration g_active_reg(Conn::l_active_conn);
SlotRegistration g_policy_reg(Conn::l_default_policy);
SlotRegistration g_expired_reg(Conn::l_conn_expired);
SlotRegistration g_risks_reg(Conn::l_flow_risks);

const char kExpired[] = "conn.expired";
// Raised by the decoders and by the transports as connections end (the
// kit's kRiskAttribute): the thread holds the name from its start to after
// the plug-ins' end, so that the last connections' risks still reach the
// host, whichever plug-in ends first.
const char kFlowRisks[] = "flow.risks";

// One lock for the counters of all instances: numbering is rare next to the
// packets of a connection.
SpinLock g_number_lock = 0;

uint64_t NextNumber() {
  SpinGuard guard(g_number_lock);
  return ++Conn::s_next_conn[Runtime::l_instance_id];
}

} // namespace

Conn::Conn() : Conn(NextNumber()) {}

Conn::Conn(unsigned long long number)
    : m_touched(0), m_number(number), m_policy(ThreadWord(l_default_policy)), m_status(1),
      m_side(0), m_tuple() {}

void Conn::Touch() {
  m_touched = now();
  ThreadPointer<Conn>(l_active_conn) = this;
}

bool Conn::PushProtocol(uint32_t proto) {
  AppStack::EntryList &entries = m_app_stack.entries;
  if (entries.empty() || entries.back().proto != proto) {
    ScopedMemTag tag(ScopedMemTag::OBJECT, MemTag::OBJ_APPSTACK_APPPROTO);
    if (entries.push_back(AppEntry{proto}) == entries.end()) {
      return false;
    }
  }
  m_app_stack.app = proto;
  return true;
}

bool Conn::Idle() const {
  return now() - m_touched > kIdleMs;
}

void Conn::DispatchExpired() {
  const int id = static_cast<int>(ThreadWord(l_conn_expired));
  if (id < 1) {
    return;
  }
  // The active connection's policy rules, whichever connection is expiring.
  // A thread that has touched no connection yet has no policy to go by.
  const Conn *active = ThreadPointer<Conn>(l_active_conn);
  if (active == nullptr || (active->m_policy & POLICY_ATTRIBUTES) == 0) {
    return;
  }
  if (AttributeMgr *attributes = AttributeMgr::Peek()) {
    attributes->DispatchAttribute(id, reinterpret_cast<const uint8_t *>(&m_number),
                                  sizeof(m_number), 0, 0);
  }
}

bool Conn::InitInstance() {
  {
    SpinGuard guard(g_number_lock);
    s_next_conn[Runtime::l_instance_id] = 0;
  }
  PolicyObserver::InitInstance();
  fdt::string name;
  if (name.append(kExpired)) {
    AttributeMgr::Create(name);
  }
  fdt::string risks;
  if (risks.append(kFlowRisks)) {
    AttributeMgr::Create(risks);
  }
  return true;
}

bool Conn::InitThread() {
  if (!PolicyObserver::InitThread()) {
    return false;
  }
  ThreadWord(l_conn_expired) = 0;
  ThreadWord(l_flow_risks) = 0;
  AttributeMgr *attributes = AttributeMgr::Instance();
  fdt::string name;
  fdt::string risks;
  return attributes != nullptr && name.append(kExpired) && risks.append(kFlowRisks) &&
         attributes->Register(name, reinterpret_cast<int *>(&ThreadCell(l_conn_expired))) &&
         attributes->Register(risks, reinterpret_cast<int *>(&ThreadCell(l_flow_risks)));
}

void Conn::ExitThread() {
  PolicyObserver::ExitThread();
  // Gives the name back, so that the thread's connections can start again.
  if (AttributeMgr *attributes = AttributeMgr::Peek()) {
    fdt::string name;
    if (name.append(kExpired)) {
      attributes->Unregister(name);
    }
    fdt::string risks;
    if (risks.append(kFlowRisks)) {
      attributes->Unregister(risks);
    }
  }
  ThreadWord(l_conn_expired) = 0;
  ThreadWord(l_flow_risks) = 0;
}

} // namespace oru
