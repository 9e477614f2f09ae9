// CBB::CbbMd5: MD5 digests of files through libcrypto's EVP interface, read
// in chunks so that large DB files need little memory.
#include "CbbMd5.h"

#include <openssl/evp.h>

#include <cstdio>
#include <memory>

namespace CBB {

namespace {

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};

struct CtxFreer {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

}  // namespace

CbbMd5::CbbMd5(int mode) : m_nMode(mode) {}

int CbbMd5::Md5File(const std::string& path, std::string& md5) {
    (void)m_nMode;  // one mode only on this platform
    md5.clear();

    std::unique_ptr<FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
    std::unique_ptr<EVP_MD_CTX, CtxFreer> ctx(EVP_MD_CTX_new());
    if (!file || !ctx || EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr) != 1) {
        return 0;
    }

    unsigned char buffer[64 * 1024];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof(buffer), file.get())) > 0) {
        if (EVP_DigestUpdate(ctx.get(), buffer, got) != 1) {
            return 0;
        }
    }
    if (std::ferror(file.get())) {  // e.g. the path is a directory
        return 0;
    }

    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLen = 0;
    if (EVP_DigestFinal_ex(ctx.get(), digest, &digestLen) != 1) {
        return 0;
    }
    static const char kHex[] = "0123456789abcdef";
    for (unsigned int i = 0; i < digestLen; ++i) {
        md5 += kHex[digest[i] >> 4];
        md5 += kHex[digest[i] & 0x0f];
    }
    return 1;
}

}  // namespace CBB
