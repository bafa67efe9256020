// hello.cpp - the smallest useful plug-in: it names the protocol "HELLO".
#include <kest/Plugin.h>
#include <kest/ProtocolRegistry.h>

namespace {

const char *GetName() {
  return "hello";
}

// Fill in your own version; accept the library major version you build for.
bool GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
  *own = oru::VersionRecord{4, 0, 0, 1, "hello"};
  return library->major == 4;
}

// Once per instance, while it opens: name protocols, memory tags, modules.
bool InitInstance() {
  oru::RegisterProtocol("HELLO");
  return true;
}

// Once per classifying thread: offer this thread's interfaces to the broker.
bool InitThread() {
  return true;
}

void LinkThread() {} // look up other plug-ins' interfaces here
void StartThread() {}
void ExitThread() {}
void ExitInstance() {}

const oru::PluginEntryTable kTable = {GetName,    GetVersion,  InitInstance, InitThread,
                                      LinkThread, StartThread, ExitThread,   ExitInstance};

} // namespace

KEST_PLUGIN_QUERY {
  return &kTable;
}
