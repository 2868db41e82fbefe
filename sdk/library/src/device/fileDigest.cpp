#include "device/fileDigest.h"

#include <CommonCrypto/CommonDigest.h>
#include <fmt/format.h>

#include "base/regularFile.h"

// MD5 is deprecated as a protection; here it is the checksum that the card's server asks for.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace kiv::device {

std::optional<std::string> md5_of_file(const std::string& path) {
    RegularFile file(path);
    if (!file.is_open()) return std::nullopt;
    CC_MD5_CTX context;
    CC_MD5_Init(&context);
    const bool whole = file.read_all([&](std::string_view block) {
        CC_MD5_Update(&context, block.data(), static_cast<CC_LONG>(block.size()));
    });
    if (!whole) return std::nullopt;
    unsigned char digest[CC_MD5_DIGEST_LENGTH];
    CC_MD5_Final(digest, &context);
    std::string text;
    for (const unsigned char byte : digest)
        text += fmt::format("{:02x}", byte);
    return text;
}

}  // namespace kiv::device
