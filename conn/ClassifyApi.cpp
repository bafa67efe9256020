// kest_classify: the host's packet into the thread's switchboard, and each
// result back to the host's callback.
#include <kest.h>
#include <kest/Classification.h>
#include <kest/Error.h>

#include "conn/PacketFacts.h"
#include "runtime/ApiFrame.h"
#include "runtime/ApiSlots.h"
#include "runtime/Lifecycle.h"

namespace oru {

namespace {

// Classification type of each host selector, by selector.
constexpr Classification::ClassifyType kSelectorTypes[] = {
    Classification::CLASSIFY_CONN,
    Classification::CLASSIFY_TYPE_0,
    Classification::CLASSIFY_TYPE_1,
    Classification::CLASSIFY_TYPE_2,
};
constexpr int kSelectorCount = sizeof(kSelectorTypes) / sizeof(kSelectorTypes[0]);

// Hands each result to the host's callback with a cursor over the
// connection's application stack; the cursor lives only for the callback.
class HostSink final : public ClassifySink {
public:
  HostSink(kest_classify_callback_t callback, void *user) : m_callback(callback), m_user(user) {}

  bool OnClassified(fdt::intrusive_ptr<Conn> &conn, int code, int error) override {
    // Without a callback the host has no say: the connection stays.
    if (m_callback == nullptr) {
      return true;
    }
    AppStack *stack = conn->GetAppStack();
    kest_result_t cursor;
    cursor.connection = &conn;
    cursor.stack = stack;
    cursor.current = stack->entries.begin().node();
    return m_callback(Runtime::l_instance_id, &cursor, code, conn->m_number, m_user, error) == 0;
  }

private:
  kest_classify_callback_t m_callback;
  void *m_user;
};

} // namespace

} // namespace oru

using namespace oru;

extern "C" KEST_EXPORT int kest_classify(kest_handle_t handle, int selector, const void *data,
                                         uint16_t length, kest_conn_t conn, int side,
                                         kest_classify_callback_t callback, void *user) {
  ApiFrame frame(handle, ApiFrame::THREAD_CONTEXT);
  if (!frame.ok()) {
    return -1;
  }
  if (data == nullptr || length == 0) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  Conn *host_conn = static_cast<Conn *>(static_cast<IConn *>(conn));
  if (selector == KEST_SELECTOR_CONN && host_conn == nullptr) {
    ThrowError(ERR_NOTCONN);
    return -1;
  }
  HostSink sink(callback, user);
  // Attribute listeners get the user word of the running call; it is stored
  // before the selector is checked.
  ThreadPointer<void>(ApiSlots::attr_user) = user;
  if (selector < 0 || selector >= kSelectorCount) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  if (selector == KEST_SELECTOR_CONN) {
    host_conn->SetSide(side != 0 ? 1 : 0);
  }
  // A thread that only classifies still gets its clock and configuration
  // changes this way.
  IdlePass();

  Classification *classification = Classification::Instance();
  if (classification == nullptr) {
    ThrowError(ERR_NOMEM);
    return -1;
  }
  MarkPacketFacts();
  ClassifyRequest request;
  request.type = kSelectorTypes[selector];
  request.packet.data = static_cast<const uint8_t *>(data);
  request.packet.length = length;
  request.packet.reserved = 0;
  request.packet.release = nullptr;
  request.packet.release_arg = nullptr;
  request.packet.conn = host_conn;

  const bool done =
      classification->Classify(request, sink) && classification->ProcessDeferred(sink);
  if (request.packet.release != nullptr) {
    request.packet.release(&request.packet, request.packet.release_arg);
  }
  return done ? 0 : -1;
}
