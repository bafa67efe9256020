#include "tcp/TcpPlugin.h"

#include <kest/MemTag.h>

namespace kest_decoders {

namespace {

constexpr TransportPlugin kTcp("tcp", "TCP", oru::MODULE_TCP, 6, oru::MemTag::CTX_TCP_INSPECT,
                               "tcp.rule_used");

} // namespace

const oru::PluginEntryTable *TcpPlugin::EntryTable() {
  return &TransportEntries<&kTcp>::kTable;
}

const TransportPlugin &TcpPlugin::Transport() {
  return kTcp;
}

} // namespace kest_decoders
