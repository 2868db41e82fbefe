#include "socket.h"

#include <IOKit/IOReturn.h>
#include <kivplatform/driver_process.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace kivplatform {

std::shared_ptr<Conversation> Conversation::start(kern_return_t& status) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof address.sun_path == KIVPLATFORM_SOCKET_PATH_SIZE);
    status = kIOReturnNotPermitted;
    if (!kivplatform_driver_socket(address.sun_path)) return nullptr;

    status = kIOReturnNoResources;
    Descriptor owner = above_standard(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const int fd = owner.get();
    if (fd < 0) return nullptr;
    std::shared_ptr<Conversation> conversation(new Conversation(std::move(owner)));
    int result = 0;
    do {
        result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result == 0 || errno == ENOENT || errno == ENOTDIR || errno == ECONNREFUSED)
        status = kIOReturnSuccess;
    return result == 0 ? conversation : nullptr;
}

kern_return_t Conversation::ask(const kivplatform_request& request, const void* payload, std::size_t size,
                                std::span<std::byte> room, std::size_t& produced, int sent,
                                Descriptor* received) {
    const std::lock_guard lock(turn_);
    if (ended_) return MACH_SEND_INVALID_DEST;
    const kern_return_t status =
        send(request, payload, size, sent) ? receive(room, produced, received) : MACH_SEND_INVALID_DEST;
    // A reply that comes late would be taken for the next request's.
    if (status == MACH_SEND_INVALID_DEST) ended_ = true;
    return status;
}

void Conversation::end() {
    std::unique_lock lock(turn_, std::try_to_lock);
    if (!lock.owns_lock()) {
        shutdown(socket_.get(), SHUT_RDWR);
        lock.lock();
        ended_ = true;
        return;
    }
    // A driver process that does not answer may not keep the program from closing.
    const timeval patience{1, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    kivplatform_request request{};
    request.kind = KIVPLATFORM_CLOSE;
    std::size_t produced = 0;
    if (send(request, nullptr, 0, -1)) receive({}, produced, nullptr);
    ended_ = true;
    shutdown(socket_.get(), SHUT_RDWR);
}

bool Conversation::send(const kivplatform_request& request, const void* payload, std::size_t size,
                        int descriptor) {
    iovec parts[] = {{const_cast<kivplatform_request*>(&request), sizeof request},
                     {const_cast<void*>(payload), size}};
    return send_message(socket_.get(), parts, descriptor);
}

kern_return_t Conversation::receive(std::span<std::byte> room, std::size_t& produced, Descriptor* received) {
    kivplatform_reply reply{};
    iovec parts[] = {{&reply, sizeof reply}, {room.data(), room.size()}};
    const ssize_t done = receive_message(socket_.get(), parts, received);
    if (done < 0 && errno == EMSGSIZE) return kIOReturnBadArgument;
    if (done < static_cast<ssize_t>(sizeof reply)) return MACH_SEND_INVALID_DEST;
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
