#include "transport/Transports.h"

#include <kest/MemTag.h>

namespace kest_decoders {

namespace {

constexpr TransportPlugin kTcp("tcp", "TCP", oru::MODULE_TCP, 6, oru::MemTag::CTX_TCP_INSPECT,
                               "tcp.rule_used");
constexpr TransportPlugin kUdp("udp", "UDP", oru::MODULE_UDP, 17, oru::MemTag::CTX_UDP_INSPECT,
                               "udp.rule_used");

// The flows of the other IP protocols age as datagram flows do, each by
// limits of its own ("icmp.timeout.established", "ip.max_connections", ...).
constexpr uint16_t kOtherContext = oru::MemTag::CTX_UDP_INSPECT;
constexpr TransportPlugin kOthers[] = {
    {"icmp", "ICMP", oru::kit::MODULE_ICMP, 1, kOtherContext, "icmp.rule_used"},
    {"icmp6", "ICMPv6", oru::kit::MODULE_ICMP6, 58, kOtherContext, "icmp6.rule_used"},
    {"igmp", "IGMP", oru::kit::MODULE_IGMP, 2, kOtherContext, "igmp.rule_used"},
    {"gre", "GRE", oru::kit::MODULE_GRE, 47, kOtherContext, "gre.rule_used"},
    {"esp", "ESP", oru::kit::MODULE_ESP, 50, kOtherContext, "esp.rule_used"},
    {"sctp", "SCTP", oru::kit::MODULE_SCTP, 132, kOtherContext, "sctp.rule_used"},
    {"ip", "IP", oru::kit::MODULE_IP, 0, kOtherContext, "ip.rule_used"},
};
constexpr int kOtherCount = sizeof kOthers / sizeof kOthers[0];

// ip.plg: all of them in one plug-in, started and stopped together; a
// failure half-way undoes what was done.
const char *OthersName() {
  return "ip";
}
bool OthersVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
  return kOthers[0].GetVersion(library, own);
}
// Runs `start` on each transport; when one fails, `undo` on those before it.
template <bool (TransportPlugin::*start)() const, void (TransportPlugin::*undo)() const>
bool StartAll() {
  for (int i = 0; i < kOtherCount; ++i) {
    if (!(kOthers[i].*start)()) {
      while (i-- > 0) {
        (kOthers[i].*undo)();
      }
      return false;
    }
  }
  return true;
}
bool OthersInitInstance() {
  return StartAll<&TransportPlugin::InitInstance, &TransportPlugin::ExitInstance>();
}
bool OthersInitThread() {
  return StartAll<&TransportPlugin::InitThread, &TransportPlugin::ExitThread>();
}
void Nothing() {}
void OthersExitThread() {
  for (const TransportPlugin &other : kOthers) {
    other.ExitThread();
  }
}
void OthersExitInstance() {
  for (const TransportPlugin &other : kOthers) {
    other.ExitInstance();
  }
}

constexpr oru::PluginEntryTable kOthersTable = {
    OthersName, OthersVersion, OthersInitInstance, OthersInitThread,
    Nothing,    Nothing,       OthersExitThread,   OthersExitInstance};

} // namespace

const TransportPlugin &TcpTransport() {
  return kTcp;
}
const TransportPlugin &UdpTransport() {
  return kUdp;
}
const oru::PluginEntryTable *TcpEntryTable() {
  return &TransportEntries<&kTcp>::kTable;
}
const oru::PluginEntryTable *UdpEntryTable() {
  return &TransportEntries<&kUdp>::kTable;
}
const oru::PluginEntryTable *OtherEntryTable() {
  return &kOthersTable;
}

} // namespace kest_decoders
