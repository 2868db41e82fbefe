/// Digest of a file. Stateless; any thread.
#ifndef KIV_FILE_DIGEST_H
#define KIV_FILE_DIGEST_H

#include <optional>
#include <string>

namespace kiv::device {

/// MD5 of a regular file's bytes in 32 lower-case hexadecimal digits; empty when they cannot all be read.
std::optional<std::string> md5_of_file(const std::string& path);

}  // namespace kiv::device

#endif
