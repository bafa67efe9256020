// A whole message inspector on the packet road: packets of either side of a
// connection to the CHAT test protocol (a WebDpi plug-in) cut from the input,
// with every attribute listened to, and allocations failing when the input
// says so. No crash and no leak.
#include "FuzzRoad.h"

#include <arpa/inet.h>

namespace {

// One instance on the decoders and the CHAT plug-in, and this thread in it.
kest_handle_t Instance() {
  static const kest_fuzz::PluginCopy kCopies[] = {{KEST_FUZZ_PLUGIN_DIR "/tcp.plg", "tcp.plg"},
                                                  {KEST_FUZZ_PLUGIN_DIR "/udp.plg", "udp.plg"},
                                                  {KEST_FUZZ_CHAT_PLG, "chat.plg"}};
  static const char *const kAttributes[] = {"chat.request.header",
                                            "chat.request.body",
                                            "chat.request.uri",
                                            "chat.request.method",
                                            "chat.request.version",
                                            "chat.response.header",
                                            "chat.response.body",
                                            "chat.response.code",
                                            "chat.response.version",
                                            "chat.request.header.Nick",
                                            "chat.response.header.Content-Length"};
  return kest_fuzz::OpenRoad("web", kCopies, 3, kAttributes,
                             sizeof kAttributes / sizeof kAttributes[0]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const kest_handle_t h = Instance();
  kest_fuzz::FuzzInput in(data, size);
  kest_endpoint_t src{KEST_FAMILY_IPV4, htons(40000), {10, 0, 0, 1}};
  kest_endpoint_t dst{KEST_FAMILY_IPV4, htons(7000), {10, 0, 0, 2}};
  kest_conn_t conn = nullptr;
  if (kest_conn_create(h, &src, &dst, 6, &conn) != 0) {
    return 0;
  }
  {
    kest_fuzz::FailingAllocations fail(in);
    kest_fuzz::SendPackets(h, conn, in, 255);
  }
  kest_conn_destroy(h, conn);
  return 0;
}
