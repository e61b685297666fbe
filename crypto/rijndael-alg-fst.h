// AES (128/192/256-bit keys) in the 32-bit table-driven form, and the
// AES-128 operations built on it.
//
// Round-key arrays are owned by the caller: 4 * (Nr + 1) words, i.e. 44, 52
// or 60.  Block functions allow in == out (the whole input block is read
// before any output byte is written).  Nothing here allocates or prints.
//
// The key setups and rijndaelEncrypt/rijndaelDecrypt are always the table
// code.  The AES-128 operations (vAES128*, uiEncData, uiDecData) run on the
// processor's AES instructions where it has them (cpu_features.h), expanding
// the key once per call, and on the tables otherwise, rebuilding the
// schedule for every block; the bytes and results are the same.  Either way
// they wipe their round keys and temporary blocks before returning.
#pragma once

#include <cstdint>

// Encryption key schedule.  Returns Nr (10, 12, 14) for 128/192/256 bits,
// 0 for any other length (after reading 32 key bytes and writing 8 words).
int rijndaelKeySetupEnc(uint32_t rk[], const uint8_t cipherKey[], int keyBits);

// Decryption key schedule (reversed round keys, InvMixColumns on the inner
// ones).  Returns Nr as above.
int rijndaelKeySetupDec(uint32_t rk[], const uint8_t cipherKey[], int keyBits);

// The 128-bit encryption schedule without length argument; writes 44 words,
// always returns 10.
int rijndaelKeySetupEnc128(uint32_t rk[44], const uint8_t cipherKey[16]);

// One block with an encryption (resp. decryption) schedule; Nr must be the
// value the key setup returned (10, 12 or 14; not checked).
void rijndaelEncrypt(const uint32_t rk[], int Nr, const uint8_t pt[16], uint8_t ct[16]);
void rijndaelDecrypt(const uint32_t rk[], int Nr, const uint8_t ct[16], uint8_t pt[16]);

// AES-128 single block: key (16), input block, output block (may be equal).
void vAES128Enc(const uint8_t key[16], const uint8_t in[16], uint8_t out[16]);
void vAES128Dec(const uint8_t key[16], const uint8_t in[16], uint8_t out[16]);

// AES-128-CBC: key first, IV second.  The caller's IV is never written.
// len <= 0 does nothing.  A partial last block is processed as a whole
// block: in and out must hold len rounded up to a multiple of 16.
// in == out is allowed; other overlaps are not.
void vAES128CBCEnc(const uint8_t key[16], const uint8_t iv[16], const uint8_t *in, uint8_t *out,
                   int32_t len);
void vAES128CBCDec(const uint8_t key[16], const uint8_t iv[16], const uint8_t *in, uint8_t *out,
                   int32_t len);

// Encryption / decryption of len bytes under the module's predefined key and
// IV: CBC over the whole blocks, a tail of < 16 bytes masked with the
// encryption of the preceding ciphertext block (or of the IV).  Output length
// equals input length; in == out allowed.
// Returns 0, or 0xFFFFFFFF for null out, null in or len 0 (nothing written).
uint32_t uiEncData(const uint8_t *in, uint8_t *out, uint32_t len);
uint32_t uiDecData(const uint8_t *in, uint8_t *out, uint32_t len);

// AES-128-CTR with a 128-bit big-endian counter (the caller's ctr is never
// written).  Encrypts and decrypts alike.  Null pointer or len 0: no effect.
// A tail block reads 16 input bytes but writes only the tail.
void vAES128CTR(const uint8_t key[16], const uint8_t ctr[16], const uint8_t *in, uint8_t *out,
                int32_t len);
