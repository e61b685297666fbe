// The commands that make protected images in two steps, for signers zirnimg cannot reach: prepare
// (everything up to the signature) and stitch (a signature made elsewhere).
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "commands.h"
#include "config.h"
#include "report.h"
#include "workbuf.h"

namespace zi {

Sealed::~Sealed()
{
    if (img == nullptr) return;
    vWipeBuf(img, ui4PaddedSz(plain_size));
    free(img);
}

int iSealImage(const char *cfg_path, const char *in_path, const char *sz, uint32_t need, Sealed *s)
{
    uint32_t ext_mem_size = 0;
    if (!bParseSize(sz, &ext_mem_size))
        return iFail(EXIT_USAGE, "wrong external memory size \"%s\": a decimal number or 0x and at most 8 hex digits, not zero", sz);
    int rc = iLoadConfig(cfg_path, &s->cfg.param, need);
    if (rc != EXIT_OK) return rc;
    vPutLE32(s->cfg.param.hdr.ext_mem_size, ext_mem_size);
    Input in;
    if ((rc = iOpenInput(in_path, &in)) != EXIT_OK) return rc;
    // Sizes are 32-bit in the header: a larger file would be signed cut short.
    if (in.size == 0) return iFail(EXIT_BAD_INPUT, "%s is empty", in_path);
    if (in.size > 0xFFFFFFFFull)
        return iFail(EXIT_BAD_INPUT, "%s: %llu bytes; images of 4 GiB or more do not fit the image format", in_path,
                     (unsigned long long)in.size);
    const uint64_t padded = (in.size + 15) / 16 * 16;
    if (padded > ext_mem_size)
        return iFail(EXIT_BAD_INPUT, "%s: the padded image (%llu bytes) is larger than the external memory size %s", in_path,
                     (unsigned long long)padded, sz);
    s->plain_size = uint32_t(in.size);
    s->img = static_cast<uint8_t *>(malloc(size_t(padded)));
    if (s->img == nullptr) return iFail(EXIT_IO, "cannot read %s: out of memory", in_path);
    if (!bReadAll(in.fd, s->img, s->plain_size)) return iFail(EXIT_IO, "cannot read %s: it changed while read", in_path);
    rc = iSealZIRNImgV10(&s->cfg.param, s->img, s->plain_size, s->hash);
    vWipeLibraryOutput();
    return rc == 0 ? EXIT_OK : iFail(EXIT_IO, "cannot hash %s", in_path);
}

int iWriteImage(const char *path, const Sealed &s)
{
    Output out;
    int rc = iOpenOutput(path, false, &out);
    if (rc == EXIT_OK) rc = iWriteOutput(&out, &s.cfg.param.hdr, ZIRN_HDR_SIZE);
    if (rc == EXIT_OK) rc = iWriteOutput(&out, s.img, ui4PaddedSz(s.plain_size));
    return rc == EXIT_OK ? iCommitOutput(&out) : rc;
}

int iPrepare(const Args &a)
{
    const char *out_path = a.positional[2];
    Sealed s;
    int rc = iSealImage(a.positional[0], a.positional[1], a.positional[3], ENC_PARAM_SEEN | AUTH_PARAM_N_SEEN, &s);
    if (rc == EXIT_OK) rc = iWriteImage(out_path, s);
    if (rc == EXIT_OK && a.digest_out != nullptr) {
        Output digest;
        rc = iOpenOutput(a.digest_out, false, &digest);
        if (rc == EXIT_OK) rc = iWriteOutput(&digest, s.hash, sizeof s.hash);
        if (rc == EXIT_OK) rc = iCommitOutput(&digest);
    }
    if (rc != EXIT_OK) return rc;
    vField("unsigned_image", sJsonStr(out_path));
    vField("digest", sJsonHex(s.hash, 32));
    if (a.digest_out != nullptr) vField("digest_file", sJsonStr(a.digest_out));
    if (!a.json) fprintf(g_out, "%s\n", sHex(s.hash, 32).c_str());
    return EXIT_OK;
}

int iStitch(const Args &a)
{
    if (a.out == nullptr) return iFail(EXIT_USAGE, "stitch: -o OUT is required");
    const char *path = a.positional[0], *sig_path = a.positional[1];
    Image img;
    int rc = iOpenImage(path, &img, true);
    if (rc != EXIT_OK) return rc;
    Input sig;
    if ((rc = iOpenInput(sig_path, &sig)) != EXIT_OK) return rc;
    // Read once, one byte more than a signature: a longer file shows without trusting fstat.
    uint8_t buf[257];
    size_t got = 0;
    for (ssize_t n; got < sizeof buf && (n = read(sig.fd, buf + got, sizeof buf - got)) != 0;) {
        if (n < 0) return iFail(EXIT_IO, "cannot read %s", sig_path);
        got += size_t(n);
    }
    if (got != 256) return iFail(EXIT_BAD_IMAGE, "%s: a signature file holds exactly 256 bytes, this one %s", sig_path,
                                 got > 256 ? "more" : std::to_string(got).c_str());
    memcpy(img.hdr.auth_sig, buf, 256);
    Output out;
    if ((rc = iOpenOutput(a.out, false, &out)) != EXIT_OK || (rc = iWriteOutput(&out, &img.hdr, ZIRN_HDR_SIZE)) != EXIT_OK) return rc;
    uint8_t hash[32];
    const int32_t body = iReadZIRNImgBodyV10(img.in.fd, &img.hdr, hash, out.fd, nullptr, nullptr);
    if (body != 0) return body == -1 ? iFail(EXIT_IO, "cannot read %s", path) : iFail(EXIT_IO, "cannot write %s", a.out);
    if ((rc = iCheckSignature(path, img.hdr, hash)) != EXIT_OK || (rc = iCommitOutput(&out)) != EXIT_OK) return rc;
    vField("output", sJsonStr(a.out));
    if (!a.json) fprintf(g_out, "%s: signature verified, protected image written\n", a.out);
    return EXIT_OK;
}

}  // namespace zi
