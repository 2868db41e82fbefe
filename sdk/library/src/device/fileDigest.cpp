#include "fileDigest.h"

#include <CommonCrypto/CommonDigest.h>
#include <fmt/format.h>

#include <fstream>
#include <vector>

// MD5 is deprecated as a protection; here it is the checksum that the card's server asks for.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace kiv::device {

std::optional<std::string> md5_of_file(const std::string& path) {
    constexpr std::size_t kBlock = 65536;
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) return std::nullopt;
    CC_MD5_CTX context;
    CC_MD5_Init(&context);
    std::vector<char> block(kBlock);
    while (file) {
        file.read(block.data(), static_cast<std::streamsize>(block.size()));
        CC_MD5_Update(&context, block.data(), static_cast<CC_LONG>(file.gcount()));
    }
    unsigned char digest[CC_MD5_DIGEST_LENGTH];
    CC_MD5_Final(digest, &context);
    if (file.bad()) return std::nullopt;
    std::string text;
    for (const unsigned char byte : digest)
        text += fmt::format("{:02x}", byte);
    return text;
}

}  // namespace kiv::device
