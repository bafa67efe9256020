// example.cpp - a plug-in built outside the kest tree: it names "EXAMPLE".
#include <kest/Plugin.h>
#include <kest/ProtocolRegistry.h>

namespace {

const char *GetName() {
  return "example";
}

bool GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
  *own = oru::VersionRecord{4, 0, 0, 1, "example"};
  return library->major == 4;
}

bool InitInstance() {
  oru::RegisterProtocol("EXAMPLE");
  return true;
}

bool InitThread() {
  return true;
}

void LinkThread() {}
void StartThread() {}
void ExitThread() {}
void ExitInstance() {}

const oru::PluginEntryTable kTable = {GetName,    GetVersion,  InitInstance, InitThread,
                                      LinkThread, StartThread, ExitThread,   ExitInstance};

} // namespace

KEST_PLUGIN_QUERY {
  return &kTable;
}
