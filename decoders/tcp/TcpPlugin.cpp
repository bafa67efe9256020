#include "tcp/TcpPlugin.h"

#include <kest/MemTag.h>

namespace kest_decoders {

namespace {

constexpr TransportPlugin kTcp("tcp", "TCP", oru::MODULE_TCP, 6, oru::MemTag::CTX_TCP_INSPECT);

const char *GetName() {
  return kTcp.Name();
}
bool GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
  return kTcp.GetVersion(library, own);
}
bool InitInstance() {
  return kTcp.InitInstance();
}
bool InitThread() {
  return kTcp.InitThread();
}
// The transport looks up nobody and has nothing to start.
void LinkThread() {}
void StartThread() {}
void ExitThread() {
  kTcp.ExitThread();
}
void ExitInstance() {
  kTcp.ExitInstance();
}

constexpr oru::PluginEntryTable kTable = {GetName,    GetVersion,  InitInstance, InitThread,
                                          LinkThread, StartThread, ExitThread,   ExitInstance};

} // namespace

const oru::PluginEntryTable *TcpPlugin::EntryTable() {
  return &kTable;
}

const TransportPlugin &TcpPlugin::Transport() {
  return kTcp;
}

} // namespace kest_decoders
