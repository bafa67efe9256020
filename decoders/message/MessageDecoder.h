// The decoder that SIP, RTSP and SSDP share: the same shape of messages as
// HTTP, read by the SDK's message inspector on TCP and one datagram at a
// time on UDP, named by their first line on any port, with their heads and
// bodies as attributes under the protocol's prefix and, for SIP and RTSP,
// the media flows they announce expected on UDP.
//
// Each plug-in (decoders/sip, decoders/rtsp, decoders/ssdp) is a
// PluginInfo handed to the entry points at the bottom.
#ifndef KEST_DECODERS_MESSAGE_MESSAGEDECODER_H
#define KEST_DECODERS_MESSAGE_MESSAGEDECODER_H

#include "message/Media.h"
#include "message/MessageLine.h"

#include <kest/InterfaceBroker.h>
#include <kest/Plugin.h>
#include <kest/WebAttributes.h>
#include <kest/WebDpi.h>
#include <kest/WebDpiLauncher.h>
#include <stdint.h>

namespace kest_message {

struct PluginInfo {
  const char *name;
  oru::ModuleId module;
  const char *module_name;
  // The protocol's name ("SIP") and attribute prefix ("sip").
  const char *protocol;
  const char *prefix;
  const Dialect *dialect;
  // Where it runs; the ports are tried first.
  bool tcp;
  const uint16_t *tcp_ports;
  size_t tcp_port_count;
  bool udp;
  const uint16_t *udp_ports;
  size_t udp_port_count;
  // SDP bodies announce media.
  bool sdp;
  // Transport headers announce media (RTSP).
  bool transport;
  // A response names the protocol only with an ST or USN header (SSDP's
  // answers to searches, which are otherwise HTTP over UDP).
  bool search_response;
};

// What one thread's inspectors borrow.
struct MessageThread {
  const PluginInfo *info = nullptr;
  oru::WebMethodTable methods;
  oru::WebAttributes attributes;
  uint32_t proto = 0;
  // Null when the plug-in expects no media.
  MediaInspector *media = nullptr;
};

// Bodies larger than this are not read for SDP.
constexpr uint32_t kMaxSdp = 8192;

// One TCP connection's messages. Bodies are read here rather than by the
// base, so that an SDP body can be kept whole and read.
class MessageDpi final : public oru::WebDpi {
public:
  explicit MessageDpi(MessageThread *thread)
      : WebDpi(&thread->methods, nullptr, &thread->attributes), m_thread(thread) {}

  static constexpr size_t kMaxOpen = 16;

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;
  const char *GetProtocolWord() override { return m_thread->info->dialect->protocol; }
  uint32_t GetProtocol() override { return m_thread->proto; }
  bool Pipelining() override { return true; }
  bool HasMessageBody(oru::WebHeader & /*header*/) override { return false; }
  bool OnNewMessage(oru::fdt::intrusive_ptr<oru::Conn> &conn, oru::WebHeader &header) override;

private:
  // Reads the body in progress; false while it waits for more.
  bool Body(oru::Conn &conn, unsigned char side);

  MessageThread *m_thread;
  uint64_t m_body_start[2] = {0, 0};
  uint64_t m_body_end[2] = {0, 0};
  bool m_body_request[2] = {false, false};
  bool m_body_sdp[2] = {false, false};
};

// The thread's inspector on every TCP port.
class MessageLauncher final : public oru::WebDpiLauncher {
public:
  explicit MessageLauncher(MessageThread *thread) : m_thread(thread) {}

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;
  oru::WebDpi *MakeInspector(oru::fdt::intrusive_ptr<oru::Conn> &conn) override;

private:
  MessageThread *m_thread;
};

// The thread's inspector on every UDP port: each datagram is one message.
class DatagramInspector final : public oru::Inspector {
public:
  explicit DatagramInspector(MessageThread *thread) : m_thread(thread) {}

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;

private:
  MessageThread *m_thread;
};

// The message head's media: SDP in the body [from, to) of `flow` and, for
// RTSP, the Transport header. `side` sent the message.
void AnnounceBody(MessageThread &thread, oru::Conn &conn, unsigned char side,
                  const oru::FlowBuffer &flow, uint64_t from, uint64_t to);
void AnnounceHead(MessageThread &thread, oru::Conn &conn, unsigned char side, bool request,
                  const oru::WebHeader &header);

// The entry points, for a plug-in's table.
const char *PluginName(const PluginInfo &info);
bool PluginVersion(const oru::VersionRecord *library, oru::VersionRecord *own);
bool PluginInitInstance(const PluginInfo &info);
bool PluginInitThread(const PluginInfo &info);
void PluginLinkThread(const PluginInfo &info);
void PluginExitThread(const PluginInfo &info);
void PluginExitInstance(const PluginInfo &info);

// The entry table of the plug-in described by `*kInfo`: the entry points
// take no arguments, so each plug-in gets functions of its own.
template <const PluginInfo *kInfo> struct PluginEntries {
  static const char *GetName() { return PluginName(*kInfo); }
  static bool InitInstance() { return PluginInitInstance(*kInfo); }
  static bool InitThread() { return PluginInitThread(*kInfo); }
  static void LinkThread() { PluginLinkThread(*kInfo); }
  static void StartThread() {}
  static void ExitThread() { PluginExitThread(*kInfo); }
  static void ExitInstance() { PluginExitInstance(*kInfo); }

  static constexpr oru::PluginEntryTable kTable = {GetName,    PluginVersion, InitInstance,
                                                   InitThread, LinkThread,    StartThread,
                                                   ExitThread, ExitInstance};
};

} // namespace kest_message

#endif
