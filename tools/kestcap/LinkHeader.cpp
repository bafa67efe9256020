#include "LinkHeader.h"

#include <cstring>

namespace kestcap {

namespace {

// Ether types and PPP protocol numbers of IP.
constexpr uint16_t kEtherIpv4 = 0x0800;
constexpr uint16_t kEtherIpv6 = 0x86DD;
constexpr uint16_t kPppIpv4 = 0x0021;
constexpr uint16_t kPppIpv6 = 0x0057;

uint16_t Be16(const uint8_t *p) {
  return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
uint16_t Le16(const uint8_t *p) {
  return static_cast<uint16_t>(p[1] << 8 | p[0]);
}
uint32_t Le32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

bool EtherIp(uint16_t type) {
  return type == kEtherIpv4 || type == kEtherIpv6;
}

} // namespace

bool LinkHeader::Reads(int link) {
  switch (link) {
  case kPpp:
  case kPppHdlc:
  case kCiscoHdlc:
  case kWlan:
  case kRadiotap:
  case kNflog:
    return true;
  default:
    return false;
  }
}

bool LinkHeader::Strip(int link, const uint8_t *data, uint32_t length, uint32_t &header) {
  header = 0;
  switch (link) {
  case kPpp:
    return Ppp(data, length, header);
  case kPppHdlc:
    // The address byte tells the two framings apart: 0xFF for PPP, 0x0F
    // (unicast) or 0x8F (broadcast) for Cisco HDLC.
    if (length > 0 && (data[0] == 0x0F || data[0] == 0x8F)) {
      return CiscoHdlc(data, length, header);
    }
    return Ppp(data, length, header);
  case kCiscoHdlc:
    return CiscoHdlc(data, length, header);
  case kWlan:
    return Wlan(data, length, false, header);
  case kRadiotap:
    return Radiotap(data, length, header);
  case kNflog:
    return Nflog(data, length, header);
  default:
    return false;
  }
}

bool LinkHeader::Ppp(const uint8_t *data, uint32_t length, uint32_t &header) {
  uint32_t at = 0;
  // Address and control (all stations, unnumbered information), unless the
  // link agreed to leave them out.
  if (length >= 2 && data[0] == 0xFF && data[1] == 0x03) {
    at = 2;
  }
  if (length <= at) {
    return false;
  }
  // A protocol number's low byte is odd, its high byte even: an odd first
  // byte is a protocol compressed to one byte.
  uint16_t protocol;
  if ((data[at] & 0x01) != 0) {
    protocol = data[at];
    at += 1;
  } else {
    if (length < at + 2) {
      return false;
    }
    protocol = Be16(data + at);
    at += 2;
  }
  header = at;
  return (protocol == kPppIpv4 || protocol == kPppIpv6) && length > at;
}

bool LinkHeader::CiscoHdlc(const uint8_t *data, uint32_t length, uint32_t &header) {
  // Address, control, then an ether type.
  if (length <= 4) {
    return false;
  }
  header = 4;
  return EtherIp(Be16(data + 2));
}

bool LinkHeader::Wlan(const uint8_t *data, uint32_t length, bool padded, uint32_t &header) {
  if (length < 24) {
    return false;
  }
  const uint8_t control = data[0];
  const uint8_t flags = data[1];
  // Protocol version 0, type 2 (data); subtypes with bit 2 set carry no
  // body (null functions); a protected body cannot be read.
  if ((control & 0x03) != 0 || ((control >> 2) & 0x03) != 2 || (control & 0x40) != 0 ||
      (flags & 0x40) != 0) {
    return false;
  }
  const bool qos = (control & 0x80) != 0;
  uint32_t at = 24;
  if ((flags & 0x03) == 0x03) { // to and from the distribution system
    at += 6;
  }
  if (qos) {
    if (length < at + 2) {
      return false;
    }
    // An aggregate of several frames (A-MSDU) is not one packet.
    if ((data[at] & 0x80) != 0) {
      return false;
    }
    at += 2;
    if ((flags & 0x80) != 0) { // high-throughput control field
      at += 4;
    }
  }
  if (padded) {
    at = (at + 3) & ~3u;
  }
  // LLC/SNAP: DSAP and SSAP 0xAA, unnumbered information, an organisation
  // code (0 for encapsulated Ethernet, 0x0000F8 for bridge tunnels), the
  // ether type.
  if (length <= at + 8 || data[at] != 0xAA || data[at + 1] != 0xAA || data[at + 2] != 0x03) {
    return false;
  }
  header = at + 8;
  return EtherIp(Be16(data + at + 6));
}

bool LinkHeader::Radiotap(const uint8_t *data, uint32_t length, uint32_t &header) {
  // Version 0, a pad byte, the header's length and the first word of the
  // fields present, all little-endian.
  if (length < 8 || data[0] != 0) {
    return false;
  }
  const uint32_t size = Le16(data + 2);
  if (size < 8 || size > length) {
    return false;
  }
  const uint32_t first = Le32(data + 4);
  // Further words follow while bit 31 says so; the fields come after the
  // last word.
  uint32_t at = 4;
  for (uint32_t word = first; (word & 0x80000000u) != 0;) {
    at += 4;
    if (size < at + 4) {
      return false;
    }
    word = Le32(data + at);
  }
  at += 4;
  // The flags field comes second, after the 8-byte, 8-aligned time stamp
  // when there is one.
  uint8_t flags = 0;
  if ((first & 0x02) != 0) {
    if ((first & 0x01) != 0) {
      at = ((at + 7) & ~7u) + 8;
    }
    if (size < at + 1) {
      return false;
    }
    flags = data[at];
  }
  // A frame that failed its checksum is damaged. A checksum at the end
  // stays: the IP header's own length leaves it out.
  if ((flags & 0x40) != 0) {
    return false;
  }
  uint32_t wlan = 0;
  if (!Wlan(data + size, length - size, (flags & 0x20) != 0, wlan)) {
    return false;
  }
  header = size + wlan;
  return true;
}

bool LinkHeader::Nflog(const uint8_t *data, uint32_t length, uint32_t &header) {
  // Address family, version 0, resource id; then attributes: a length
  // that counts its own 4-byte head and a type, in the byte order of the
  // machine reading the capture (libpcap turns them for a file written
  // on the other order), each padded to 4 bytes. Type 9 is the packet.
  if (length < 4 || (data[0] != 2 && data[0] != 10) || data[1] != 0) {
    return false;
  }
  uint32_t at = 4;
  while (length >= at + 4) {
    uint16_t size;
    uint16_t type;
    std::memcpy(&size, data + at, 2);
    std::memcpy(&type, data + at + 2, 2);
    if (size < 4 || length < at + size) {
      return false;
    }
    if (type == 9) {
      header = at + 4;
      return size > 4;
    }
    at += (size + 3u) & ~3u;
  }
  return false;
}

} // namespace kestcap
