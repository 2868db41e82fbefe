#include "device/fileDigest.h"

#include <CommonCrypto/CommonDigest.h>
#include <fmt/format.h>

#include <vector>

#include "base/regularFile.h"

// MD5 is deprecated as a protection; here it is the checksum that the card's server asks for.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace kiv::device {

constexpr std::size_t kBlock = 65536;  // Bytes.

std::optional<std::string> md5_of_file(const std::string& path) {
    RegularFile file(path);
    if (!file.is_open()) return std::nullopt;
    CC_MD5_CTX context;
    CC_MD5_Init(&context);
    std::vector<char> block(kBlock);
    for (ssize_t got = 0; (got = file.read_next(block.data(), block.size())) != 0;) {
        if (got < 0) return std::nullopt;
        CC_MD5_Update(&context, block.data(), static_cast<CC_LONG>(got));
    }
    unsigned char digest[CC_MD5_DIGEST_LENGTH];
    CC_MD5_Final(digest, &context);
    std::string text;
    for (const unsigned char byte : digest)
        text += fmt::format("{:02x}", byte);
    return text;
}

}  // namespace kiv::device
