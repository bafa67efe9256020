// The TLS inspector: one per thread, put on every TCP connection (first on
// the well-known TLS ports). It follows each side's stream from its first
// byte through a HelloAssembler, names the connection "TLS" once a hello
// parses, publishes what the hellos say, and leaves the chain as soon as it
// can: at the first byte that is not a TLS handshake record, after both
// hellos, or when one hello has come and the other side keeps silent.
//
// Per-connection state lives in a map keyed by the connection, made on the
// first packet and freed when the inspector leaves the connection's chain
// (OnChainExit runs for every way of leaving, the connection's end too).
#ifndef KEST_DECODERS_TLS_TLSDPI_H
#define KEST_DECODERS_TLS_TLSDPI_H

#include "tls/TlsHello.h"

#include <kest/Conn.h>
#include <kest/Inspector.h>
#include <kest/fdt/map.h>

namespace kest_tls {

// Attribute names, as hosts subscribe to them.
constexpr const char *kAttrServerName = "tls.server_name";
constexpr const char *kAttrAlpn = "tls.alpn";
constexpr const char *kAttrVersion = "tls.version";
constexpr const char *kAttrClientFingerprint = "tls.client_fingerprint";

class TlsDpi final : public oru::Inspector {
public:
  // Packets a side may send after its hello while the other side says
  // nothing, before the inspector stops waiting for the other hello.
  static constexpr uint16_t kPatience = 4;

  explicit TlsDpi(uint32_t proto) : m_proto(proto) {}
  ~TlsDpi() override;

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;
  void OnChainExit(oru::fdt::intrusive_ptr<oru::Conn> &conn) override;

  // Registers and unregisters the attribute identifiers on this thread.
  void RegisterAttributes();
  void UnregisterAttributes();
  // Creates the attribute names (once per instance; a name that another
  // plug-in made already is fine).
  static void CreateAttributes();

  size_t SessionCount() const { return m_sessions.size(); }

private:
  struct Side {
    HelloAssembler assembler;
    uint64_t next_pos = 0;
    bool started = false;
    bool done = false;
    bool parsed = false;
    // An SSL 2.0-style ClientHello: TLS, with nothing to read.
    bool legacy = false;
    uint16_t later = 0;
  };
  struct Session {
    Side side[2];
    bool pushed = false;
    bool client_alpn = false;
    bool server_alpn_pending = false;
    char server_alpn[HelloInfo::kMaxAlpnText + 1] = {};
  };

  Session *SessionOf(oru::Conn *conn);
  void FreeSession(oru::Conn *conn);
  void Feed(Side &side, const oru::FlowBuffer &flow, const oru::PktInfo &pkt);
  void OnHello(Session &session, const HelloInfo &hello, oru::Conn &conn);
  void Finish(Session &session, oru::Conn &conn);
  void Publish(int id, const char *text, size_t length, oru::Conn &conn);

  uint32_t m_proto;
  oru::Map<uintptr_t, Session *> m_sessions;
  int m_attr_server_name = 0;
  int m_attr_alpn = 0;
  int m_attr_version = 0;
  int m_attr_fingerprint = 0;
};

} // namespace kest_tls

#endif
