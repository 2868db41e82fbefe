/// What a peer sends that does not keep to the frames.
#ifndef KIV_TEST_RAW_FRAMES_H
#define KIV_TEST_RAW_FRAMES_H

#include <cstdint>
#include <string>
#include <string_view>

template <typename Struct>
std::string bytes_of(const Struct& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

/// A frame that announces so many descriptors, and the size of the message unless told another one.
std::string framed(const std::string& message, uint32_t descriptors = 0, int64_t size = -1);

/// Sends the bytes at once, with the descriptor so often at the first one. False when the peer is gone.
bool send_raw(int socket, std::string_view bytes, int descriptor = -1, std::size_t count = 0);

#endif
