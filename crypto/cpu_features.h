// Which code computes AES-128 and SHA-256 in this process.
//
// The processor is asked once, at the first query, which of its crypto
// instructions it has:
// - x86-64: cpuid for the AES instructions (AES-NI) and the SHA extensions
//   (SHA together with SSE4.1 and SSSE3);
// - AArch64 (Linux, little-endian): the kernel's hardware capabilities
//   (getauxval(AT_HWCAP)) for the Cryptography Extensions' AES
//   (AESE/AESD/AESMC/AESIMC) and SHA2 (SHA256H/H2/SU0/SU1) instructions.
// Where it has them, every AES-128 operation and the SHA-256 compression run
// on those instructions; otherwise, and on other architectures, the portable
// table-driven AES and unrolled SHA-256 run.  Both paths give the same bytes
// and the same result codes.  The instruction code is compiled per function
// for its instruction set, so one binary runs on any processor of its
// architecture.
//
// Tests pin the portable code with crypto_force_portable(1) so the same
// vectors go through both paths on one machine; the tool never calls it.
// Nothing here prints or allocates.
#pragma once

// on != 0: from now on use the portable code even where the instructions
// exist; on == 0: use the instructions again where the processor has them.
// Meant to be called before any other thread uses the crypto module.
void crypto_force_portable(int on);

// 1 if AES-128 operations currently run on the AES instructions, else 0.
int crypto_aes_accelerated(void);

// 1 if SHA-256 currently compresses with the SHA instructions, else 0.
int crypto_sha256_accelerated(void);
