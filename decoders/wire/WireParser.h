// The link, network and transport layers of a whole packet, read without
// copying: where the IP header and the transport header start, the two end
// points, the TCP fields, and the payload.
//
// Three forms come in (the host's selectors 1 to 3): an IP packet from its
// first byte (IPv4 or IPv6 by the version nibble), an Ethernet II frame with
// any number of 802.1Q / 802.1ad tags and PPPoE session frames, and a Linux
// cooked-capture (SLL) frame. Nothing is trusted: every length is checked
// against the bytes at hand before anything is read, and a packet that does
// not add up is reported malformed.
#ifndef KEST_DECODERS_PACKETPARSER_H
#define KEST_DECODERS_PACKETPARSER_H

#include <kest/IpAddr.h>
#include <stdint.h>

namespace kest_decoders {

enum class PacketForm : int {
  kIp = 1,
  kEthernet = 2,
  kLinuxSll = 3,
};

enum class ParseResult {
  // A TCP or UDP segment, or another IP protocol (`protocol` says which).
  kOk,
  // Not IP at all (ARP, LLDP, ...): nothing for a decoder.
  kNotIp,
  // A fragment of an IP datagram: `protocol` and the addresses are set, the
  // transport layer is not read.
  kFragment,
  // Headers that do not fit the bytes, or lengths that contradict them.
  kMalformed,
};

struct ParsedPacket {
  // Offsets from the start of the frame; the IP header's and the transport
  // header's.
  uint16_t l3_offset = 0;
  uint16_t l4_offset = 0;
  uint8_t ip_version = 0;
  // The transport protocol (after IPv6 extension headers).
  uint8_t protocol = 0;
  oru::IpAddr src;
  oru::IpAddr dst;
  // Host byte order; 0 for protocols without ports.
  uint16_t src_port = 0;
  uint16_t dst_port = 0;
  // TCP only.
  uint8_t tcp_flags = 0;
  uint32_t seq = 0;
  uint32_t ack = 0;
  // The transport payload: within the frame, trailing link padding cut off
  // by the IP length. For a fragment: its share of the datagram's payload.
  const uint8_t *payload = nullptr;
  uint32_t payload_length = 0;
  // Fragments: the datagram's identification, this fragment's offset in
  // bytes, and whether more follow.
  uint32_t frag_id = 0;
  uint32_t frag_offset = 0;
  bool frag_more = false;
};

// TCP flag bits.
enum : uint8_t {
  TCP_FIN = 0x01,
  TCP_SYN = 0x02,
  TCP_RST = 0x04,
  TCP_PSH = 0x08,
  TCP_ACK = 0x10,
};

// For a kOk parse of any protocol but TCP and UDP, the two port fields key
// the flow: SCTP's ports, ESP's security parameter index (its high and low
// halves), the identifier of an ICMP or ICMPv6 echo on both sides, 0 and 0
// (a flow per address pair) otherwise. An SCTP or ESP header cut short is
// malformed.
ParseResult ParsePacket(PacketForm form, const uint8_t *data, uint32_t length, ParsedPacket &out);

// The flow an ICMP or ICMPv6 error (`icmp`, a kOk parse) is about: the
// addresses, protocol and key (ports, as above) of the packet it quotes,
// sender first. False for other messages and quotes too short to say.
bool QuotedFlow(const ParsedPacket &icmp, ParsedPacket &quoted);

// Tunnels whose inner packets are classified in their own right.
enum class TunnelKind : uint8_t {
  kNone,
  kIpInIp, // IP protocol 4 or 41
  kGre,    // IP protocol 47, carrying IPv4, IPv6 or Ethernet
  kGtpU,   // UDP port 2152, G-PDU carrying IP
  kVxlan,  // UDP port 4789, carrying Ethernet
  kTeredo, // UDP on any port, carrying IPv6 (RFC 4380)
};

struct InnerPacket {
  TunnelKind kind = TunnelKind::kNone;
  PacketForm form = PacketForm::kIp;
  const uint8_t *data = nullptr;
  uint32_t length = 0;
};

// The packet inside `outer` (a kOk parse) when it is a tunnel this parser
// opens; false otherwise, also for a tunnel header that does not fit.
bool Decapsulate(const ParsedPacket &outer, InnerPacket &inner);

} // namespace kest_decoders

#endif
