// What the TCP and UDP plug-ins share: one description of the transport and
// the entry points that act on it.
//
// Instance start-up names the protocol and the module; thread start-up makes
// the thread's connection table, offers it to the library as the module's
// connection factory, its rule store to other plug-ins
// (INTERFACE_IPPORT_RULE_STORE) and its segment entry to the whole-packet
// decoder (INTERFACE_TRANSPORT_SEGMENT), and installs the handler of the
// store's rule-use event. The broker keeps the table for the thread, so thread exit
// finds it there again.
#ifndef KEST_DECODERS_TRANSPORTPLUGIN_H
#define KEST_DECODERS_TRANSPORTPLUGIN_H

#include "transport/ConnTable.h"

#include <kest/InterfaceBroker.h>
#include <kest/Plugin.h>
#include <kest/kit/ModuleIds.h>
#include <stdint.h>

namespace kest_decoders {

class TransportPlugin {
public:
  // The library generation the decoders are built for: a library of another
  // major version is refused.
  static constexpr uint32_t kMajor = oru::kit::kSdkMajor;

  // `name` is the plug-in's and its rule store's; `protocol` names both the
  // protocol and the module `module`; `ip_protocol` is the IP protocol (0:
  // any number the other transports leave); `context`
  // the memory context; `event` the name of the store's rule-use event.
  constexpr TransportPlugin(const char *name, const char *protocol, oru::ModuleId module,
                            uint8_t ip_protocol, uint16_t context, const char *event)
      : m_name(name), m_protocol(protocol), m_module(module), m_ip_protocol(ip_protocol),
        m_context(context), m_event(event) {}

  const char *Name() const { return m_name; }
  // Fills `own` with the decoders' version; true when `library` has the same
  // major version.
  bool GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) const;
  // Registers the protocol and the module name. False when the module name
  // is taken or the protocol got no index.
  bool InitInstance() const;
  // Makes and registers this thread's connection table and rule store. False
  // without memory, without a protocol index, or when the module already
  // has a factory on this thread.
  bool InitThread() const;
  // Unregisters the table and destroys it with the connections it holds.
  void ExitThread() const;
  void ExitInstance() const;

  // This thread's table, or null outside InitThread..ExitThread.
  ConnTable *Table() const;

private:
  const char *m_name;
  const char *m_protocol;
  oru::ModuleId m_module;
  uint8_t m_ip_protocol;
  uint16_t m_context;
  const char *m_event;
};

// The entry table of the plug-in described by `*kTransport`: the entry points
// take no arguments, so each transport gets functions of its own.
template <const TransportPlugin *kTransport> struct TransportEntries {
  static const char *GetName() { return kTransport->Name(); }
  static bool GetVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
    return kTransport->GetVersion(library, own);
  }
  static bool InitInstance() { return kTransport->InitInstance(); }
  static bool InitThread() { return kTransport->InitThread(); }
  // A transport looks up nobody and has nothing to start.
  static void LinkThread() {}
  static void StartThread() {}
  static void ExitThread() { kTransport->ExitThread(); }
  static void ExitInstance() { kTransport->ExitInstance(); }

  static constexpr oru::PluginEntryTable kTable = {GetName,    GetVersion,  InitInstance,
                                                   InitThread, LinkThread,  StartThread,
                                                   ExitThread, ExitInstance};
};

} // namespace kest_decoders

#endif
