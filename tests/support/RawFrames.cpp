#include "support/RawFrames.h"

#include <kivos/sockets.h>
#include <kivplatform/driver_protocol.h>
#include <sys/uio.h>

#include <cstring>
#include <vector>

std::string framed(const std::string& message, uint32_t descriptors, int64_t size) {
    const kivplatform_frame header{
        static_cast<uint32_t>(size < 0 ? static_cast<int64_t>(message.size()) : size), descriptors};
    return bytes_of(header) + message;
}

bool send_raw(int socket, std::string_view bytes, int descriptor, std::size_t count) {
    std::vector<char> beside(CMSG_SPACE(count * sizeof(int)));
    iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (count != 0) {
        message.msg_control = beside.data();
        message.msg_controllen = static_cast<socklen_t>(beside.size());
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = static_cast<socklen_t>(CMSG_LEN(count * sizeof(int)));
        for (std::size_t i = 0; i < count; ++i)
            std::memcpy(CMSG_DATA(header) + i * sizeof(int), &descriptor, sizeof descriptor);
    }
    return sendmsg(socket, &message, kivos::kNoSignal) == static_cast<ssize_t>(bytes.size());
}
