// zirnimg's reading of protection configurations, stricter than the signer's: the signer takes a
// key as a prefix of the first word, lets a repeated key replace the first, and splits lines
// longer than its 4096-byte buffer into two.  Each of these can swap a key without a word, so
// zirnimg refuses them, naming the line.  Nothing of a value is ever printed, and the file's text
// is wiped once parsed.
#pragma once

#include <cstdint>

#include "ZirnImgProt.h"

namespace zi {

// Reads the configuration at path into *param (freshly initialised first; the caller wipes it).
// need: keys_seen bits that must be present.  Returns EXIT_OK, EXIT_IO or EXIT_BAD_CONFIG
// (message printed).
int iLoadConfig(const char *path, ImgProtParam *param, uint32_t need);

// The record wiped on every way out of a scope.
struct WipedParam {
    ImgProtParam param;
    WipedParam() { vInitImgProtParamV10(&param); }
    WipedParam(const WipedParam &) = delete;
    WipedParam &operator=(const WipedParam &) = delete;
    ~WipedParam() { vWipeImgProtParamV10(&param); }
};

// The library code reports on standard output, and on some failures its reports include key
// material.  zirnimg sends them nowhere: standard output becomes a stream that discards, through
// a buffer of its own that vWipeLibraryOutput clears.  Results go to g_out instead.
bool bSilenceLibraryOutput();  // false: no memory for it
void vWipeLibraryOutput();

}  // namespace zi
