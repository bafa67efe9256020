// One application decoder on the packet road, built once per decoder (see
// decoders.cmake): the tcp and udp plug-ins, the decoder's and those it hands
// connections on to, in a folder of their own. The input chooses TCP or UDP,
// the server's port (one the decoder tries first, or one of no meaning),
// whether allocations fail, and then packets of either side with their
// lengths, so that both the stream reassembly and datagrams reach the parser.
// Every attribute of the decoder is listened to. No crash and no leak.
//
// Input: a byte for the transport (bit 0: UDP) and the port (the rest: an
// index into the decoder's ports, past them the port of no meaning); a byte
// that, from 0xF0 up, is followed by the number of allocations to let
// through before they fail; then packets, each a side byte (bit 0) and a
// run with a two-byte length.
#include "FuzzRoad.h"

#include <arpa/inet.h>

namespace {

constexpr const char *kPlugins[] = {KEST_FUZZ_PLUGINS};
constexpr const char *kAttributes[] = {KEST_FUZZ_ATTRIBUTES};
constexpr uint16_t kPorts[] = {KEST_FUZZ_PORTS};
constexpr size_t kPortCount = sizeof kPorts / sizeof kPorts[0];
constexpr size_t kPluginCount = sizeof kPlugins / sizeof kPlugins[0];
// A port that no decoder of the project tries first.
constexpr uint16_t kNoMeaning = 40404;
// Longer than any Ethernet frame's payload, within a classify call's bound.
constexpr size_t kLongestPacket = 4096;

kest_handle_t Instance() {
  static kest_fuzz::PluginCopy copies[kPluginCount];
  static char paths[kPluginCount][512];
  static const kest_handle_t h = [] {
    for (size_t i = 0; i < kPluginCount; ++i) {
      snprintf(paths[i], sizeof paths[i], "%s/%s", KEST_FUZZ_PLUGIN_DIR, kPlugins[i]);
      copies[i] = {paths[i], kPlugins[i]};
    }
    return kest_fuzz::OpenRoad("decoder", copies, kPluginCount, kAttributes,
                               sizeof kAttributes / sizeof kAttributes[0]);
  }();
  return h;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const kest_handle_t h = Instance();
  kest_fuzz::FuzzInput in(data, size);
  const uint8_t how = in.Byte();
  const uint8_t protocol = (how & 1) != 0 ? 17 : 6;
  const size_t index = how >> 1;
  const uint16_t port = index < kPortCount ? kPorts[index] : kNoMeaning;
  kest_endpoint_t src{KEST_FAMILY_IPV4, htons(49152), {10, 0, 0, 1}};
  kest_endpoint_t dst{KEST_FAMILY_IPV4, htons(port), {10, 0, 0, 2}};
  kest_conn_t conn = nullptr;
  if (kest_conn_create(h, &src, &dst, protocol, &conn) != 0) {
    abort();
  }
  bool failing;
  {
    kest_fuzz::FailingAllocations fail(in);
    failing = fail.Armed();
    kest_fuzz::SendPackets(h, conn, in, kLongestPacket);
  }
  if (kest_conn_destroy(h, conn) != 0 && !failing) {
    abort();
  }
  return 0;
}
