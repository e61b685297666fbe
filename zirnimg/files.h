// zirnimg's files.  Inputs are opened without blocking and read only when they are regular files,
// so a FIFO or a device never hangs a run.  Outputs go to a temporary file beside the target that
// is fsync'ed and renamed into place only when complete, then the folder is fsync'ed; a failure or
// a signal (SIGINT, SIGTERM, SIGHUP) removes the temporary file, so nothing partial is ever left.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zi {

// An open input: the descriptor, closed on destruction, and the size fstat gave.
struct Input {
    int fd = -1;
    uint64_t size = 0;
    Input() = default;
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;
    ~Input();
};

// Opens path for reading.  Returns EXIT_OK, or EXIT_IO (message printed) when it cannot be opened
// or is not a regular file.
int iOpenInput(const char *path, Input *in);

// Reads exactly len bytes; false when the file fails or ends first.
bool bReadAll(int fd, void *buf, size_t len);

// The whole of a small input (at most max bytes) into memory that is wiped when released; for
// files that hold secrets.  Returns EXIT_OK, EXIT_IO, or too_large_code when it holds more.
struct SecretText {
    char *text = nullptr;
    size_t len = 0;
    SecretText() = default;
    SecretText(const SecretText &) = delete;
    SecretText &operator=(const SecretText &) = delete;
    ~SecretText();
};
int iReadSecretText(const char *path, size_t max, int too_large_code, SecretText *out);

// An output being written.  Destruction before iCommitOutput removes the temporary file.
struct Output {
    std::string path, tmp;
    int fd = -1;
    int slot = -1;  // in the table the signal handler cleans up
    Output() = default;
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;
    ~Output();
};

// Creates the temporary file for path: owner-only (0600) when secret, otherwise with the mode a
// new file would get (0666 less the umask).  Returns EXIT_OK or EXIT_IO (message printed).
int iOpenOutput(const char *path, bool secret, Output *o);
// Writes len bytes; EXIT_OK or EXIT_IO (message printed).
int iWriteOutput(Output *o, const void *buf, size_t len);
// fsync, rename into place (never over an existing file unless replace), fsync of the folder.
// Returns EXIT_OK, or EXIT_IO (message printed; the temporary file is removed).
int iCommitOutput(Output *o, bool replace = true);

// Installs the handlers that remove live temporary files on SIGINT, SIGTERM and SIGHUP and then
// exit with 128 + the signal's number.
void vInstallSignalCleanup();

}  // namespace zi
