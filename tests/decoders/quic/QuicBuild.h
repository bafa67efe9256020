// Client Initial packets made for the tests: frames in, a protected packet
// out, with the decoder's own key schedule and AES-GCM (both checked
// against the published vectors first).
#ifndef KEST_TESTS_DECODERS_QUIC_QUICBUILD_H
#define KEST_TESTS_DECODERS_QUIC_QUICBUILD_H

#include "QuicVectors.h"
#include "quic/QuicCrypto.h"

#include <kest/aes.h>
#include <string.h>

namespace quic_test {

inline void PutVarint(Bytes &out, uint64_t v) {
  if (v < 0x40) {
    out.push_back(static_cast<uint8_t>(v));
  } else if (v < 0x4000) {
    out.push_back(static_cast<uint8_t>(0x40 | v >> 8));
    out.push_back(static_cast<uint8_t>(v));
  } else {
    out.push_back(static_cast<uint8_t>(0x80 | v >> 24));
    out.push_back(static_cast<uint8_t>(v >> 16));
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
  }
}

inline Bytes CryptoFrame(uint64_t offset, const uint8_t *data, size_t length) {
  Bytes f = {0x06};
  PutVarint(f, offset);
  PutVarint(f, length);
  f.insert(f.end(), data, data + length);
  return f;
}

// AES-128-GCM encryption, which the decoder itself never needs: the key
// stream over the plain text, then the tag over the result.
inline void Seal(const kest_quic::Gcm128 &gcm, const uint8_t *nonce, const uint8_t *aad,
                 size_t aad_length, const uint8_t *in, size_t length, uint8_t *out, uint8_t *tag) {
  gcm.Ctr(nonce, in, length, out);
  gcm.Tag(nonce, aad, aad_length, out, length, tag);
}

// A protected client Initial of `version` with a 4-byte packet number,
// its frames padded to at least `pad_to` bytes.
inline Bytes ClientInitial(uint32_t version, const Bytes &dcid, const Bytes &scid, uint32_t pn,
                           Bytes frames, size_t pad_to = 1162) {
  if (frames.size() < pad_to) {
    frames.resize(pad_to, 0);
  }
  kest_quic::InitialKeys keys;
  kest_quic::DeriveClientInitialKeys(version, dcid.data(), dcid.size(), keys);
  const uint8_t type = version == 0x6b3343cf ? 0x10 : 0x00;
  Bytes packet = {static_cast<uint8_t>(0xc3 | type), static_cast<uint8_t>(version >> 24),
                  static_cast<uint8_t>(version >> 16), static_cast<uint8_t>(version >> 8),
                  static_cast<uint8_t>(version)};
  packet.push_back(static_cast<uint8_t>(dcid.size()));
  packet.insert(packet.end(), dcid.begin(), dcid.end());
  packet.push_back(static_cast<uint8_t>(scid.size()));
  packet.insert(packet.end(), scid.begin(), scid.end());
  packet.push_back(0); // no token
  const size_t length = 4 + frames.size() + 16;
  packet.push_back(static_cast<uint8_t>(0x40 | length >> 8));
  packet.push_back(static_cast<uint8_t>(length));
  const size_t pn_offset = packet.size();
  for (int shift = 24; shift >= 0; shift -= 8) {
    packet.push_back(static_cast<uint8_t>(pn >> shift));
  }
  uint8_t nonce[12];
  memcpy(nonce, keys.iv, 12);
  for (int i = 0; i < 4; ++i) {
    nonce[11 - i] ^= static_cast<uint8_t>(pn >> (8 * i));
  }
  kest_quic::Gcm128 gcm;
  gcm.SetKey(keys.key);
  const size_t header_length = packet.size();
  packet.resize(header_length + frames.size() + 16);
  Seal(gcm, nonce, packet.data(), header_length, frames.data(), frames.size(),
       packet.data() + header_length, packet.data() + header_length + frames.size());
  AES_KEY hp;
  AES_set_encrypt_key(keys.hp, 128, &hp);
  uint8_t mask[16];
  AES_encrypt(packet.data() + pn_offset + 4, mask, &hp);
  packet[0] ^= mask[0] & 0x0f;
  for (int i = 0; i < 4; ++i) {
    packet[pn_offset + i] ^= mask[1 + i];
  }
  return packet;
}

} // namespace quic_test

#endif
