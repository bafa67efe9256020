// The kit's version and the module numbers of the bundled decoders, in one
// place. A module number names
// a plug-in towards the interface broker; two plug-ins of one instance must
// not share one. The library keeps 1 (the system), 259 (TCP) and 260 (UDP)
// for itself (kest/InterfaceBroker.h). Plug-ins from outside this tree take
// numbers from MODULE_FIRST_FREE up.
#ifndef KEST_KIT_MODULEIDS_H
#define KEST_KIT_MODULEIDS_H

#include <kest/InterfaceBroker.h>
#include <kest/Plugin.h>

#include <stdint.h>

namespace oru::kit {

// The generation of the library the kit builds decoders for: a library of
// another major version refuses them when it loads them.
constexpr uint32_t kSdkMajor = 4;

// The GetVersion entry point of every plug-in built with the kit: fills `own`
// with the kit's version, true when `library` is of the same major version.
inline bool SdkVersion(const oru::VersionRecord *library, oru::VersionRecord *own) {
  if (own != nullptr) {
    *own = oru::VersionRecord{kSdkMajor, 0, 0, 1, "kit"};
  }
  return library != nullptr && library->major == kSdkMajor;
}

enum : ModuleId {
  MODULE_WIRE = 261,
  MODULE_DNS = 262,
  MODULE_TLS = 263,
  MODULE_HTTP = 264,
  MODULE_SSH = 265,
  MODULE_SMTP = 266,
  MODULE_POP3 = 267,
  MODULE_IMAP = 268,
  MODULE_FTP = 269,
  MODULE_QUIC = 270,
  MODULE_SIP = 271,
  MODULE_RTSP = 272,
  MODULE_SSDP = 273,
  MODULE_NTP = 274,
  MODULE_SNMP = 275,
  MODULE_SYSLOG = 276,
  MODULE_RADIUS = 277,
  MODULE_TFTP = 278,
  MODULE_DHCP = 279,
  MODULE_NETBIOS = 280,
  MODULE_KERBEROS = 281,
  MODULE_VNC = 282,
  MODULE_TELNET = 283,
  MODULE_LDAP = 284,
  MODULE_RDP = 285,
  MODULE_SOCKS = 286,
  MODULE_IRC = 287,
  MODULE_XMPP = 288,
  MODULE_SMB = 289,
  // The IP protocols that are neither TCP nor UDP, one module each (ip.plg).
  MODULE_ICMP = 290,
  MODULE_ICMP6 = 291,
  MODULE_IGMP = 292,
  MODULE_GRE = 293,
  MODULE_ESP = 294,
  MODULE_SCTP = 295,
  MODULE_IP = 296,
  // Databases, messaging, IoT, peer-to-peer and VPNs.
  MODULE_MYSQL = 297,
  MODULE_PGSQL = 298,
  MODULE_TDS = 299,
  MODULE_REDIS = 300,
  MODULE_MONGODB = 301,
  MODULE_MEMCACHED = 302,
  MODULE_MQTT = 303,
  MODULE_AMQP = 304,
  MODULE_COAP = 305,
  MODULE_MODBUS = 306,
  MODULE_DNP3 = 307,
  MODULE_BITTORRENT = 308,
  MODULE_STUN = 309,
  MODULE_DTLS = 310,
  MODULE_OPENVPN = 311,
  MODULE_WIREGUARD = 312,
  MODULE_IKE = 313,
  MODULE_HTTP2 = 314,
  // Service names and categories.
  MODULE_SERVICE = 315,
  // Media named by its headers where no signalling announced it.
  MODULE_RTP = 316,
  // The first number no bundled decoder uses.
  MODULE_FIRST_FREE = 1024,
};

} // namespace oru::kit

#endif
