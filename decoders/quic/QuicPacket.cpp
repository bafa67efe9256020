#include "quic/QuicPacket.h"

#include <kest/kit/ByteReader.h>
#include <string.h>

namespace kest_quic {

namespace {

using oru::kit::ByteReader;

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

// An Initial's token: its length, then that many bytes. False when it runs
// past the end.
bool SkipToken(ByteReader &r) {
  const uint64_t token = r.QuicVarint();
  return r.Ok() && token <= r.Left() && r.Skip(static_cast<size_t>(token));
}

} // namespace

bool KnownVersion(uint32_t version) {
  return version == kVersionNegotiation || version == kVersion1 || version == kVersion2 ||
         IsDraft(version) || MvfstVersion(version);
}

bool MvfstVersion(uint32_t version) {
  return (version & 0xffffff00u) == 0xfaceb000u;
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
  ByteReader r(data, length);
  out.first = static_cast<uint8_t>(r.U8());
  out.version = r.U32();
  if (!KnownVersion(out.version)) {
    return HeaderStatus::kUnknownVersion;
  }
  out.dcid_length = static_cast<uint8_t>(r.U8());
  out.dcid = r.Here();
  if (out.dcid_length > kMaxCid || !r.Skip(out.dcid_length)) {
    return HeaderStatus::kMalformed;
  }
  out.scid_length = static_cast<uint8_t>(r.U8());
  out.scid = r.Here();
  if (!r.Ok() || out.scid_length > kMaxCid || !r.Skip(out.scid_length)) {
    return HeaderStatus::kMalformed;
  }
  out.pn_offset = 0;
  out.protected_length = 0;
  if (out.version == kVersionNegotiation) {
    // The other bits of the first byte are the server's to choose; the
    // list of versions it offers is what must hold, and it names one we
    // know: a server offers those it speaks, while the bytes of other
    // traffic that begin as a negotiation (an RTP stream's first packet,
    // number and time 0) seldom hold one.
    if (r.Empty() || r.Left() % 4 != 0) {
      return HeaderStatus::kMalformed;
    }
    bool known = false;
    while (!r.Empty()) {
      const uint32_t offered = r.U32();
      if (offered == kVersionNegotiation) {
        return HeaderStatus::kMalformed;
      }
      known = known || KnownVersion(offered);
    }
    if (!known) {
      return HeaderStatus::kUnknownVersion;
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
    if (r.Left() < 16) {
      return HeaderStatus::kMalformed;
    }
    out.packet_length = length;
    return HeaderStatus::kOk;
  }
  if (out.type == PacketType::kInitial && !SkipToken(r)) {
    return HeaderStatus::kMalformed;
  }
  const uint64_t rest = r.QuicVarint();
  if (!r.Ok() || rest < kMinProtected || rest > r.Left()) {
    return HeaderStatus::kMalformed;
  }
  out.pn_offset = static_cast<size_t>(r.Here() - data);
  out.protected_length = static_cast<size_t>(rest);
  out.packet_length = out.pn_offset + out.protected_length;
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
  ByteReader r(data, length);
  const uint32_t flags = r.U8();
  // Version present, no public reset, the unused high bits clear.
  if ((flags & 0xc3) != 0x01) {
    return false;
  }
  switch (flags & 0x0c) {
  case 0x00:
    break;
  case 0x08:
  case 0x0c:
    r.Skip(8);
    break;
  default:
    // 0x04 alone: a one-byte connection ID once, a server's nonce later;
    // no client sends it.
    return false;
  }
  out.version = r.U32();
  if (!r.Ok() || out.version >> 24 != 'Q' || !GoogleVersion(out.version) ||
      GoogleNumber(out.version) > 43) {
    return false;
  }
  out.long_form = false;
  // A server's version negotiation: the versions it offers fill the rest.
  if (!r.Empty() && r.Left() % 4 == 0) {
    ByteReader offered = r;
    bool all = true;
    while (all && !offered.Empty()) {
      all = GoogleVersion(offered.U32());
    }
    if (all) {
      out.header_length = 0;
      return true;
    }
  }
  static constexpr uint8_t kPacketNumber[4] = {1, 2, 4, 6};
  // The packet number, then the 12-byte hash and at least one frame byte.
  if (!r.Skip(kPacketNumber[(flags >> 4) & 3]) || r.Left() < 12 + 1) {
    return false;
  }
  out.header_length = static_cast<size_t>(r.Here() - data);
  return true;
}

// The long headers of Q044 and later.
bool ParseGoogleLongHeader(const uint8_t *data, size_t length, GoogleHeader &out) {
  if ((data[0] & 0xc0) != 0xc0 || length < 6) {
    return false;
  }
  ByteReader r(data + 1, length - 1);
  out.version = r.U32();
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
  if (!tls && number < 50) {
    const uint32_t lengths = r.U8();
    const unsigned dcid = lengths >> 4, scid = lengths & 0x0f;
    const size_t ids = (dcid != 0 ? dcid + 3u : 0u) + (scid != 0 ? scid + 3u : 0u);
    const size_t packet_number = (data[0] & 3) + 1u;
    return r.Left() > ids + packet_number;
  }
  const uint32_t dcid = r.U8();
  if (dcid > kMaxCid || !r.Skip(dcid)) {
    return false;
  }
  const uint32_t scid = r.U8();
  if (!r.Ok() || scid > kMaxCid || !r.Skip(scid)) {
    return false;
  }
  if ((data[0] & 0x30) != 0) {
    return !r.Empty();
  }
  // An Initial: the token and the Length, as in the IETF form.
  if (!SkipToken(r)) {
    return false;
  }
  const uint64_t rest = r.QuicVarint();
  return r.Ok() && rest >= kMinProtected && rest <= r.Left();
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
    // The tag count (two bytes, little-endian, then two of padding), a
    // table of tags with the end offsets of their values, the values.
    ByteReader r(data + at + 4, length - at - 4);
    const uint32_t tags = r.U16Le();
    r.Skip(2);
    if (tags == 0 || tags > kMaxTags || r.Left() / 8 < tags) {
      continue;
    }
    ByteReader table = r.Sub(static_cast<size_t>(tags) * 8);
    const uint8_t *values = r.Here();
    uint32_t previous_tag = 0, previous_end = 0;
    bool ok = true, found = false;
    size_t start = 0, end = 0;
    for (uint32_t i = 0; i < tags && ok; ++i) {
      const uint32_t tag = table.U32Le();
      const uint32_t stop = table.U32Le();
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
    if (!ok || !found || end <= start || end - start > 255 || end > r.Left()) {
      continue;
    }
    for (size_t i = start; i < end; ++i) {
      if (!HostChar(values[i])) {
        return false;
      }
    }
    name = values + start;
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
  ByteReader r(data, length);
  while (!r.Empty()) {
    const uint64_t type = r.QuicVarint();
    if (!r.Ok()) {
      return FrameStatus::kMalformed;
    }
    switch (type) {
    case 0x00: // PADDING
    case 0x01: // PING
      break;
    case 0x02:        // ACK
    case 0x03: {      // ACK with ECN counts
      r.QuicVarint(); // largest acknowledged
      r.QuicVarint(); // delay
      const uint64_t ranges = r.QuicVarint();
      r.QuicVarint(); // first range
      // Each range is two numbers of at least a byte: a count beyond the
      // bytes left is malformed before the loop runs long.
      if (!r.Ok() || ranges > r.Left() / 2) {
        return FrameStatus::kMalformed;
      }
      for (uint64_t i = 0; i < ranges && r.Ok(); ++i) {
        r.QuicVarint(); // gap
        r.QuicVarint(); // range
      }
      if (type == 0x03) {
        r.QuicVarint(); // ECT(0), ECT(1), ECN-CE counts
        r.QuicVarint();
        r.QuicVarint();
      }
      if (!r.Ok()) {
        return FrameStatus::kMalformed;
      }
      break;
    }
    case 0x06: { // CRYPTO
      const uint64_t offset = r.QuicVarint();
      const uint64_t n = r.QuicVarint();
      if (!r.Ok() || n > r.Left()) {
        return FrameStatus::kMalformed;
      }
      if (on_crypto != nullptr) {
        on_crypto(user, offset, r.Here(), static_cast<size_t>(n));
      }
      r.Skip(static_cast<size_t>(n));
      break;
    }
    case 0x1c:        // CONNECTION_CLOSE (transport)
    case 0x1d: {      // CONNECTION_CLOSE (application)
      r.QuicVarint(); // error code
      if (type == 0x1c) {
        r.QuicVarint(); // frame type
      }
      const uint64_t reason = r.QuicVarint();
      if (!r.Ok() || reason > r.Left()) {
        return FrameStatus::kMalformed;
      }
      r.Skip(static_cast<size_t>(reason));
      break;
    }
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
  const uint32_t total = Declared();
  if (total > kCapacity) {
    return State::kTooLarge;
  }
  return m_prefix >= total ? State::kReady : State::kNeedMore;
}

uint32_t CryptoStream::MessageLength() const {
  if (GetState() != State::kReady) {
    return 0;
  }
  return Declared();
}

uint32_t CryptoStream::Declared() const {
  return 4u + ByteReader(m_data + 1, 3).U24();
}

} // namespace kest_quic
