// A decoder gone wrong on purpose: on TCP port 8080, a payload holding
// "kest-forbidden-call" makes it open a socket, as code that hostile
// traffic took over would. Under kestcap's sandbox that call must end the
// process with the sandbox's message; without it, nothing happens.
#include <kest/Inspector.h>
#include <kest/Plugin.h>

#include "../../support/TestPlugin.h"

#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr unsigned short kPort = 8080;
constexpr char kMagic[] = "kest-forbidden-call";

class Forbidden final : public oru::Inspector {
public:
  unsigned int Inspect(oru::ParentDpi *, oru::PktInfo &pkt, oru::Tuple &,
                       oru::fdt::intrusive_ptr<oru::Conn> &) override {
    if (memmem(pkt.data, pkt.length, kMagic, sizeof kMagic - 1) != nullptr) {
      const int fd = socket(AF_INET, SOCK_DGRAM, 0);
      if (fd >= 0) {
        close(fd);
      }
    }
    return oru::INSPECT_STAY;
  }
};

thread_local Forbidden *t_inspector = nullptr;

const char *GetName() {
  return "forbidden";
}
bool InitInstance() {
  return true;
}
bool InitThread() {
  t_inspector = oru::fdt::CreateObject<Forbidden>(oru::fdt::OBJECT_LOCAL);
  if (t_inspector != nullptr) {
    t_inspector->add_ref();
  }
  return t_inspector != nullptr;
}
void LinkThread() {
  kest_test_plugin::AttachToTcpPort(t_inspector, kPort);
}
void ExitThread() {
  kest_test_plugin::DetachFromTcpPort(t_inspector, kPort);
}
void Nothing() {}

const oru::PluginEntryTable kTable = {GetName,      kest_test_plugin::GetVersion,
                                      InitInstance, InitThread,
                                      LinkThread,   Nothing,
                                      ExitThread,   Nothing};

} // namespace

KEST_PLUGIN_QUERY {
  return &kTable;
}
