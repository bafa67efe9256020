#include "quic/QuicPacket.h"

#include <string.h>

namespace kest_quic {

namespace {

uint32_t Load32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

bool IsDraft(uint32_t version) {
  return (version & 0xffffff00u) == 0xff000000u && (version & 0xff) != 0;
}

// The smallest Length an Initial, 0-RTT or Handshake packet can have: the
// header-protection sample starts four bytes after the packet number and
// is 16 bytes long.
constexpr uint64_t kMinProtected = 4 + 16;

// RFC 9000's packet number recovery: the value nearest to the next one
// expected that ends in the `bits` bits received.
uint64_t DecodePacketNumber(int64_t largest, uint64_t truncated, unsigned bits) {
  const uint64_t expected = static_cast<uint64_t>(largest + 1);
  const uint64_t window = uint64_t{1} << bits;
  const uint64_t half = window / 2;
  const uint64_t candidate = (expected & ~(window - 1)) | truncated;
  if (candidate + half <= expected && candidate < (uint64_t{1} << 62) - window) {
    return candidate + window;
  }
  if (candidate > expected + half && candidate >= window) {
    return candidate - window;
  }
  return candidate;
}

} // namespace

bool ReadVarint(const uint8_t *data, size_t length, size_t &pos, uint64_t &out) {
  if (pos >= length) {
    return false;
  }
  const size_t size = size_t{1} << (data[pos] >> 6);
  if (length - pos < size) {
    return false;
  }
  uint64_t v = data[pos] & 0x3f;
  for (size_t i = 1; i < size; ++i) {
    v = v << 8 | data[pos + i];
  }
  pos += size;
  out = v;
  return true;
}

bool KnownVersion(uint32_t version) {
  return version == kVersionNegotiation || version == kVersion1 || version == kVersion2 ||
         IsDraft(version);
}

size_t VersionText(uint32_t version, char *out, size_t size) {
  if (size < 11) {
    if (size > 0) {
      out[0] = '\0';
    }
    return 0;
  }
  size_t n = 0;
  if (version == kVersion1 || version == kVersion2) {
    out[n++] = version == kVersion1 ? '1' : '2';
  } else if (IsDraft(version)) {
    memcpy(out, "draft-", 6);
    n = 6;
    const unsigned draft = version & 0xff;
    if (draft >= 100) {
      out[n++] = static_cast<char>('0' + draft / 100);
    }
    if (draft >= 10) {
      out[n++] = static_cast<char>('0' + draft / 10 % 10);
    }
    out[n++] = static_cast<char>('0' + draft % 10);
  } else {
    static constexpr char kHex[] = "0123456789abcdef";
    out[n++] = '0';
    out[n++] = 'x';
    for (int shift = 28; shift >= 0; shift -= 4) {
      out[n++] = kHex[(version >> shift) & 0xf];
    }
  }
  out[n] = '\0';
  return n;
}

HeaderStatus ParseLongHeader(const uint8_t *data, size_t length, LongHeader &out) {
  if (length == 0 || (data[0] & 0x80) == 0) {
    return HeaderStatus::kShortHeader;
  }
  if (length < 7) {
    return HeaderStatus::kMalformed;
  }
  out.first = data[0];
  out.version = Load32(data + 1);
  if (!KnownVersion(out.version)) {
    return HeaderStatus::kUnknownVersion;
  }
  size_t pos = 5;
  out.dcid_length = data[pos++];
  if (out.dcid_length > kMaxCid || length - pos < out.dcid_length + 1u) {
    return HeaderStatus::kMalformed;
  }
  out.dcid = data + pos;
  pos += out.dcid_length;
  out.scid_length = data[pos++];
  if (out.scid_length > kMaxCid || length - pos < out.scid_length) {
    return HeaderStatus::kMalformed;
  }
  out.scid = data + pos;
  pos += out.scid_length;
  out.pn_offset = 0;
  out.protected_length = 0;
  if (out.version == kVersionNegotiation) {
    // The other bits of the first byte are the server's to choose; the
    // list of versions it offers is what must hold.
    const size_t list = length - pos;
    if (list == 0 || list % 4 != 0) {
      return HeaderStatus::kMalformed;
    }
    for (size_t i = pos; i < length; i += 4) {
      if (Load32(data + i) == kVersionNegotiation) {
        return HeaderStatus::kMalformed;
      }
    }
    out.type = PacketType::kVersionNegotiation;
    out.packet_length = length;
    return HeaderStatus::kOk;
  }
  if ((out.first & 0x40) == 0) {
    return HeaderStatus::kMalformed;
  }
  // Version 2 turned the type numbers round by one.
  static constexpr PacketType kV1Types[4] = {PacketType::kInitial, PacketType::kZeroRtt,
                                             PacketType::kHandshake, PacketType::kRetry};
  static constexpr PacketType kV2Types[4] = {PacketType::kRetry, PacketType::kInitial,
                                             PacketType::kZeroRtt, PacketType::kHandshake};
  const unsigned bits = (out.first >> 4) & 3;
  out.type = out.version == kVersion2 ? kV2Types[bits] : kV1Types[bits];
  if (out.type == PacketType::kRetry) {
    // A token of some length and the 16-byte integrity tag.
    if (length - pos < 16) {
      return HeaderStatus::kMalformed;
    }
    out.packet_length = length;
    return HeaderStatus::kOk;
  }
  if (out.type == PacketType::kInitial) {
    uint64_t token = 0;
    if (!ReadVarint(data, length, pos, token) || token > length - pos) {
      return HeaderStatus::kMalformed;
    }
    pos += static_cast<size_t>(token);
  }
  uint64_t rest = 0;
  if (!ReadVarint(data, length, pos, rest) || rest < kMinProtected || rest > length - pos) {
    return HeaderStatus::kMalformed;
  }
  out.pn_offset = pos;
  out.protected_length = static_cast<size_t>(rest);
  out.packet_length = pos + static_cast<size_t>(rest);
  return HeaderStatus::kOk;
}

bool OpenInitial(const uint8_t *packet, const LongHeader &header, const InitialKeys &keys,
                 int64_t largest_pn, uint8_t *scratch, const uint8_t *&payload,
                 size_t &payload_length, uint64_t &pn) {
  if (header.type != PacketType::kInitial || header.protected_length < kMinProtected ||
      header.pn_offset + header.protected_length != header.packet_length) {
    return false;
  }
  memcpy(scratch, packet, header.packet_length);
  AES_KEY hp;
  AES_set_encrypt_key(keys.hp, 128, &hp);
  uint8_t mask[16];
  AES_encrypt(scratch + header.pn_offset + 4, mask, &hp);
  scratch[0] ^= mask[0] & 0x0f;
  const unsigned pn_length = (scratch[0] & 3) + 1u;
  uint64_t truncated = 0;
  for (unsigned i = 0; i < pn_length; ++i) {
    scratch[header.pn_offset + i] ^= mask[1 + i];
    truncated = truncated << 8 | scratch[header.pn_offset + i];
  }
  pn = DecodePacketNumber(largest_pn, truncated, pn_length * 8);
  const size_t header_length = header.pn_offset + pn_length;
  const size_t text_length = header.protected_length - pn_length - Gcm128::kTagSize;
  uint8_t nonce[Gcm128::kNonceSize];
  memcpy(nonce, keys.iv, sizeof nonce);
  for (int i = 0; i < 8; ++i) {
    nonce[Gcm128::kNonceSize - 1 - i] ^= static_cast<uint8_t>(pn >> (8 * i));
  }
  Gcm128 gcm;
  gcm.SetKey(keys.key);
  uint8_t *text = scratch + header_length;
  if (!gcm.Open(nonce, scratch, header_length, text, text_length, text + text_length, text)) {
    return false;
  }
  payload = text;
  payload_length = text_length;
  return true;
}

FrameStatus ParseFrames(const uint8_t *data, size_t length, CryptoCallback on_crypto,
                        void *user) {
  size_t pos = 0;
  while (pos < length) {
    uint64_t type = 0;
    if (!ReadVarint(data, length, pos, type)) {
      return FrameStatus::kMalformed;
    }
    uint64_t a = 0, b = 0, c = 0;
    switch (type) {
    case 0x00: // PADDING
    case 0x01: // PING
      break;
    case 0x02: // ACK
    case 0x03: { // ACK with ECN counts
      uint64_t ranges = 0;
      if (!ReadVarint(data, length, pos, a) || !ReadVarint(data, length, pos, b) ||
          !ReadVarint(data, length, pos, ranges) || !ReadVarint(data, length, pos, c)) {
        return FrameStatus::kMalformed;
      }
      // Each range is two numbers of at least a byte: a count beyond the
      // bytes left is malformed before the loop runs long.
      if (ranges > (length - pos) / 2) {
        return FrameStatus::kMalformed;
      }
      for (uint64_t i = 0; i < ranges; ++i) {
        if (!ReadVarint(data, length, pos, a) || !ReadVarint(data, length, pos, b)) {
          return FrameStatus::kMalformed;
        }
      }
      if (type == 0x03 &&
          (!ReadVarint(data, length, pos, a) || !ReadVarint(data, length, pos, b) ||
           !ReadVarint(data, length, pos, c))) {
        return FrameStatus::kMalformed;
      }
      break;
    }
    case 0x06: // CRYPTO
      if (!ReadVarint(data, length, pos, a) || !ReadVarint(data, length, pos, b) ||
          b > length - pos) {
        return FrameStatus::kMalformed;
      }
      if (on_crypto != nullptr) {
        on_crypto(user, a, data + pos, static_cast<size_t>(b));
      }
      pos += static_cast<size_t>(b);
      break;
    case 0x1c: // CONNECTION_CLOSE (transport)
    case 0x1d: // CONNECTION_CLOSE (application)
      if (!ReadVarint(data, length, pos, a) ||
          (type == 0x1c && !ReadVarint(data, length, pos, b)) ||
          !ReadVarint(data, length, pos, c) || c > length - pos) {
        return FrameStatus::kMalformed;
      }
      pos += static_cast<size_t>(c);
      break;
    default:
      return FrameStatus::kStopped;
    }
  }
  return FrameStatus::kOk;
}

void CryptoStream::Add(uint64_t offset, const uint8_t *data, size_t length) {
  if (offset >= kCapacity || length == 0) {
    return;
  }
  const uint32_t start = static_cast<uint32_t>(offset);
  const uint32_t n = length < kCapacity - start ? static_cast<uint32_t>(length)
                                                : kCapacity - start;
  // The first copy of a byte stays: a retransmission carries the same.
  for (uint32_t i = 0; i < n; ++i) {
    const uint32_t at = start + i;
    if (!Have(at)) {
      m_data[at] = data[i];
      m_have[at >> 3] = static_cast<uint8_t>(m_have[at >> 3] | 1u << (at & 7));
    }
  }
  while (m_prefix < kCapacity && Have(m_prefix)) {
    ++m_prefix;
  }
}

CryptoStream::State CryptoStream::GetState() const {
  if (m_prefix < 4) {
    return State::kNeedMore;
  }
  const uint32_t total =
      4u + (static_cast<uint32_t>(m_data[1]) << 16 | static_cast<uint32_t>(m_data[2]) << 8 |
            m_data[3]);
  if (total > kCapacity) {
    return State::kTooLarge;
  }
  return m_prefix >= total ? State::kReady : State::kNeedMore;
}

uint32_t CryptoStream::MessageLength() const {
  if (GetState() != State::kReady) {
    return 0;
  }
  return 4u + (static_cast<uint32_t>(m_data[1]) << 16 | static_cast<uint32_t>(m_data[2]) << 8 |
               m_data[3]);
}

} // namespace kest_quic
