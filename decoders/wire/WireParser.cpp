#include "wire/WireParser.h"

#include <kest/kit/ByteReader.h>

namespace kest_decoders {

namespace {

// Ether types and PPP protocol numbers.
enum : uint16_t {
  kEtherIpv4 = 0x0800,
  kEtherIpv6 = 0x86DD,
  kEtherVlan = 0x8100,
  kEtherQinQ = 0x88A8,
  kEtherQinQOld = 0x9100,
  kEtherPppoe = 0x8864,
  kEtherMpls = 0x8847,
  kEtherMplsMulticast = 0x8848,
  kPppIpv4 = 0x0021,
  kPppIpv6 = 0x0057,
};

// The offset of the IP header behind the link layer, or a result that ends
// the parse.
ParseResult LinkLayer(PacketForm form, const uint8_t *data, uint32_t length, uint32_t &at) {
  uint16_t type;
  switch (form) {
  case PacketForm::kIp:
    at = 0;
    return ParseResult::kOk;
  case PacketForm::kLinuxSll:
  case PacketForm::kEthernet:
    // Both headers end with the ether type: 14 bytes of Ethernet, 16 of
    // Linux cooked capture.
    at = form == PacketForm::kEthernet ? 14 : 16;
    if (length < at) {
      return ParseResult::kMalformed;
    }
    type = oru::kit::LoadBe16(data + at - 2);
    break;
  default:
    return ParseResult::kNotIp;
  }
  // Tags, as many as there are.
  while (type == kEtherVlan || type == kEtherQinQ || type == kEtherQinQOld) {
    if (length < at + 4) {
      return ParseResult::kMalformed;
    }
    type = oru::kit::LoadBe16(data + at + 2);
    at += 4;
  }
  if (type == kEtherMpls || type == kEtherMplsMulticast) {
    // Labels of 4 bytes down to the one with the bottom-of-stack bit; the
    // packet behind says by its version nibble what it is.
    for (;;) {
      if (length < at + 4) {
        return ParseResult::kMalformed;
      }
      const bool bottom = (data[at + 2] & 0x01) != 0;
      at += 4;
      if (bottom) {
        break;
      }
    }
    if (length <= at) {
      return ParseResult::kMalformed;
    }
    const uint8_t version = data[at] >> 4;
    return version == 4 || version == 6 ? ParseResult::kOk : ParseResult::kNotIp;
  }
  if (type == kEtherPppoe) {
    // Version/type, code, session, length, then the PPP protocol.
    if (length < at + 8) {
      return ParseResult::kMalformed;
    }
    const uint16_t ppp = oru::kit::LoadBe16(data + at + 6);
    at += 8;
    if (ppp == kPppIpv4) {
      type = kEtherIpv4;
    } else if (ppp == kPppIpv6) {
      type = kEtherIpv6;
    } else {
      return ParseResult::kNotIp;
    }
  }
  return type == kEtherIpv4 || type == kEtherIpv6 ? ParseResult::kOk : ParseResult::kNotIp;
}

// ICMP messages that pair by an identifier where ports would be: echo (and,
// for IPv4, timestamp) requests and replies.
bool Paired(uint8_t protocol, uint8_t type) {
  return protocol == 1 ? type == 0 || type == 8 || type == 13 || type == 14
                       : type == 128 || type == 129;
}

// What keys the flow of a protocol without TCP's or UDP's header, from the
// `n` bytes of its header at `l4`, in the two port fields: the SCTP ports,
// the ESP security parameter index (high and low half), the ICMP echo
// identifier on both sides; 0 and 0, one flow per address pair, for the
// rest. False when the header these need is cut short.
bool KeyOf(uint8_t protocol, const uint8_t *l4, uint32_t n, uint16_t &a, uint16_t &b) {
  a = b = 0;
  switch (protocol) {
  case 132: // a common header of 12 bytes
  case 50:  // SPI and sequence number
    if (n < (protocol == 132 ? 12u : 8u)) {
      return false;
    }
    a = oru::kit::LoadBe16(l4);
    b = oru::kit::LoadBe16(l4 + 2);
    return true;
  case 1:
  case 58:
    if (n >= 8 && Paired(protocol, l4[0])) {
      a = b = oru::kit::LoadBe16(l4 + 4);
    }
    return true;
  default:
    return true;
  }
}

ParseResult Transport(const uint8_t *data, uint32_t at, uint32_t end, ParsedPacket &out) {
  out.l4_offset = static_cast<uint16_t>(at);
  if (out.protocol == 6) {
    if (end < at + 20) {
      return ParseResult::kMalformed;
    }
    const uint32_t header = (data[at + 12] >> 4) * 4u;
    if (header < 20 || end < at + header) {
      return ParseResult::kMalformed;
    }
    out.src_port = oru::kit::LoadBe16(data + at);
    out.dst_port = oru::kit::LoadBe16(data + at + 2);
    out.seq = oru::kit::LoadBe32(data + at + 4);
    out.ack = oru::kit::LoadBe32(data + at + 8);
    out.tcp_flags = data[at + 13];
    out.payload = data + at + header;
    out.payload_length = end - at - header;
    return ParseResult::kOk;
  }
  if (out.protocol == 17) {
    if (end < at + 8) {
      return ParseResult::kMalformed;
    }
    const uint32_t udp_length = oru::kit::LoadBe16(data + at + 4);
    if (udp_length < 8 || end < at + udp_length) {
      return ParseResult::kMalformed;
    }
    out.src_port = oru::kit::LoadBe16(data + at);
    out.dst_port = oru::kit::LoadBe16(data + at + 2);
    out.payload = data + at + 8;
    out.payload_length = udp_length - 8;
    return ParseResult::kOk;
  }
  out.payload = data + at;
  out.payload_length = end - at;
  return KeyOf(out.protocol, out.payload, out.payload_length, out.src_port, out.dst_port)
             ? ParseResult::kOk
             : ParseResult::kMalformed;
}

ParseResult Ipv4(const uint8_t *data, uint32_t at, uint32_t length, ParsedPacket &out) {
  if (length < at + 20) {
    return ParseResult::kMalformed;
  }
  const uint8_t *ip = data + at;
  const uint32_t header = (ip[0] & 0x0F) * 4u;
  const uint32_t total = oru::kit::LoadBe16(ip + 2);
  if (header < 20 || total < header || length < at + total) {
    return ParseResult::kMalformed;
  }
  out.ip_version = 4;
  out.protocol = ip[9];
  out.src = oru::IpAddr::FromV4(oru::kit::LoadBe32(ip + 12));
  out.dst = oru::IpAddr::FromV4(oru::kit::LoadBe32(ip + 16));
  const uint16_t fragment = oru::kit::LoadBe16(ip + 6);
  if ((fragment & 0x3FFF) != 0) { // more fragments, or an offset
    out.frag_id = oru::kit::LoadBe16(ip + 4);
    out.frag_offset = (fragment & 0x1FFFu) * 8u;
    out.frag_more = (fragment & 0x2000) != 0;
    out.payload = ip + header;
    out.payload_length = total - header;
    return ParseResult::kFragment;
  }
  return Transport(data, at + header, at + total, out);
}

ParseResult Ipv6(const uint8_t *data, uint32_t at, uint32_t length, ParsedPacket &out) {
  if (length < at + 40) {
    return ParseResult::kMalformed;
  }
  const uint8_t *ip = data + at;
  const uint32_t end = at + 40 + oru::kit::LoadBe16(ip + 4);
  if (length < end) {
    return ParseResult::kMalformed;
  }
  out.ip_version = 6;
  out.src = oru::IpAddr::FromV6(ip + 8);
  out.dst = oru::IpAddr::FromV6(ip + 24);
  uint8_t next = ip[6];
  uint32_t p = at + 40;
  // Extension headers, each bounded by the payload length.
  for (int hops = 0; hops < 16; ++hops) {
    switch (next) {
    case 0:    // hop-by-hop options
    case 43:   // routing
    case 60:   // destination options
    case 51: { // authentication header
      if (end < p + 8) {
        return ParseResult::kMalformed;
      }
      // The authentication header counts 4-byte words less two, the others
      // 8-byte units less one.
      const uint32_t size = next == 51 ? (data[p + 1] + 2u) * 4u : (data[p + 1] + 1u) * 8u;
      if (end < p + size) {
        return ParseResult::kMalformed;
      }
      next = data[p];
      p += size;
      continue;
    }
    case 44: // fragment
      if (end < p + 8) {
        return ParseResult::kMalformed;
      }
      out.protocol = data[p];
      if ((oru::kit::LoadBe16(data + p + 2) & 0xFFF9) == 0) {
        // An atomic fragment: offset 0 and no more to come.
        next = data[p];
        p += 8;
        continue;
      }
      out.frag_id = oru::kit::LoadBe32(data + p + 4);
      out.frag_offset = oru::kit::LoadBe16(data + p + 2) & 0xFFF8u;
      out.frag_more = (data[p + 3] & 1) != 0;
      out.payload = data + p + 8;
      out.payload_length = end - p - 8;
      return ParseResult::kFragment;
    default:
      out.protocol = next;
      return Transport(data, p, end, out);
    }
  }
  return ParseResult::kMalformed;
}

} // namespace

ParseResult ParsePacket(PacketForm form, const uint8_t *data, uint32_t length, ParsedPacket &out) {
  out = ParsedPacket();
  if (data == nullptr || length > 0xFFFF) {
    return ParseResult::kMalformed;
  }
  uint32_t at = 0;
  const ParseResult link = LinkLayer(form, data, length, at);
  if (link != ParseResult::kOk) {
    return link;
  }
  if (length < at + 1) {
    return ParseResult::kMalformed;
  }
  out.l3_offset = static_cast<uint16_t>(at);
  switch (data[at] >> 4) {
  case 4:
    return Ipv4(data, at, length, out);
  case 6:
    return Ipv6(data, at, length, out);
  default:
    return form == PacketForm::kIp ? ParseResult::kMalformed : ParseResult::kNotIp;
  }
}

bool QuotedFlow(const ParsedPacket &icmp, ParsedPacket &quoted) {
  const uint8_t *p = icmp.payload;
  const uint32_t n = icmp.payload_length;
  if ((icmp.protocol != 1 && icmp.protocol != 58) || p == nullptr || n < 8) {
    return false;
  }
  quoted = ParsedPacket();
  // Unreachable, source quench, redirect, time exceeded, parameter problem;
  // for ICMPv6 unreachable, too big, time exceeded, parameter problem. The
  // offending packet's start follows the 8 bytes of the ICMP header.
  const uint8_t type = p[0];
  const bool error = icmp.protocol == 1
                         ? type == 3 || type == 4 || type == 5 || type == 11 || type == 12
                         : type >= 1 && type <= 4;
  if (!error) {
    return false;
  }
  const uint8_t *ip = p + 8;
  const uint32_t size = n - 8;
  uint32_t header;
  if (size >= 20 && (ip[0] >> 4) == 4) {
    header = (ip[0] & 0x0F) * 4u;
    // A later fragment quotes no transport header.
    if (header < 20 || size < header || (oru::kit::LoadBe16(ip + 6) & 0x1FFF) != 0) {
      return false;
    }
    quoted.ip_version = 4;
    quoted.protocol = ip[9];
    quoted.src = oru::IpAddr::FromV4(oru::kit::LoadBe32(ip + 12));
    quoted.dst = oru::IpAddr::FromV4(oru::kit::LoadBe32(ip + 16));
  } else if (size >= 40 && (ip[0] >> 4) == 6) {
    header = 40;
    quoted.ip_version = 6;
    quoted.protocol = ip[6];
    quoted.src = oru::IpAddr::FromV6(ip + 8);
    quoted.dst = oru::IpAddr::FromV6(ip + 24);
  } else {
    return false;
  }
  const uint8_t *l4 = ip + header;
  const uint32_t left = size - header;
  if (quoted.protocol == 6 || quoted.protocol == 17) {
    // Only the ports are needed of a header that is usually cut after 8
    // bytes.
    if (left < 4) {
      return false;
    }
    quoted.src_port = oru::kit::LoadBe16(l4);
    quoted.dst_port = oru::kit::LoadBe16(l4 + 2);
    return true;
  }
  return KeyOf(quoted.protocol, l4, left, quoted.src_port, quoted.dst_port);
}

namespace {

// The packet `skip` bytes into the tunnel's payload `p` (of `n` bytes).
bool Found(InnerPacket &inner, TunnelKind kind, PacketForm form, const uint8_t *p, uint32_t n,
           uint32_t skip) {
  inner = InnerPacket{kind, form, p + skip, n - skip};
  return true;
}

bool Gre(const uint8_t *p, uint32_t n, InnerPacket &inner) {
  if (n < 4) {
    return false;
  }
  const uint16_t flags = oru::kit::LoadBe16(p);
  if ((flags & 0x0007) != 0) { // version 0 only
    return false;
  }
  uint32_t header = 4;
  header += (flags & 0x8000) != 0 ? 4 : 0; // checksum
  header += (flags & 0x2000) != 0 ? 4 : 0; // key
  header += (flags & 0x1000) != 0 ? 4 : 0; // sequence
  if (n < header) {
    return false;
  }
  const uint16_t type = oru::kit::LoadBe16(p + 2);
  if (type == kEtherIpv4 || type == kEtherIpv6) {
    return Found(inner, TunnelKind::kGre, PacketForm::kIp, p, n, header);
  }
  return type == 0x6558 && Found(inner, TunnelKind::kGre, PacketForm::kEthernet, p, n, header);
}

bool GtpU(const uint8_t *p, uint32_t n, InnerPacket &inner) {
  // Version 1, protocol type GTP, message G-PDU.
  if (n < 8 || (p[0] & 0xF0) != 0x30 || p[1] != 0xFF) {
    return false;
  }
  uint32_t header = 8;
  if ((p[0] & 0x07) != 0) {
    if (n < 12) {
      return false;
    }
    header = 12;
    uint8_t next = (p[0] & 0x04) != 0 ? p[11] : 0;
    // Extension headers: a length in units of 4 bytes, the next type last.
    for (int hops = 0; next != 0 && hops < 8; ++hops) {
      if (n < header + 1 || p[header] == 0 || n < header + p[header] * 4u) {
        return false;
      }
      const uint32_t size = p[header] * 4u;
      next = p[header + size - 1];
      header += size;
    }
    if (next != 0) {
      return false;
    }
  }
  if (n <= header || ((p[header] >> 4) != 4 && (p[header] >> 4) != 6)) {
    return false;
  }
  return Found(inner, TunnelKind::kGtpU, PacketForm::kIp, p, n, header);
}

bool Vxlan(const uint8_t *p, uint32_t n, InnerPacket &inner) {
  if (n < 8 + 14 || (p[0] & 0x08) == 0) {
    return false;
  }
  return Found(inner, TunnelKind::kVxlan, PacketForm::kEthernet, p, n, 8);
}

// Teredo: an IPv6 packet alone in a UDP datagram, after an optional
// authentication indicator (type 1: client id and authentication value
// lengths, both values, an 8-byte nonce, a confirmation byte) and an optional
// origin indication (type 0: port and address, 8 bytes). Any port may carry
// it, so the packet itself must add up: version 6, a payload length that
// ends exactly with the datagram, and a Teredo (2001:0::/32) or link-local
// (fe80::/10, the qualification exchange) address on one side.
bool Teredo(const uint8_t *p, uint32_t n, InnerPacket &inner) {
  uint32_t at = 0;
  if (n >= 4 && p[0] == 0 && p[1] == 1) {
    at = 4u + p[2] + p[3] + 8u + 1u;
  }
  if (n >= at + 8 && p[at] == 0 && p[at + 1] == 0) {
    at += 8;
  }
  if (n < at + 40 || (p[at] >> 4) != 6 || oru::kit::LoadBe16(p + at + 4) != n - at - 40) {
    return false;
  }
  auto tunnelled = [](const uint8_t *a) {
    return (a[0] == 0x20 && a[1] == 0x01 && a[2] == 0 && a[3] == 0) ||
           (a[0] == 0xfe && (a[1] & 0xc0) == 0x80);
  };
  if (!tunnelled(p + at + 8) && !tunnelled(p + at + 24)) {
    return false;
  }
  return Found(inner, TunnelKind::kTeredo, PacketForm::kIp, p, n, at);
}

} // namespace

bool Decapsulate(const ParsedPacket &outer, InnerPacket &inner) {
  inner = InnerPacket();
  const uint8_t *p = outer.payload;
  const uint32_t n = outer.payload_length;
  if (p == nullptr) {
    return false;
  }
  switch (outer.protocol) {
  case 4:
  case 41:
    return n != 0 && Found(inner, TunnelKind::kIpInIp, PacketForm::kIp, p, n, 0);
  case 47:
    return Gre(p, n, inner);
  case 17:
    if (outer.dst_port == 2152 || outer.src_port == 2152) {
      return GtpU(p, n, inner);
    }
    if (outer.dst_port == 4789) {
      return Vxlan(p, n, inner);
    }
    return Teredo(p, n, inner);
  default:
    return false;
  }
}

} // namespace kest_decoders
