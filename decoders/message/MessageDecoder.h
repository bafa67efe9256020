// The message-line decoder: protocols shaped like HTTP (a first line, header
// lines, a body by length, by chunks or to the close), read by the SDK's
// message inspector (oru::WebDpi) on TCP, named by their first line on any
// port, with the parts of their messages as attributes under the protocol's
// prefix (oru::WebAttributes). HTTP, SIP, RTSP and SSDP are its dialects.
//
// A plug-in is its kit Spec, a MessageOptions record and the launcher it
// runs on every thread (MessageLauncher for SIP, RTSP and SSDP, on TCP and
// UDP; HttpLauncher for HTTP):
//
//   struct Rtsp {
//     static constexpr oru::kit::Spec kSpec{
//         .plugin = "rtsp", .module = oru::kit::MODULE_RTSP,
//         .protocols = {"RTSP", "RTP", "RTCP"}, .tcp = true, .tcp_ports = {554, 8554}};
//     static constexpr kest_message::MessageOptions kMessage{
//         .dialect = &kest_message::kRtsp, .prefix = "rtsp", .sdp = true, .transport = true};
//     using Launcher = kest_message::MessageLauncher;
//   };
//   KEST_MESSAGE_DECODER(Rtsp)
//
// The attributes are the prefix's family of oru::WebAttributes, which
// registers and publishes them; the Spec lists none.
#ifndef KEST_DECODERS_MESSAGE_MESSAGEDECODER_H
#define KEST_DECODERS_MESSAGE_MESSAGEDECODER_H

#include "message/MessageLine.h"

#include <kest/kit/Decoder.h>

#include <kest/Conn.h>
#include <kest/WebAttributes.h>
#include <kest/WebDpi.h>
#include <kest/WebDpiLauncher.h>
#include <stdint.h>

namespace kest_message {

// What a message protocol needs beyond its Spec.
struct MessageOptions {
  // The words of its first lines.
  const Dialect *dialect = nullptr;
  // The attributes' prefix: "sip" gives "sip.request.uri" and the rest.
  const char *prefix = nullptr;
  // SDP bodies announce media flows (the Spec names "RTP" and "RTCP" second
  // and third).
  bool sdp = false;
  // Transport headers announce media flows (RTSP).
  bool transport = false;
  // A response names the protocol only with an ST or USN header (SSDP's
  // answers to searches, which are otherwise HTTP over UDP).
  bool search_response = false;
};

inline unsigned char SideOf(const oru::Conn &conn) {
  return conn.m_side != 0 ? 1 : 0;
}

// Whether the connection's stack holds the protocol.
bool Holds(oru::Conn &conn, uint32_t proto);

// Before the message inspector reads the next message of `side`: requests
// nobody answers (one direction captured) must not pile up beyond
// kMaxOpen, and a response whose request was not seen answers a request of
// its own, so that the rest of the connection is still read.
constexpr size_t kMaxOpen = 16;

// A message inspector's count of its open transactions. The lists keep no
// count, and walking a full one before every first line was a cache miss a
// node. The count stays exact without a walk because the base only appends
// a request to a side's list between two Open calls of that side (every
// first line comes through the inspector's Inspect, which calls Open
// first), and only removes the oldest, telling OnTransactionDone.
class OpenTransactions {
public:
  void Open(oru::WebDpi &inspector, const oru::Conn &conn, unsigned char side);
  // From the inspector's OnTransactionDone: the base ended the oldest
  // transaction of the other side's list.
  void Done(const oru::Conn &conn) { --m_count[1 - SideOf(conn)]; }

private:
  // The list's length now, from what was known at the last Open.
  int32_t Count(const oru::WebDpi::TransactionList &list, unsigned char side) const;
  void Known(const oru::WebDpi::TransactionList &list, unsigned char side, int32_t count);

  int32_t m_count[2] = {0, 0};
  // The last node of each list when the count was known.
  const oru::WebTransaction *m_last[2] = {nullptr, nullptr};
};

// The thread's inspector on TCP: judges the first line of each side and,
// once either side reads as the dialect's, names the protocol and launches
// the connection's message inspector (MakeInspector). It holds what those
// inspectors borrow: the method table, the attributes and the protocols.
class LineLauncher : public oru::WebDpiLauncher {
public:
  // At the thread's start and end (a failed Start is followed by Stop).
  bool Start(const oru::kit::Spec &spec, const MessageOptions &options);
  void Stop();

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;

  const MessageOptions &options() const { return *m_options; }
  const oru::WebMethodTable &methods() const { return m_methods; }
  oru::WebAttributes &attributes() { return m_attributes; }
  // The Spec's i-th protocol.
  uint32_t Proto(int i = 0) const { return m_reg.Proto(i); }
  // Whether a message's first line may begin with byte `c`: a method's first
  // letter, the protocol word's (a response), or a blank the line reader
  // passes over. A line that begins otherwise is no first line.
  bool MayLead(unsigned char c) const { return (m_leads[c >> 6] >> (c & 63) & 1) != 0; }

protected:
  // Names a connection whose first line read as the dialect's; false
  // leaves it.
  virtual bool Name(oru::ParentDpi *parent, oru::Conn &conn);

private:
  const MessageOptions *m_options = nullptr;
  oru::kit::Registration m_reg;
  oru::WebMethodTable m_methods;
  oru::WebAttributes m_attributes;
  uint64_t m_leads[4] = {};
};

// Whether two names are the same, for the Spec checks below.
constexpr bool SameName(const char *a, const char *b) {
  while (*a != 0 && *a == *b) {
    ++a;
    ++b;
  }
  return *a == *b;
}

// The kit's decoder for message protocol P: P::kSpec, P::kMessage and
// P::Launcher (a LineLauncher).
template <class P> struct MessageDecoder {
  static constexpr const oru::kit::Spec &kSpec = P::kSpec;
  static_assert(!(P::kMessage.sdp || P::kMessage.transport) ||
                    (kSpec.ProtocolCount() >= 3 && SameName(kSpec.protocols[1], "RTP") &&
                     SameName(kSpec.protocols[2], "RTCP")),
                "a decoder that announces media names RTP and RTCP second and third");

  class Inspector final : public P::Launcher {
  public:
    bool Start() { return P::Launcher::Start(P::kSpec, P::kMessage); }
    static bool Openings(uint8_t transport, oru::FirstBytes &first) {
      return DialectOpenings(*P::kMessage.dialect, transport, first);
    }
  };

  static bool InitInstance() { return oru::WebAttributes::InitInstance(P::kMessage.prefix); }
};

} // namespace kest_message

// The plug-in's "query" entry point for message protocol P.
#define KEST_MESSAGE_DECODER(P) KEST_DECODER(::kest_message::MessageDecoder<P>)

#endif
