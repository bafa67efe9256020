/*
 * The AES block cipher (FIPS-197), offered to plug-ins with its customary C
 * interface. One call encrypts or decrypts one 16-byte block; modes of
 * operation are left to the caller. The library itself does not use it.
 */
#ifndef KEST_AES_H
#define KEST_AES_H

#include <kest/Export.h>
#include <stdint.h>

#define AES_BLOCK_SIZE 16
#define AES_MAXNR 14

#ifdef __cplusplus
extern "C" {
#endif

/*
 * An expanded key: 4 * (rounds + 1) round-key words, each four key-schedule
 * bytes read big-endian. A decryption key holds the rounds in reverse order,
 * prepared for decryption; the two kinds are not interchangeable.
 */
typedef struct AES_KEY {
  uint32_t rd_key[4 * (AES_MAXNR + 1)];
  int rounds;
} AES_KEY;

/* Expand a 128-, 192- or 256-bit key. Return 0, -1 for a null pointer, -2 for
 * another bit count. */
KEST_API int AES_set_encrypt_key(const unsigned char *userKey, const int bits, AES_KEY *key);
KEST_API int AES_set_decrypt_key(const unsigned char *userKey, const int bits, AES_KEY *key);

/* One block from `in` to `out`; the two may be the same buffer. */
KEST_API void AES_encrypt(const unsigned char *in, unsigned char *out, const AES_KEY *key);
KEST_API void AES_decrypt(const unsigned char *in, unsigned char *out, const AES_KEY *key);

#ifdef __cplusplus
}
#endif

#endif
