// HTTP/1.x on TCP, the HTTP dialect of the message decoder: the thread's
// HttpLauncher judges the first line of each side and, once either side
// reads as HTTP, names the protocol and starts the connection's
// HttpInspector. Hosts' key/value rules (HttpRules.h) reach the
// inspectors through the launcher's rule store.
#ifndef KEST_DECODERS_HTTP_HTTPINSPECTOR_H
#define KEST_DECODERS_HTTP_HTTPINSPECTOR_H

#include "message/MessageDecoder.h"

#include <kest/Conn.h>
#include <kest/KeyValueRuleStore.h>
#include <kest/WebDpi.h>
#include <stdint.h>

namespace kest_http {

class HttpCustomRules;

// The decoder's protocols, by their place in its Spec.
enum : int { kHttpProto = 0, kWebSocketProto = 1 };

// The thread's inspector on every TCP port, with what the connections'
// inspectors borrow: besides the launcher's own, the key/value rules hosts
// give to the module, and their front.
class HttpLauncher : public kest_message::LineLauncher {
public:
  bool Start(const oru::kit::Spec &spec, const kest_message::MessageOptions &options);
  void Stop();

  oru::WebDpi *MakeInspector(oru::fdt::intrusive_ptr<oru::Conn> &conn) override;
  oru::KeyValueRuleStore *rules() const { return m_rules; }

protected:
  // A connection that something named before (a host's rule on the
  // transport) keeps that name: its messages are read, its stack is left.
  bool Name(oru::ParentDpi *parent, oru::Conn &conn) override;

private:
  oru::ModuleId m_module = 0;
  oru::KeyValueRuleStore *m_rules = nullptr;
  HttpCustomRules *m_custom = nullptr;
  // Whether the connection being launched is to be named HTTP.
  bool m_name_stack = true;
};

// One connection's messages. Beyond the shared machinery it answers
// responses whose request it never saw (a capture that starts late or
// holds one direction), lets requests queue up (pipelining) within a bound,
// and after CONNECT or an upgrade hands the connection's bytes to the
// transport's other inspectors when the policy allows it.
class HttpInspector final : public oru::WebDpi {
public:
  // `name_stack` false leaves the connection's stack as it is.
  HttpInspector(HttpLauncher *launcher, bool name_stack)
      : WebDpi(&launcher->methods(), launcher->rules(), &launcher->attributes()),
        m_launcher(launcher), m_name_stack(name_stack) {}

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;
  const char *GetProtocolWord() override { return "HTTP"; }
  uint32_t GetProtocol() override { return m_launcher->Proto(kHttpProto); }
  bool Pipelining() override { return true; }
  bool HasMessageBody(oru::WebHeader &header) override;
  bool OnNewMessage(oru::fdt::intrusive_ptr<oru::Conn> &conn, oru::WebHeader &header) override;
  bool OnNewPacket(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                   oru::fdt::intrusive_ptr<oru::Conn> &conn) override;
  bool OnTransactionDone(oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    m_open.Done(*conn);
    return true;
  }

  // The phase of a connection that no longer carries HTTP messages: every
  // packet goes to the inspectors attached to this one.
  unsigned int Tunnel(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                      oru::fdt::intrusive_ptr<oru::Conn> &conn);

private:
  enum Switch : uint8_t { kNone, kConnect, kUpgrade, kWebSocket };

  // The transaction whose response head is `header`, or null.
  oru::WebTransaction *AnsweredBy(const oru::WebHeader &header);
  // Leaves message parsing for the tunnel phase.
  unsigned int StartTunnel(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                           oru::fdt::intrusive_ptr<oru::Conn> &conn);

  HttpLauncher *m_launcher;
  kest_message::OpenTransactions m_open;
  bool m_name_stack;
  // Set by a response that ends HTTP on the connection.
  Switch m_switch = kNone;
  // Whether the attached inspectors have been set up for the tunnel.
  bool m_tunnel = false;
  // Flow risks raised on the connection, as bits of oru::kit::Risk, so
  // that each is raised once.
  uint32_t m_raised = 0;
  // Where a response body begins whose first bytes are still to be seen,
  // and in which of the connection's flows; null for none.
  uint64_t m_body_at = 0;
  const oru::FlowBuffer *m_body_flow = nullptr;
  // The body's first bytes gathered so far: packets may cut them, and the
  // flow keeps no bytes past a packet unless asked.
  unsigned char m_magic[4] = {};
  uint8_t m_magic_have = 0;

  // A request head's risks: Host, Authorization, User-Agent.
  void RequestRisks(const oru::FlowBuffer &flow, const oru::WebHeader &header);

  // After a hole that the side's stream gave up (a capture that lost
  // segments), the next message of that side is looked for at the start of
  // each line that came after it; meanwhile its bytes are passed over, and
  // the other side is read as before. True once a first line is found: the
  // side reads on from it.
  bool Resync(oru::FlowBuffer &flow, unsigned char side);
  // Lines of one packet tried; the rest of a packet is passed over.
  static constexpr int kResyncLines = 8;
  // Registers Inspect for the side's next bytes.
  unsigned int WaitForLine(oru::ParentDpi *parent, oru::fdt::intrusive_ptr<oru::Conn> &conn,
                           unsigned char side);
  // Whether a side looks for its next message, and from where.
  bool m_lost[2] = {false, false};
  uint64_t m_lost_at[2] = {0, 0};
};

} // namespace kest_http

#endif
