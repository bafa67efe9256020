// DHCP over UDP, on any port: DHCPv4 by its BOOTP body (operation 1 or 2,
// a hardware address of at most 16 bytes, the magic cookie at byte 236) and
// options that end in order; DHCPv6 by a client or server message type (1
// to 11) and options that fill the datagram exactly, a client or server
// identifier among them. Each message reports "dhcp.msg_type" (by name) and
// what it carries of "dhcp.hostname" (option 12; the client FQDN in v6),
// "dhcp.vendor_class" (60; 16), "dhcp.requested_ip" (50; the first address
// of an IA_NA) and "dhcp.client_id" (61; the DUID), in hex.
#include <kest/kit/AddressText.h>
#include <kest/kit/Decoder.h>

namespace {

using namespace oru::kit;

struct Dhcp {
  static constexpr Spec kSpec{.plugin = "dhcp",
                              .module = MODULE_DHCP,
                              .protocols = {"DHCP", "DHCPv6"},
                              .attributes = {"dhcp.msg_type", "dhcp.hostname", "dhcp.vendor_class",
                                             "dhcp.requested_ip", "dhcp.client_id"},
                              .udp = true,
                              .udp_ports = {67, 68, 546, 547}};
  struct State {};
  enum { kType, kHost, kVendor, kAddress, kClient };

  static constexpr const char *kV4Types[] = {"discover", "offer", "request", "decline",
                                             "ack",      "nak",   "release", "inform"};
  static constexpr const char *kV6Types[] = {"solicit",
                                             "advertise",
                                             "request",
                                             "confirm",
                                             "renew",
                                             "rebind",
                                             "reply",
                                             "release",
                                             "decline",
                                             "reconfigure",
                                             "information-request"};

  // What a message carries, published once it is known to be whole.
  struct Found {
    const char *type = nullptr;
    ByteReader fields[5];
    char address[40] = {};
    uint32_t address_length = 0;
    char name[256] = {};
    uint32_t name_length = 0;
  };

  static void Publish(Session<Dhcp> &s, const Found &f) {
    s.Publish(kType, f.type);
    for (int i : {kHost, kVendor}) {
      if (f.fields[i].Left() != 0) {
        s.Publish(i, f.fields[i].Here(), f.fields[i].Left());
      }
    }
    if (f.name_length != 0) {
      s.Publish(kHost, f.name, f.name_length);
    }
    if (f.address_length != 0) {
      s.Publish(kAddress, f.address, f.address_length);
    }
    ByteReader id = f.fields[kClient];
    char hex[3 * 64];
    uint32_t n = 0;
    while (!id.Empty() && n + 3 <= sizeof hex) {
      const uint32_t b = id.U8();
      hex[n++] = "0123456789abcdef"[b >> 4];
      hex[n++] = "0123456789abcdef"[b & 15];
      hex[n++] = ':';
    }
    if (n != 0) {
      s.Publish(kClient, hex, n - 1);
    }
  }

  static bool V4(ByteReader r, Found &f) {
    const uint32_t op = r.U8();
    r.U8();
    const uint32_t hlen = r.U8();
    r.Skip(233);
    static const uint8_t kCookie[] = {0x63, 0x82, 0x53, 0x63};
    if ((op != 1 && op != 2) || hlen > 16 || !r.Expect(kCookie, 4)) {
      return false;
    }
    uint32_t type = 0;
    for (uint32_t code = r.U8(); r.Ok() && code != 255; code = r.U8()) {
      ByteReader value = code == 0 ? ByteReader() : r.Prefixed(1);
      type = code == 53 && value.Left() == 1 ? value.Peek() : type;
      f.fields[kHost] = code == 12 ? value : f.fields[kHost];
      f.fields[kVendor] = code == 60 ? value : f.fields[kVendor];
      f.fields[kClient] = code == 61 ? value : f.fields[kClient];
      if (code == 50 && value.Left() == 4) {
        f.address_length = FormatIpv4(value.Here(), f.address);
      }
    }
    f.type = type >= 1 && type <= 8 ? kV4Types[type - 1] : nullptr;
    return r.Ok() && f.type != nullptr;
  }

  static bool V6(ByteReader r, Found &f) {
    const uint32_t type = r.U8();
    r.Skip(3);
    bool identified = false;
    const bool whole = r.Tlv(2, 2, [&](uint64_t code, ByteReader value) {
      identified |= code == 1 || code == 2;
      f.fields[kClient] = code == 1 ? value : f.fields[kClient];
      if (code == 16) { // enterprise number, then the first length-prefixed class
        value.Skip(4);
        f.fields[kVendor] = value.Prefixed(2);
      } else if (code == 3 && f.address_length == 0) { // IA_NA: id, T1, T2, options
        value.Skip(12);
        value.Tlv(2, 2, [&](uint64_t inner, ByteReader address) {
          if (inner == 5 && address.Left() >= 16) {
            f.address_length = FormatIpv6(address.Here(), f.address);
          }
          return f.address_length == 0;
        });
      } else if (code == 39) { // flags, then the name in DNS labels
        value.U8();
        for (uint32_t label = value.U8(); value.Ok() && label != 0 && label < 64;
             label = value.U8()) {
          ByteReader text = value.Sub(label);
          for (uint32_t i = 0; text.Ok() && i < label && f.name_length + 2 < sizeof f.name; ++i) {
            f.name[f.name_length++] = static_cast<char>(text.U8());
          }
          if (f.name_length + 1 < sizeof f.name) {
            f.name[f.name_length++] = '.';
          }
        }
        f.name_length -= f.name_length != 0 ? 1 : 0;
      }
      return true;
    });
    f.type = type >= 1 && type <= 11 ? kV6Types[type - 1] : nullptr;
    return whole && r.Ok() && identified && f.type != nullptr;
  }

  static Verdict Feed(Session<Dhcp> &s, ByteReader r) {
    Found f;
    const bool v4 = V4(r, f);
    if (!v4 && (f = Found{}, !V6(r, f))) {
      return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    if (!s.Name(v4 ? 0 : 1)) {
      return Verdict::kNotMine;
    }
    Publish(s, f);
    return Verdict::kNamed;
  }
};

} // namespace

KEST_DECODER(Dhcp)
