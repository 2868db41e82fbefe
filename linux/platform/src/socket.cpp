#include "socket.h"

#include <IOKit/IOReturn.h>
#include <kivplatform/driver_process.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kivplatform {

std::shared_ptr<Conversation> Conversation::start(kern_return_t& status) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof address.sun_path == KIVPLATFORM_SOCKET_PATH_SIZE);
    status = kIOReturnNotPermitted;
    if (!kivplatform_driver_socket(address.sun_path)) return nullptr;

    status = kIOReturnNoResources;
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    std::shared_ptr<Conversation> conversation(new Conversation(fd));
    int result = 0;
    do {
        result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result == 0 || errno == ENOENT || errno == ENOTDIR || errno == ECONNREFUSED)
        status = kIOReturnSuccess;
    return result == 0 ? conversation : nullptr;
}

Conversation::~Conversation() {
    close(socket_);
}

kern_return_t Conversation::ask(const kivplatform_request& request, const void* payload, std::size_t size,
                                std::span<std::byte> room, std::size_t& produced) {
    const std::lock_guard lock(turn_);
    if (ended_) return MACH_SEND_INVALID_DEST;
    return exchange(request, payload, size, room, produced);
}

void Conversation::end() {
    std::unique_lock lock(turn_, std::try_to_lock);
    if (!lock.owns_lock()) {
        shutdown(socket_, SHUT_RDWR);
        lock.lock();
        ended_ = true;
        return;
    }
    kivplatform_request request{};
    request.kind = KIVPLATFORM_CLOSE;
    std::size_t produced = 0;
    exchange(request, nullptr, 0, {}, produced);
    ended_ = true;
    shutdown(socket_, SHUT_RDWR);
}

kern_return_t Conversation::exchange(const kivplatform_request& request, const void* payload,
                                     std::size_t size, std::span<std::byte> room, std::size_t& produced) {
    iovec parts[2] = {{const_cast<kivplatform_request*>(&request), sizeof request},
                      {const_cast<void*>(payload), size}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = size == 0 ? 1 : 2;
    ssize_t done = 0;
    do {
        done = sendmsg(socket_, &message, MSG_NOSIGNAL);
    } while (done < 0 && errno == EINTR);
    if (done < 0) return MACH_SEND_INVALID_DEST;

    kivplatform_reply reply{};
    parts[0] = {&reply, sizeof reply};
    parts[1] = {room.data(), room.size()};
    message.msg_iovlen = 2;
    do {
        done = recvmsg(socket_, &message, 0);
    } while (done < 0 && errno == EINTR);
    if (done < static_cast<ssize_t>(sizeof reply)) return MACH_SEND_INVALID_DEST;
    if ((message.msg_flags & MSG_TRUNC) != 0) return kIOReturnBadArgument;
    produced = static_cast<std::size_t>(done) - sizeof reply;
    return reply.status;
}

}  // namespace kivplatform

bool kivplatform_driver_socket(char path[KIVPLATFORM_SOCKET_PATH_SIZE]) {
    path[0] = '\0';
    char text[KIVPLATFORM_SOCKET_PATH_SIZE];
    int length = 0;
    if (const char* chosen = std::getenv("KIVSIM_SOCKET"); chosen != nullptr && *chosen != '\0') {
        length = std::snprintf(text, sizeof text, "%s", chosen);
    } else {
        const unsigned user = getuid();
        char directory[32];
        std::snprintf(directory, sizeof directory, "/tmp/kivsim-%u", user);
        struct stat found {};
        if (lstat(directory, &found) == 0 &&
            (!S_ISDIR(found.st_mode) || found.st_uid != user || (found.st_mode & 0777) != 0700)) {
            return false;
        }
        length = std::snprintf(text, sizeof text, "%s/driver.sock", directory);
    }
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof text) return false;
    std::memcpy(path, text, static_cast<std::size_t>(length) + 1);
    return true;
}

bool kivplatform_driver_running() {
    kern_return_t ignored = 0;
    return kivplatform::Conversation::start(ignored) != nullptr;
}
