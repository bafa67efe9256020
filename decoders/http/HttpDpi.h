// HTTP/1.x on TCP: a per-thread inspector on every port that judges the
// first line of each side (HttpSniff) and, once either side reads as HTTP,
// names the protocol and starts the connection's message inspector.
#ifndef KEST_DECODERS_HTTP_HTTPDPI_H
#define KEST_DECODERS_HTTP_HTTPDPI_H

#include <kest/Conn.h>
#include <kest/IpPortRuleStore.h>
#include <kest/KeyValueRuleStore.h>
#include <kest/WebAttributes.h>
#include <kest/WebDpi.h>
#include <kest/WebDpiLauncher.h>
#include <stdint.h>

namespace kest_http {

class HttpCustomRules;

// What the connections' inspectors of one thread borrow.
struct HttpThread {
  oru::WebMethodTable methods;
  oru::WebAttributes attributes;
  uint32_t http = 0;
  uint32_t websocket = 0;
  // The key/value rules hosts give to this module, and their front.
  oru::KeyValueRuleStore *rules = nullptr;
  HttpCustomRules *custom = nullptr;
};

// One connection's messages. Beyond the shared machinery it answers
// responses whose request it never saw (a capture that starts late or
// holds one direction), lets requests queue up (pipelining) within a bound,
// and after CONNECT or an upgrade hands the connection's bytes to the
// transport's other inspectors when the policy allows it.
class HttpDpi final : public oru::WebDpi {
public:
  // `name_stack` false leaves the connection's stack as it is.
  HttpDpi(HttpThread *thread, bool name_stack)
      : WebDpi(&thread->methods, thread->rules, &thread->attributes), m_thread(thread),
        m_name_stack(name_stack) {}

  // Requests a side may have open; older ones are dropped beyond it.
  static constexpr size_t kMaxOpen = 16;

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;
  const char *GetProtocolWord() override { return "HTTP"; }
  uint32_t GetProtocol() override { return m_thread->http; }
  bool Pipelining() override { return true; }
  bool HasMessageBody(oru::WebHeader &header) override;
  bool OnNewMessage(oru::fdt::intrusive_ptr<oru::Conn> &conn, oru::WebHeader &header) override;

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

  HttpThread *m_thread;
  bool m_name_stack;
  // Set by a response that ends HTTP on the connection.
  Switch m_switch = kNone;
  // Whether the attached inspectors have been set up for the tunnel.
  bool m_tunnel = false;
};

// The thread's inspector on every TCP port.
class HttpLauncher final : public oru::WebDpiLauncher {
public:
  explicit HttpLauncher(HttpThread *thread) : m_thread(thread) {}

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;
  oru::WebDpi *MakeInspector(oru::fdt::intrusive_ptr<oru::Conn> &conn) override;

private:
  HttpThread *m_thread;
  // Whether the connection being launched is to be named HTTP.
  bool m_name_stack = true;
};

} // namespace kest_http

#endif
