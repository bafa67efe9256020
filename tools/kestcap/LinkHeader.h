// The link headers of captures that the library takes in no form of its own:
// netfilter log records (NFLOG), PPP with or without its HDLC-like address
// and control bytes, Cisco HDLC, and 802.11 data frames with or without a
// radiotap header. Each is taken off, so that what remains is an IP packet
// from its first byte. The bytes come straight from a capture file or an
// interface: every length is checked against the bytes at hand.
#ifndef KESTCAP_LINKHEADER_H
#define KESTCAP_LINKHEADER_H

#include <cstdint>

namespace kestcap {

class LinkHeader {
public:
  // libpcap's link type numbers of the headers read here.
  enum Link : int {
    kPpp = 9,         // PPP, address and control bytes optional
    kPppHdlc = 50,    // PPP in HDLC-like framing (RFC 1662), or Cisco HDLC
    kCiscoHdlc = 104, // Cisco HDLC
    kWlan = 105,      // 802.11 frames, no radio header
    kRadiotap = 127,  // radiotap, then an 802.11 frame
    kNflog = 239,     // netfilter log records
  };

  // True for a link type that Strip() reads.
  static bool Reads(int link);

  // The length of the link header in front of the IP packet of a frame of
  // type `link` (`length` bytes at `data`), in `header`. False when the
  // frame carries no IP packet (a control or management frame, an
  // encrypted 802.11 body, a radio frame with a bad checksum, another PPP
  // protocol) or when its headers do not fit the bytes.
  static bool Strip(int link, const uint8_t *data, uint32_t length, uint32_t &header);

private:
  static bool Ppp(const uint8_t *data, uint32_t length, uint32_t &header);
  static bool CiscoHdlc(const uint8_t *data, uint32_t length, uint32_t &header);
  static bool Wlan(const uint8_t *data, uint32_t length, bool padded, uint32_t &header);
  static bool Radiotap(const uint8_t *data, uint32_t length, uint32_t &header);
  static bool Nflog(const uint8_t *data, uint32_t length, uint32_t &header);
};

} // namespace kestcap

#endif
