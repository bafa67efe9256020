#include "udp/UdpPlugin.h"

#include <kest/MemTag.h>

namespace kest_decoders {

namespace {

constexpr TransportPlugin kUdp("udp", "UDP", oru::MODULE_UDP, 17, oru::MemTag::CTX_UDP_INSPECT);

const char *GetName() {
  return kUdp.Name();
}
bool GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
  return kUdp.GetVersion(library, own);
}
bool InitInstance() {
  return kUdp.InitInstance();
}
bool InitThread() {
  return kUdp.InitThread();
}
// The transport looks up nobody and has nothing to start.
void LinkThread() {}
void StartThread() {}
void ExitThread() {
  kUdp.ExitThread();
}
void ExitInstance() {
  kUdp.ExitInstance();
}

constexpr oru::PluginEntryTable kTable = {GetName,    GetVersion,  InitInstance, InitThread,
                                          LinkThread, StartThread, ExitThread,   ExitInstance};

} // namespace

const oru::PluginEntryTable *UdpPlugin::EntryTable() {
  return &kTable;
}

const TransportPlugin &UdpPlugin::Transport() {
  return kUdp;
}

} // namespace kest_decoders
