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
  } else if (GoogleVersion(version)) {
    for (int shift = 24; shift >= 0; shift -= 8) {
      out[n++] = static_cast<char>((version >> shift) & 0xff);
    }
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

bool GoogleVersion(uint32_t version) {
  const unsigned letter = version >> 24;
  if (letter != 'Q' && letter != 'T') {
    return false;
  }
  for (int shift = 16; shift >= 0; shift -= 8) {
    const unsigned digit = (version >> shift) & 0xff;
    if (digit < '0' || digit > '9') {
      return false;
    }
  }
  return true;
}

namespace {

// The version's number: 43 for "Q043".
unsigned GoogleNumber(uint32_t version) {
  const unsigned hundreds = ((version >> 16) & 0xff) - '0';
  const unsigned tens = ((version >> 8) & 0xff) - '0';
  return hundreds * 100 + tens * 10 + ((version & 0xff) - '0');
}

// The public header of Q024 to Q043.
bool ParsePublicHeader(const uint8_t *data, size_t length, GoogleHeader &out) {
  const uint8_t flags = data[0];
  // Version present, no public reset, the unused high bits clear.
  if ((flags & 0xc3) != 0x01) {
    return false;
  }
  size_t pos = 1;
  switch (flags & 0x0c) {
  case 0x00:
    break;
  case 0x08:
  case 0x0c:
    pos += 8;
    break;
  default:
    // 0x04 alone: a one-byte connection ID once, a server's nonce later;
    // no client sends it.
    return false;
  }
  if (length < pos + 4) {
    return false;
  }
  out.version = Load32(data + pos);
  pos += 4;
  if (out.version >> 24 != 'Q' || !GoogleVersion(out.version) || GoogleNumber(out.version) > 43) {
    return false;
  }
  out.long_form = false;
  // A server's version negotiation: the versions it offers fill the rest.
  const size_t rest = length - pos;
  if (rest > 0 && rest % 4 == 0) {
    bool all = true;
    for (size_t i = pos; i < length && all; i += 4) {
      all = GoogleVersion(Load32(data + i));
    }
    if (all) {
      out.header_length = 0;
      return true;
    }
  }
  static constexpr uint8_t kPacketNumber[4] = {1, 2, 4, 6};
  pos += kPacketNumber[(flags >> 4) & 3];
  // The 12-byte hash and at least one frame byte.
  if (pos > length || length - pos < 12 + 1) {
    return false;
  }
  out.header_length = pos;
  return true;
}

// The long headers of Q044 and later.
bool ParseGoogleLongHeader(const uint8_t *data, size_t length, GoogleHeader &out) {
  if ((data[0] & 0xc0) != 0xc0 || length < 6) {
    return false;
  }
  out.version = Load32(data + 1);
  if (!GoogleVersion(out.version)) {
    return false;
  }
  const bool tls = out.version >> 24 == 'T';
  const unsigned number = GoogleNumber(out.version);
  if (!tls && number < 44) {
    return false;
  }
  out.long_form = true;
  out.header_length = 0;
  size_t pos = 5;
  if (!tls && number < 50) {
    const unsigned dcid = data[pos] >> 4, scid = data[pos] & 0x0f;
    ++pos;
    const size_t ids = (dcid != 0 ? dcid + 3u : 0u) + (scid != 0 ? scid + 3u : 0u);
    const size_t packet_number = (data[0] & 3) + 1u;
    return length - pos > ids + packet_number;
  }
  const size_t dcid = data[pos++];
  if (dcid > kMaxCid || length - pos < dcid + 1u) {
    return false;
  }
  pos += dcid;
  const size_t scid = data[pos++];
  if (scid > kMaxCid || length - pos < scid) {
    return false;
  }
  pos += scid;
  if ((data[0] & 0x30) != 0) {
    return length > pos;
  }
  // An Initial: the token and the Length, as in the IETF form.
  uint64_t token = 0, rest = 0;
  if (!ReadVarint(data, length, pos, token) || token > length - pos) {
    return false;
  }
  pos += static_cast<size_t>(token);
  return ReadVarint(data, length, pos, rest) && rest >= kMinProtected && rest <= length - pos;
}

uint32_t Load32Le(const uint8_t *p) {
  return static_cast<uint32_t>(p[3]) << 24 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[1]) << 8 | p[0];
}

bool HostChar(uint8_t c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_';
}

} // namespace

bool ParseGoogleHeader(const uint8_t *data, size_t length, GoogleHeader &out) {
  if (length == 0) {
    return false;
  }
  return (data[0] & 0x80) != 0 ? ParseGoogleLongHeader(data, length, out)
                               : ParsePublicHeader(data, length, out);
}

bool FindChloServerName(const uint8_t *data, size_t length, const uint8_t *&name,
                        size_t &name_length) {
  // The hello follows the hash, a private flags byte (up to Q033) and the
  // STREAM frame's header: a few dozen bytes at most.
  constexpr size_t kWindow = 40;
  constexpr uint32_t kMaxTags = 128;
  constexpr uint32_t kSni = 'S' | 'N' << 8 | 'I' << 16;
  for (size_t at = 0; at < kWindow && at + 8 <= length; ++at) {
    if (memcmp(data + at, "CHLO", 4) != 0) {
      continue;
    }
    const uint32_t tags = data[at + 4] | static_cast<uint32_t>(data[at + 5]) << 8;
    const size_t table = at + 8;
    if (tags == 0 || tags > kMaxTags || (length - table) / 8 < tags) {
      continue;
    }
    const size_t values = table + static_cast<size_t>(tags) * 8;
    uint32_t previous_tag = 0, previous_end = 0;
    bool ok = true, found = false;
    size_t start = 0, end = 0;
    for (uint32_t i = 0; i < tags && ok; ++i) {
      const uint32_t tag = Load32Le(data + table + i * 8u);
      const uint32_t stop = Load32Le(data + table + i * 8u + 4);
      // Tags in rising order, each value after the one before.
      ok = (i == 0 || tag > previous_tag) && stop >= previous_end;
      if (ok && tag == kSni) {
        start = previous_end;
        end = stop;
        found = true;
      }
      previous_tag = tag;
      previous_end = stop;
    }
    if (!ok || !found || end <= start || end - start > 255 || end > length - values) {
      continue;
    }
    for (size_t i = values + start; i < values + end; ++i) {
      if (!HostChar(data[i])) {
        return false;
      }
    }
    name = data + values + start;
    name_length = end - start;
    return true;
  }
  return false;
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

FrameStatus ParseFrames(const uint8_t *data, size_t length, CryptoCallback on_crypto, void *user) {
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
    case 0x02:   // ACK
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
      if (type == 0x03 && (!ReadVarint(data, length, pos, a) || !ReadVarint(data, length, pos, b) ||
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
  const uint32_t n = length < kCapacity - start ? static_cast<uint32_t>(length) : kCapacity - start;
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
  const uint32_t total = 4u + (static_cast<uint32_t>(m_data[1]) << 16 |
                               static_cast<uint32_t>(m_data[2]) << 8 | m_data[3]);
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
