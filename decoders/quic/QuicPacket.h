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

// A variable-length integer at data[pos]; advances pos. False when it runs
// past `length`.
bool ReadVarint(const uint8_t *data, size_t length, size_t &pos, uint64_t &out);

// Versions a datagram may name QUIC with: 1, 2, the IETF drafts and the
// version negotiation packet.
bool KnownVersion(uint32_t version);
// "1", "2", "draft-29", or "0x" and eight hex digits; returns the length
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
FrameStatus ParseFrames(const uint8_t *data, size_t length, CryptoCallback on_crypto,
                        void *user);

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

  uint8_t m_data[kCapacity] = {};
  uint8_t m_have[kCapacity / 8] = {};
  uint32_t m_prefix = 0;
};

} // namespace kest_quic

#endif
