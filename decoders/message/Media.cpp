#include "message/Media.h"

#include <kest/kit/AddressText.h>

#include <kest/PktInfo.h>
#include <kest/Runtime.h>

namespace kest_message {

namespace {

// A run of bytes being read from the left.
struct Text {
  const char *p;
  size_t n;

  bool StartsWith(const char *s, size_t k) const {
    if (n < k) {
      return false;
    }
    for (size_t i = 0; i < k; ++i) {
      if (p[i] != s[i]) {
        return false;
      }
    }
    return true;
  }
  void Drop(size_t k) {
    k = k < n ? k : n;
    p += k;
    n -= k;
  }
  // The text up to the first `sep` (or all of it); the rest loses it and
  // the separator.
  Text Cut(char sep) {
    size_t i = 0;
    while (i < n && p[i] != sep) {
      ++i;
    }
    Text head{p, i};
    Drop(i < n ? i + 1 : i);
    return head;
  }
  bool Has(const char *s, size_t k) const {
    for (size_t i = 0; i + k <= n; ++i) {
      if (Text{p + i, k}.StartsWith(s, k)) {
        return true;
      }
    }
    return false;
  }
};

// Decimal digits at the front, at most `max`; false without a digit or
// beyond `max`. The digits are consumed.
bool Number(Text &t, uint32_t max, uint32_t &value) {
  size_t i = 0;
  uint32_t v = 0;
  while (i < t.n && t.p[i] >= '0' && t.p[i] <= '9') {
    v = v * 10u + static_cast<uint32_t>(t.p[i] - '0');
    if (v > max) {
      return false;
    }
    ++i;
  }
  if (i == 0) {
    return false;
  }
  t.Drop(i);
  value = v;
  return true;
}

// A dotted IPv4 address, followed by the end or a byte that is not a digit
// or a dot.
bool Ipv4(Text t, oru::IpAddr &out) {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) {
    uint32_t part = 0;
    if (!Number(t, 255, part)) {
      return false;
    }
    value = value << 8 | part;
    if (i < 3) {
      if (!t.StartsWith(".", 1)) {
        return false;
      }
      t.Drop(1);
    }
  }
  if (t.n != 0 && (t.p[0] == '.' || (t.p[0] >= '0' && t.p[0] <= '9'))) {
    return false;
  }
  out = oru::IpAddr::FromV4(value);
  return true;
}

// "a-b" or "a": the first port.
bool PortRange(Text t, uint16_t &port) {
  uint32_t v = 0;
  if (!Number(t, 65535, v)) {
    return false;
  }
  port = static_cast<uint16_t>(v);
  return true;
}

} // namespace

bool MediaList::Add(const oru::IpAddr &addr, uint16_t port) {
  if (count == kMax || port == 0) {
    return false;
  }
  items[count++] = MediaPort{addr, port};
  return true;
}

void ParseSdp(const char *data, size_t size, MediaList &out) {
  Text rest{data, size};
  oru::IpAddr session;
  // The entry that the current media section added, if it is RTP.
  size_t section = MediaList::kMax;
  bool in_media = false;
  bool own_addr[MediaList::kMax] = {};
  const size_t first = out.count;
  while (rest.n != 0) {
    Text line = rest.Cut('\n');
    if (line.n != 0 && line.p[line.n - 1] == '\r') {
      --line.n;
    }
    if (line.StartsWith("m=", 2)) {
      in_media = true;
      section = MediaList::kMax;
      line.Drop(2);
      line.Cut(' ');
      Text port_text = line.Cut(' ');
      uint32_t port = 0;
      // "m=audio 49170/2 RTP/AVP 0": the transport is the third word.
      if (!Number(port_text, 65535, port)) {
        continue;
      }
      const Text transport = line.Cut(' ');
      if (transport.Has("RTP", 3) && out.Add(oru::IpAddr(), static_cast<uint16_t>(port))) {
        section = out.count - 1;
      }
    } else if (line.StartsWith("c=IN IP4 ", 9) || line.StartsWith("c=IN IP6 ", 9)) {
      const bool v6 = line.p[7] == '6';
      line.Drop(9);
      oru::IpAddr addr;
      // An IPv6 address ends at the line's end or at "/" (a count of
      // multicast addresses).
      const Text text = line.Cut('/');
      if (v6 ? !oru::kit::ParseIpv6(text.p, static_cast<uint32_t>(text.n), addr)
             : !Ipv4(text, addr)) {
        continue;
      }
      if (!in_media) {
        session = addr;
      } else if (section < MediaList::kMax) {
        out.items[section].addr = addr;
        own_addr[section] = true;
      }
    }
  }
  for (size_t i = first; i < out.count; ++i) {
    if (!own_addr[i]) {
      out.items[i].addr = session;
    }
  }
}

void ParseTransport(const char *data, size_t size, const oru::IpAddr &client,
                    const oru::IpAddr &server, MediaList &out) {
  Text rest{data, size};
  while (rest.n != 0) {
    Text spec = rest.Cut(',');
    oru::IpAddr destination = client;
    oru::IpAddr source = server;
    uint16_t client_port = 0;
    uint16_t server_port = 0;
    while (spec.n != 0) {
      Text param = spec.Cut(';');
      while (param.n != 0 && (param.p[0] == ' ' || param.p[0] == '\t')) {
        param.Drop(1);
      }
      if (param.StartsWith("client_port=", 12)) {
        param.Drop(12);
        PortRange(param, client_port);
      } else if (param.StartsWith("server_port=", 12)) {
        param.Drop(12);
        PortRange(param, server_port);
      } else if (param.StartsWith("destination=", 12)) {
        param.Drop(12);
        Ipv4(param, destination);
      } else if (param.StartsWith("source=", 7)) {
        param.Drop(7);
        Ipv4(param, source);
      }
    }
    out.Add(destination, client_port);
    out.Add(source, server_port);
  }
}

int MediaInspector::Judge(const uint8_t *data, size_t size) {
  if (data == nullptr || size < 8 || (data[0] >> 6) != 2) {
    return 0;
  }
  // RTCP: sender and receiver reports, SDES, BYE, APP, with a length in
  // 32-bit words (minus one) that the datagram holds.
  const uint8_t type = data[1];
  if (type >= 200 && type <= 204) {
    const size_t length = (static_cast<size_t>(data[2]) << 8 | data[3]) * 4u + 4u;
    return length <= size ? 2 : 0;
  }
  // RTP: a fixed header of 12 bytes and its contributing sources; payload
  // types 72 to 76 would be RTCP types with the marker bit.
  const uint8_t payload_type = data[1] & 0x7f;
  const size_t header = 12u + 4u * (data[0] & 0x0f);
  if (size < header || (payload_type >= 72 && payload_type <= 76)) {
    return 0;
  }
  return 1;
}

unsigned int MediaInspector::Inspect(oru::ParentDpi * /*parent*/, oru::PktInfo &pkt,
                                     oru::Tuple & /*tuple*/,
                                     oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  const int kind = Judge(pkt.data, pkt.length);
  if (kind != 0) {
    conn->PushProtocol(kind == 1 ? m_rtp : m_rtcp);
  }
  // Judged once, on the flow's first datagram; others may still look.
  return oru::INSPECT_FINISHED;
}

void MediaInspector::Expect(const oru::Conn &conn, const MediaList &media,
                            const oru::IpAddr &sender) {
  if (!Allowed(conn)) {
    return;
  }
  for (size_t i = 0; i < media.count; ++i) {
    const oru::IpAddr addr = media.items[i].addr.is_zero() ? sender : media.items[i].addr;
    const uint16_t port = media.items[i].port;
    ExpectedFlows::Expect(addr, port);
    if (port < 65535) {
      ExpectedFlows::Expect(addr, static_cast<uint16_t>(port + 1));
    }
  }
}

} // namespace kest_message
