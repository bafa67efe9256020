// The message decoder of SIP, RTSP and SSDP: the message inspector on TCP
// and one datagram per message on UDP, with the media flows that SIP and
// RTSP announce expected on UDP (Media.h).
#ifndef KEST_DECODERS_MESSAGE_MESSAGEINSPECTOR_H
#define KEST_DECODERS_MESSAGE_MESSAGEINSPECTOR_H

#include "message/Media.h"
#include "message/MessageDecoder.h"

#include <kest/WebDpi.h>
#include <stdint.h>

namespace kest_message {

// Bodies larger than this are not read for SDP.
constexpr uint32_t kMaxSdp = 8192;

// The thread's inspector on TCP (LineLauncher) and UDP (each datagram one
// message).
class MessageLauncher : public LineLauncher {
public:
  bool Start(const oru::kit::Spec &spec, const MessageOptions &options);
  void Stop();

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;
  oru::WebDpi *MakeInspector(oru::fdt::intrusive_ptr<oru::Conn> &conn) override;

  // Whether media may be announced on `conn`.
  bool Announcing(const oru::Conn &conn) const {
    return m_media != nullptr && oru::kit::ExpectedFlows::Allowed(conn);
  }
  // The media of a message that `side` sent: the SDP body [from, to) of
  // `flow`, and, for RTSP, the head's Transport header.
  void AnnounceBody(oru::Conn &conn, unsigned char side, const oru::FlowBuffer &flow, uint64_t from,
                    uint64_t to);
  void AnnounceHead(oru::Conn &conn, unsigned char side, bool request,
                    const oru::WebHeader &header);

private:
  unsigned int Datagram(oru::PktInfo &pkt, oru::Conn &conn);

  // Null when the decoder expects no media.
  MediaInspector *m_media = nullptr;
};

// One TCP connection's messages. Bodies are read here rather than by the
// base, so that an SDP body can be kept whole and read.
class MessageInspector final : public oru::WebDpi {
public:
  explicit MessageInspector(MessageLauncher *launcher)
      : WebDpi(&launcher->methods(), nullptr, &launcher->attributes()), m_launcher(launcher) {}

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;
  const char *GetProtocolWord() override { return m_launcher->options().dialect->protocol; }
  uint32_t GetProtocol() override { return m_launcher->Proto(); }
  bool Pipelining() override { return true; }
  bool HasMessageBody(oru::WebHeader & /*header*/) override { return false; }
  bool OnNewMessage(oru::fdt::intrusive_ptr<oru::Conn> &conn, oru::WebHeader &header) override;
  bool OnTransactionDone(oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    m_open.Done(*conn);
    return true;
  }

private:
  // Reads the body in progress; false while it waits for more.
  bool Body(oru::Conn &conn, unsigned char side);

  MessageLauncher *m_launcher;
  OpenTransactions m_open;
  uint64_t m_body_start[2] = {0, 0};
  uint64_t m_body_end[2] = {0, 0};
  bool m_body_request[2] = {false, false};
  bool m_body_sdp[2] = {false, false};
};

} // namespace kest_message

#endif
