// The test token: SoftHSM2 in a scratch folder, reached through its module and through p11-kit's
// server on a Unix socket.  One per test program.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "testutil.h"

namespace zt {

// Runs exe with args; the current test fails unless it exits with status 0.
void sh(const std::string &exe, const std::vector<std::string> &args);

// Token "zirn" (PIN 123456, SO PIN 87654321) with k1 (RSA-2048, id 01), small (RSA-1024, id 02,
// its private half only) and the public key padded (common/token.cpp).
// Sets SOFTHSM2_CONF and P11_KIT_SERVER_ADDRESS for this process and what it runs; skip says what
// to install (and nothing is set) when SoftHSM2, OpenSC's pkcs11-tool or p11-kit is missing.
struct Token {
    std::string dir, module, client, skip, conf;  // module: SoftHSM2's; client: p11-kit-client.so
    pid_t server = -1;
    Token();
    ~Token();
};
Token &token();  // made on first use; its server ends with the program

}  // namespace zt
