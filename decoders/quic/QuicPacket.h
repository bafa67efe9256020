// QUIC packets as a passive reader sees them: long headers (the only ones
// that say they are QUIC), the client's Initial packets opened with keys
// derived from their connection ID, the frames inside them, and the CRYPTO
// stream put back in order so that the ClientHello can be read whole.
//
// Plain code over byte buffers: no connections, no allocation, every length
// checked against the datagram before it is used.
#ifndef KEST_DECODERS_QUIC_QUICPACKET_H
#define KEST_DECODERS_QUIC_QUICPACKET_H

#include "quic/QuicCrypto.h"

#include <stddef.h>
#include <stdint.h>

namespace kest_quic {

constexpr uint32_t kVersionNegotiation = 0x00000000;
constexpr uint32_t kVersion1 = 0x00000001;
constexpr uint32_t kVersion2 = 0x6b3343cf;
constexpr size_t kMaxCid = 20;

// Versions a datagram may name QUIC with: 1, 2, the IETF drafts, mvfst's
// and the version negotiation packet.
bool KnownVersion(uint32_t version);
// The versions of Facebook's QUIC stack, mvfst: 0xfaceb000 to 0xfaceb0ff
// (0xfaceb001 and 0xfaceb002 from its drafts, 0xfaceb00e experimental, the
// rest aliases of version 1 and later experiments), with the IETF long
// header of version 1. Named as "0xfaceb002".
bool MvfstVersion(uint32_t version);
// "1", "2", "draft-29", gQUIC's four characters ("Q043"), or "0x" and
// eight hex digits; returns the length
// (the text is terminated). `size` must be at least 11.
size_t VersionText(uint32_t version, char *out, size_t size);

enum class PacketType : uint8_t { kInitial, kZeroRtt, kHandshake, kRetry, kVersionNegotiation };

struct LongHeader {
  uint8_t first;
  uint32_t version;
  PacketType type;
  uint8_t dcid_length;
  const uint8_t *dcid;
  uint8_t scid_length;
  const uint8_t *scid;
  // Initial, 0-RTT and Handshake: where the (protected) packet number
  // starts, and the bytes after it that the Length field counts.
  size_t pn_offset;
  size_t protected_length;
  // The whole packet: a datagram may carry several, one after the other.
  // Retry and version negotiation take the rest of the datagram.
  size_t packet_length;
};

enum class HeaderStatus {
  kOk,
  // The first bit is clear: a short header, or not QUIC.
  kShortHeader,
  // A version not in KnownVersion.
  kUnknownVersion,
  // Lengths that do not fit, a connection ID over 20 bytes, the fixed bit
  // clear (outside version negotiation).
  kMalformed,
};

HeaderStatus ParseLongHeader(const uint8_t *data, size_t length, LongHeader &out);

// Google's QUIC (gQUIC), the protocol before the IETF one, as its clients
// sent it. Two header forms, both checked against client packets captured
// from Chrome:
//
// Q024 to Q043, the "public header":
//   flags (1)  0x01 version present, 0x02 public reset, 0x08 an 8-byte
//              connection ID (up to Q033 the two bits 0x0c together said
//              so: 0x0d is the flags of Q024, Q025 and Q035 clients, 0x09
//              those of Q033), 0x30 packet number length 1/2/4/6,
//              0x40 and 0x80 unused, always clear
//   connection ID (8, when 0x08 is set)
//   version (4)  'Q' and three ASCII digits, "Q035"
//   packet number, then a 12-byte hash of the clear-text payload and the
//   frames; the client's first packet carries its hello (CHLO) in a
//   STREAM frame on stream 1.
//
// Q044 to Q049 (Q046 the one widely sent): the IETF long header's first
// byte (0x80 long, 0x40 fixed, type and packet number length), the
// version, then ONE byte with the two connection ID lengths in nibbles
// (destination high, source low; 0 for none, otherwise length - 3), the
// IDs, and the packet number: no token, no Length field.
//
// Q050 and the TLS-based T0xx versions: the IETF long header with a length
// byte before each connection ID.
//
// Only the client's packets (and a server's version negotiation, which
// echoes the layout) carry the version; later ones have none and say
// nothing that tells them from noise.

// 'Q' or 'T' and three ASCII digits.
bool GoogleVersion(uint32_t version);

struct GoogleHeader {
  uint32_t version;
  // True for the IETF-like long header of Q044 and later.
  bool long_form;
  // Where the packet number ends: the clear-text hash and frames follow
  // (public header form; 0 when the packet number is not read).
  size_t header_length;
};

// True when `data` starts with a gQUIC packet that names its version, with
// flags and lengths that agree with one of the forms above and the
// datagram.
bool ParseGoogleHeader(const uint8_t *data, size_t length, GoogleHeader &out);

// The server name of a client hello message ("CHLO", a tag count, then a
// table of tags with their end offsets, then the values) starting within
// the first bytes of `data` (the frames after a public header). The table
// must be whole and its offsets rising; the name's value must lie inside
// `data` and be host name characters.
bool FindChloServerName(const uint8_t *data, size_t length, const uint8_t *&name,
                        size_t &name_length);

// Opens one Initial packet: copies it to `scratch` (at least
// header.packet_length bytes), removes header protection and decrypts.
// `largest_pn` is the largest packet number opened so far on this side, -1
// for none. On success the frames are at payload[0..payload_length) inside
// scratch and `pn` is the full packet number.
bool OpenInitial(const uint8_t *packet, const LongHeader &header, const InitialKeys &keys,
                 int64_t largest_pn, uint8_t *scratch, const uint8_t *&payload,
                 size_t &payload_length, uint64_t &pn);

// Called for each CRYPTO frame with its stream offset and bytes.
using CryptoCallback = void (*)(void *user, uint64_t offset, const uint8_t *data, size_t length);

enum class FrameStatus {
  // Every frame read.
  kOk,
  // A frame type an Initial packet should not carry: what came before it
  // was reported, the rest is left alone.
  kStopped,
  // A frame cut short or with lengths that do not add up.
  kMalformed,
};

// Reads the frames of a decrypted Initial (PADDING, PING, ACK, CRYPTO,
// CONNECTION_CLOSE).
FrameStatus ParseFrames(const uint8_t *data, size_t length, CryptoCallback on_crypto, void *user);

// The first bytes of the CRYPTO stream, put in order from frames that may
// come in any order, overlap, or repeat, across several packets. Holds
// kCapacity bytes; a message that declares more is given up on.
class CryptoStream {
public:
  static constexpr uint32_t kCapacity = 16 * 1024;

  enum class State { kNeedMore, kReady, kTooLarge };

  void Add(uint64_t offset, const uint8_t *data, size_t length);
  // kReady once the first handshake message is whole.
  State GetState() const;
  const uint8_t *Message() const { return m_data; }
  // The first message with its four-byte header; 0 until kReady.
  uint32_t MessageLength() const;
  // Bytes in order from offset 0.
  uint32_t Contiguous() const { return m_prefix; }

private:
  bool Have(uint32_t i) const { return (m_have[i >> 3] >> (i & 7)) & 1; }
  // The first message's length with its header, as the header says.
  uint32_t Declared() const;

  uint8_t m_data[kCapacity] = {};
  uint8_t m_have[kCapacity / 8] = {};
  uint32_t m_prefix = 0;
};

} // namespace kest_quic

#endif
