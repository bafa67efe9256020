// The host's view of connections: making and dropping them, reading and
// switching off what concerns the active one, walking the application stack
// of a result, protocol names and indices, and kest_classify_simple.
#include <kest.h>
#include <kest/Classification.h>
#include <kest/Conn.h>
#include <kest/Error.h>
#include <kest/IpAddr.h>
#include <kest/ProtocolRegistry.h>
#include <kest/fdt/basic_string.h>

#include "runtime/ApiFrame.h"
#include "runtime/ApiSlots.h"

namespace oru {

namespace {

constexpr int kFullConfidence = 100;
// The top of the stack is only the transport: the application index was
// guessed from something else, a port for instance.
constexpr int kTransportConfidence = 50;

// Host policy flags and the policy bits each one clears.
struct PolicyFlag {
  unsigned host;
  uint32_t bits;
};
constexpr uint32_t kAllPolicyBits = 63;
constexpr PolicyFlag kPolicyFlags[] = {
    {KEST_POLICY_ALL, kAllPolicyBits},
    {KEST_POLICY_CHAMELEON, POLICY_CHAMELEON},
    {KEST_POLICY_FUTUREFLOWS, POLICY_FUTUREFLOWS},
    {KEST_POLICY_ATTRIBUTES, POLICY_ATTRIBUTES},
    {KEST_POLICY_TUNNELS, POLICY_TUNNELS},
};
constexpr unsigned kPolicyFlagLimit = 32;

// A port field of a host record (network order) in host order, and back.
uint16_t PortFromRecord(const kest_endpoint_t &record) {
  const uint8_t *bytes = reinterpret_cast<const uint8_t *>(&record.port);
  return static_cast<uint16_t>((bytes[0] << 8) | bytes[1]);
}

void PortToRecord(uint16_t port, kest_endpoint_t &record) {
  uint8_t *bytes = reinterpret_cast<uint8_t *>(&record.port);
  bytes[0] = static_cast<uint8_t>(port >> 8);
  bytes[1] = static_cast<uint8_t>(port);
}

void FillRecord(const IpAddr &address, uint16_t port, kest_endpoint_t &record) {
  record.family = static_cast<uint8_t>(address.ToEndpoint(record.address));
  PortToRecord(port, record);
}

// The thread's active connection if it has number `number`; otherwise error
// 22 and null. Only the connection last touched on this thread qualifies.
Conn *ActiveConn(kest_conn_id_t number) {
  Conn *conn = ThreadPointer<Conn>(Conn::l_active_conn);
  if (conn == nullptr || conn->m_number != number) {
    ThrowError(ERR_INVAL);
    return nullptr;
  }
  return conn;
}

// The cursor's words: the stack, whose sentinel is also the end position, and
// the current position.
AppStack *StackOf(const kest_result_t *result) {
  return static_cast<AppStack *>(result->stack);
}

fdt::list_link *EndOf(const kest_result_t *result) {
  return StackOf(result)->entries.end().node();
}

fdt::list_link *CurrentOf(const kest_result_t *result) {
  return static_cast<fdt::list_link *>(result->current);
}

uint32_t ProtoAt(fdt::list_link *link) {
  return static_cast<AppStack::Node *>(link)->m_value.proto;
}

// The application index of a result, and how sure it is if `confidence` is
// not null. Needs the thread's cells, so a thread context.
int AppIndex(const kest_result_t *result, int *confidence) {
  const AppStack *stack = StackOf(result);
  const uint32_t app = stack->app;
  const uint32_t top = stack->entries.empty() ? app : stack->entries.back().proto;
  if (confidence != nullptr) {
    const bool transport_only =
        top == ThreadWord(ApiSlots::tcp_proto) || top == ThreadWord(ApiSlots::udp_proto);
    *confidence = transport_only && top != app ? kTransportConfidence : kFullConfidence;
  }
  return static_cast<int>(app);
}

// Runs inside kest_classify's frame, so it reads the index directly rather
// than through another call that would clear kest_errno.
int SimpleCallback(kest_handle_t /*handle*/, kest_result_t *result, int /*code*/,
                   kest_conn_id_t /*conn_id*/, void *user, int /*error*/) {
  int *app = static_cast<int *>(user);
  if (app != nullptr) {
    *app = AppIndex(result, nullptr);
  }
  // Never asks for the connection to be destroyed.
  return 0;
}

} // namespace

} // namespace oru

using namespace oru;

extern "C" KEST_EXPORT int kest_conn_create(kest_handle_t handle, const kest_endpoint_t *src,
                                            const kest_endpoint_t *dst, uint8_t protocol,
                                            kest_conn_t *conn) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT);
  if (!frame.ok()) {
    return -1;
  }
  if (src == nullptr || dst == nullptr || src->family != dst->family ||
      (src->family != KEST_FAMILY_IPV4 && src->family != KEST_FAMILY_IPV6)) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  Tuple tuple;
  tuple.src = IpAddr::FromEndpoint(src->family, src->address);
  tuple.dst = IpAddr::FromEndpoint(dst->family, dst->address);
  tuple.src_port = PortFromRecord(*src);
  tuple.dst_port = PortFromRecord(*dst);
  tuple.protocol = protocol;
  Conn *made = Classification::CreateConn(tuple);
  if (made == nullptr) {
    // For a protocol other than TCP and UDP the factory lookup has raised
    // its own error, which is the one that stands.
    if (protocol == 6 || protocol == 17) {
      ThrowError(ERR_NOBUFS);
    }
    return -1;
  }
  *conn = static_cast<IConn *>(made);
  return 0;
}

extern "C" KEST_EXPORT int kest_conn_destroy(kest_handle_t handle, kest_conn_t conn) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT);
  if (!frame.ok()) {
    return -1;
  }
  if (conn == nullptr) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  // An unknown protocol leaves its error, but the call has done what it can.
  Classification::DestroyConn(static_cast<Conn *>(static_cast<IConn *>(conn)));
  return 0;
}

extern "C" KEST_EXPORT int kest_endpoint_get(kest_handle_t handle, kest_conn_id_t conn_id,
                                             kest_endpoint_t *src, kest_endpoint_t *dst) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT);
  if (!frame.ok()) {
    return -1;
  }
  Conn *conn = ActiveConn(conn_id);
  if (conn == nullptr) {
    return -1;
  }
  if (src == nullptr || dst == nullptr) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  // Each side's family follows from its own address.
  FillRecord(conn->m_tuple.src, conn->m_tuple.src_port, *src);
  FillRecord(conn->m_tuple.dst, conn->m_tuple.dst_port, *dst);
  return 0;
}

extern "C" KEST_EXPORT int kest_conn_policy_flags_disable(kest_handle_t handle,
                                                          kest_conn_id_t conn_id, unsigned flags) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT);
  if (!frame.ok()) {
    return -1;
  }
  Conn *conn = ActiveConn(conn_id);
  if (conn == nullptr) {
    return -1;
  }
  if (flags >= kPolicyFlagLimit) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  uint32_t bits = 0;
  for (const PolicyFlag &flag : kPolicyFlags) {
    if ((flags & flag.host) != 0) {
      bits |= flag.bits;
    }
  }
  conn->m_policy &= ~bits;
  return 0;
}

extern "C" KEST_EXPORT int kest_conn_status_flags_get(kest_handle_t handle, kest_conn_id_t conn_id,
                                                      unsigned *flags) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT);
  if (!frame.ok()) {
    return -1;
  }
  Conn *conn = ActiveConn(conn_id);
  if (conn == nullptr) {
    return -1;
  }
  // The status word, not the policy word: what has been found or done.
  const uint32_t status = conn->m_status;
  unsigned host = 0;
  for (const PolicyFlag &flag : kPolicyFlags) {
    if ((status & flag.bits) != 0) {
      host |= flag.host;
    }
  }
  *flags = host;
  return 0;
}

extern "C" KEST_EXPORT int kest_app_get(kest_handle_t handle, kest_result_t *result,
                                        int *confidence) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT);
  if (!frame.ok()) {
    return -1;
  }
  if (result == nullptr) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  return AppIndex(result, confidence);
}

extern "C" KEST_EXPORT kest_result_t *kest_proto_first(kest_handle_t /*handle*/,
                                                       kest_result_t *result) {
  result->current = EndOf(result)->m_next;
  return result;
}

extern "C" KEST_EXPORT kest_result_t *kest_proto_top(kest_handle_t /*handle*/,
                                                     kest_result_t *result) {
  result->current = EndOf(result)->m_prev;
  return result;
}

extern "C" KEST_EXPORT kest_result_t *kest_proto_next(kest_handle_t /*handle*/,
                                                      kest_result_t *result) {
  fdt::list_link *current = CurrentOf(result);
  if (current != EndOf(result)) {
    result->current = current->m_next;
  }
  return result;
}

extern "C" KEST_EXPORT kest_result_t *kest_proto_prev(kest_handle_t /*handle*/,
                                                      kest_result_t *result) {
  fdt::list_link *current = CurrentOf(result);
  if (current != EndOf(result)) {
    result->current = current->m_prev;
  }
  return result;
}

extern "C" KEST_EXPORT int kest_proto_valid(kest_handle_t /*handle*/, kest_result_t *result) {
  return CurrentOf(result) != EndOf(result) ? 1 : 0;
}

extern "C" KEST_EXPORT kest_result_t *kest_proto_find(kest_handle_t /*handle*/,
                                                      kest_result_t *result, int index) {
  fdt::list_link *end = EndOf(result);
  fdt::list_link *link = end->m_next;
  while (link != end && ProtoAt(link) != static_cast<uint32_t>(index)) {
    link = link->m_next;
  }
  result->current = link;
  return result;
}

extern "C" KEST_EXPORT int kest_proto_get_index(kest_handle_t handle, kest_result_t *result) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  if (result == nullptr || CurrentOf(result) == EndOf(result)) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  return static_cast<int>(ProtoAt(CurrentOf(result)));
}

extern "C" KEST_EXPORT char *kest_proto_get_name(kest_handle_t handle, int index, char *buf,
                                                 int size) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return nullptr;
  }
  if (buf == nullptr || size < 1) {
    ThrowError(ERR_INVAL);
    return nullptr;
  }
  fdt::string name;
  if (!ProtocolRegistry::IndexToName(index, name)) {
    return nullptr;
  }
  // Longer names are cut to size - 1 characters without notice.
  kest_strncpy(buf, name.c_str(), static_cast<size_t>(size));
  buf[size - 1] = '\0';
  return buf;
}

extern "C" KEST_EXPORT int kest_proto_find_index(kest_handle_t handle, const char *name) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  if (name == nullptr) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  // An unknown name is an answer, not a failure: no error.
  const int index = GetProtocolId(name);
  return index != 0 ? index : -1;
}

extern "C" KEST_EXPORT int kest_proto_max_index(kest_handle_t handle) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  return ProtocolRegistry::HighestIndex();
}

extern "C" KEST_EXPORT int kest_proto_set_index(kest_handle_t handle, const char *name, int index) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  if (name == nullptr) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  return ProtocolRegistry::SetIndex(name, index) ? 0 : -1;
}

extern "C" KEST_EXPORT int kest_classify_simple(kest_handle_t handle, const void *data,
                                                uint16_t length, int *app) {
  return kest_classify(handle, KEST_SELECTOR_FORM_1, data, length, nullptr, 0, SimpleCallback, app);
}
