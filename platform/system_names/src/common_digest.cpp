// The digests of CommonCrypto over libcrypto. Its context has no resources, so that one which is never
// finished leaks nothing: hence the low-level calls.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <CommonCrypto/CommonDigest.h>
#include <openssl/crypto.h>
#include <openssl/md5.h>

namespace {

// NOLINTNEXTLINE(misc-redundant-expression): two types that happen to agree.
static_assert(sizeof(MD5_CTX) <= sizeof(CC_MD5_CTX) && alignof(MD5_CTX) <= alignof(CC_MD5_CTX));

MD5_CTX* inside(CC_MD5_CTX* context) {
    return reinterpret_cast<MD5_CTX*>(context);
}

/// Libraries of macOS do not take themselves down at the process's exit. libcrypto does, unless its first
/// call says otherwise: a thread that is in a call then may be using it, or libcurl may be loading it there.
[[gnu::constructor]] void keep_libcrypto() {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}

}  // namespace

int CC_MD5_Init(CC_MD5_CTX* context) {
    return MD5_Init(inside(context));
}

int CC_MD5_Update(CC_MD5_CTX* context, const void* data, CC_LONG size) {
    return MD5_Update(inside(context), data, size);
}

int CC_MD5_Final(unsigned char* digest, CC_MD5_CTX* context) {
    return MD5_Final(digest, inside(context));
}
