// Configuration unit: the protection configuration file parser, its hex
// conversion, the file size query and the other inputs of a protection run.
// All messages go to standard output.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

#include "ZirnImgProt.h"

// Opens path for reading as fopen(path, mode) would, but without ever blocking, and only when
// it is a regular file; otherwise null (errno: EINVAL for a file that is not regular).
FILE *pfOpenRegFileV10(const char *path, const char *mode);

// Overwrites len bytes at buf with zeros, stores the optimiser may not drop although the
// memory is not read again: for buffers that held the text of secrets.
void vWipeTextBufV10(void *buf, size_t len);

// Reads the configuration file at path into *param (which the caller has
// zeroed).  Uses static buffers: one parse at a time.  Every line is printed
// as it is parsed, the secret values too; no other copy of the file's text is
// left behind (the buffers it passed through are wiped, on every path).
// Returns 0; -1 null path or param; -2 open failed (a file that is not
// regular included); -3 close failed (overrides any other result); -4 IMG_VER,
// -5 ENC_PARAM, -6 DEC_PARAM, -7 AUTH_PARAM_N, -8 AUTH_PARAM_D value failed
// to convert.
int32_t iProcZIRNImgProtCfgFileV10(const char *path, ImgProtParam *param);

// The two buffers the configuration text passes through: the line buffer and
// the stream's read buffer.  Unit-internal; declared here for the tests.
std::array<std::span<const char>, 2> aspCfgTextBufsV10();

// Converts "0x" + 2*len hex digits of str into len bytes at buf (first pair
// first); characters after them are ignored.  Unit-internal; declared here
// for the tests.  Returns 0; -1 null str / buf or len < 0; -2 first char not
// '0'; -3 second char not 'x'/'X'; -4 bad digit (bytes before it stay).
int32_t iConvHexStrToValBuf(const char *str, uint8_t *buf, int32_t len);

// Size of the file at path, or 0 for an empty file and for every failure (a
// file that is not regular cannot be opened here).
uint32_t ui4GetFileSz(const char *path);

// Validates the external memory size argument: "0x" or "0X" first, at most ten characters in
// all, a non-zero value (what follows the hex digits is not checked).  Returns 0 with *size set;
// -1 null argument; -2 wrong format; -3 value zero.  Prints nothing.
int32_t iParseExtMemSzV10(const char *arg, uint32_t *size);

// Reads the image of plain_size bytes at path into a fresh buffer of ui4PaddedSz(plain_size)
// bytes (the padding is left to the sealing).  Returns the buffer, which the caller releases with
// free(), or null after printing the failure.
uint8_t *pucReadZIRNImgV10(const char *path, uint32_t plain_size);
