// The cryptography a passive reader needs to open a client's Initial
// packets: HMAC-SHA256, HKDF with TLS 1.3's Expand-Label, the key schedule of
// Initial packets (QUIC versions 1 and 2, the drafts, mvfst's versions), and
// AES-128-GCM decryption.
//
// Initial packets are encrypted with keys anyone can derive from the
// Destination Connection ID of the client's first Initial; that is what
// lets an observer read the ClientHello. The SDK offers the AES block only
// (include/kest/aes.h), so the mode and the hash-based pieces live here.
// Nothing allocates; every object is plain data on the caller's side.
#ifndef KEST_DECODERS_QUIC_QUICCRYPTO_H
#define KEST_DECODERS_QUIC_QUICCRYPTO_H

#include <kest/aes.h>
#include <stddef.h>
#include <stdint.h>

namespace kest_quic {

constexpr size_t kHashSize = 32;

void HmacSha256(const uint8_t *key, size_t key_length, const uint8_t *data, size_t length,
                uint8_t out[kHashSize]);

// HKDF-Extract(salt, ikm) -> prk.
void HkdfExtract(const uint8_t *salt, size_t salt_length, const uint8_t *ikm, size_t ikm_length,
                 uint8_t prk[kHashSize]);
// HKDF-Expand(prk, info, length); false when length exceeds 255 hash blocks.
bool HkdfExpand(const uint8_t prk[kHashSize], const uint8_t *info, size_t info_length, uint8_t *out,
                size_t length);
// TLS 1.3's HKDF-Expand-Label with an empty context: the label gets the
// "tls13 " prefix. Labels up to 64 bytes; false otherwise.
bool HkdfExpandLabel(const uint8_t secret[kHashSize], const char *label, uint8_t *out,
                     size_t length);

// AES-128-GCM with a 96-bit nonce and a 16-byte tag.
class Gcm128 {
public:
  static constexpr size_t kTagSize = 16;
  static constexpr size_t kNonceSize = 12;

  void SetKey(const uint8_t key[16]);
  // Decrypts `length` bytes of `in` to `out` (which may be `in`) after the
  // tag over `aad` and the ciphertext checks out. False, with `out` left
  // untouched, when it does not.
  bool Open(const uint8_t nonce[kNonceSize], const uint8_t *aad, size_t aad_length,
            const uint8_t *in, size_t length, const uint8_t tag[kTagSize], uint8_t *out) const;

  // The two halves of the mode that Open puts together (and that the tests
  // seal with): the counter-mode key stream over `in` into `out` (which may
  // be `in`), and the tag of `aad` with a ciphertext.
  void Ctr(const uint8_t nonce[kNonceSize], const uint8_t *in, size_t length, uint8_t *out) const;
  void Tag(const uint8_t nonce[kNonceSize], const uint8_t *aad, size_t aad_length,
           const uint8_t *text, size_t length, uint8_t tag[kTagSize]) const;

private:
  void Ghash(const uint8_t *aad, size_t aad_length, const uint8_t *text, size_t length,
             uint8_t out[16]) const;

  AES_KEY m_aes;
  // The hash key H = E(K, 0), as two big-endian halves.
  uint64_t m_h[2];
};

// The versions whose Initial keys are known to a passive reader.
enum class KeyFamily { kNone, kV1, kV2, kDraft22, kDraft23, kDraft29 };
KeyFamily KeyFamilyOf(uint32_t version);

// The client's Initial keys for one Destination Connection ID.
struct InitialKeys {
  uint8_t key[16];
  uint8_t iv[12];
  uint8_t hp[16];
};

// Derives the client's keys; false for a version with no known salt or a
// connection ID longer than 20 bytes.
bool DeriveClientInitialKeys(uint32_t version, const uint8_t *dcid, size_t dcid_length,
                             InitialKeys &out);

} // namespace kest_quic

#endif
