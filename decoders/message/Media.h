// Media flows that signalling announces: the address and port an SDP body
// ("c=IN IP4 ..." and "m=audio 49170 RTP/AVP 0") or an RTSP Transport
// header ("client_port=4588-4589;server_port=6256-6257") says RTP will
// arrive on. When the connection's policy allows future flows, each is
// expected for a while on the UDP decoder's rule store, and the first
// datagram of a matching flow is judged: RTP (version 2) or RTCP.
//
// The parsers are pure functions of the bytes, for the tests and the fuzz
// target; the expectation needs a thread of the instance.
#ifndef KEST_DECODERS_MESSAGE_MEDIA_H
#define KEST_DECODERS_MESSAGE_MEDIA_H

#include <kest/kit/ExpectedFlows.h>

#include <kest/Conn.h>
#include <kest/Inspector.h>
#include <kest/IpAddr.h>
#include <stddef.h>
#include <stdint.h>

namespace kest_message {

// One announced end point; an all-zero address is not known (the caller
// fills in the sender's address).
struct MediaPort {
  oru::IpAddr addr;
  uint16_t port;
};

struct MediaList {
  static constexpr size_t kMax = 8;
  MediaPort items[kMax];
  size_t count = 0;

  // False when full or for port 0 (a stream turned off).
  bool Add(const oru::IpAddr &addr, uint16_t port);
};

// The RTP streams of an SDP body: one entry per "m=" line whose transport
// holds "RTP", with the media-level "c=" address, else the session's. Lines
// may end with "\r\n" or "\n". Multicast TTLs, address counts and port
// counts are read past.
void ParseSdp(const char *data, size_t size, MediaList &out);

// The ports of an RTSP Transport header value (several transports separated
// by ","): client_port and server_port ranges (or single ports) and the
// destination and source addresses. `client` and `server` default to the
// RTSP connection's two ends.
void ParseTransport(const char *data, size_t size, const oru::IpAddr &client,
                    const oru::IpAddr &server, MediaList &out);

// The inspector that expected media flows get, one per thread and
// plug-in: it judges a flow's first datagram as RTP or RTCP.
class MediaInspector final : public oru::kit::ExpectedFlows {
public:
  MediaInspector(uint32_t rtp, uint32_t rtcp)
      : ExpectedFlows(17, false), m_rtp(rtp), m_rtcp(rtcp) {}

  unsigned int Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override;

  // Expects each port (and the one above it, for RTCP) on UDP, when the
  // policy of `conn` allows future flows. Addresses not known take
  // `sender`.
  void Expect(const oru::Conn &conn, const MediaList &media, const oru::IpAddr &sender);

  // 1: RTP, 2: RTCP, 0: neither, for a datagram's first bytes.
  static int Judge(const uint8_t *data, size_t size);

private:
  uint32_t m_rtp;
  uint32_t m_rtcp;
};

} // namespace kest_message

#endif
