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

namespace {

/// What travels beside a message: a descriptor, and by its alignment perhaps a second one.
union DescriptorRoom {
    char bytes[CMSG_SPACE(sizeof(int))];
    cmsghdr alignment;
};

/// Takes all descriptors that came with a message; none of them is kept unless it was exactly one.
Descriptor only_descriptor(msghdr& message) {
    Descriptor found;
    std::size_t count = 0;
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
        for (std::size_t at = 0; CMSG_LEN(at + sizeof(int)) <= header->cmsg_len; at += sizeof(int)) {
            int number = -1;
            std::memcpy(&number, CMSG_DATA(header) + at, sizeof number);
            found = above_standard(number);  // The one before is closed.
            ++count;
        }
    }
    const bool is_one = count == 1 && (message.msg_flags & MSG_CTRUNC) == 0;
    return is_one ? std::move(found) : Descriptor();
}

}  // namespace

std::shared_ptr<Conversation> Conversation::start(kern_return_t& status) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof address.sun_path == KIVPLATFORM_SOCKET_PATH_SIZE);
    status = kIOReturnNotPermitted;
    if (!kivplatform_driver_socket(address.sun_path)) return nullptr;

    status = kIOReturnNoResources;
    Descriptor owner = above_standard(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const int fd = owner.number();
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
        shutdown(socket_.number(), SHUT_RDWR);
        lock.lock();
        ended_ = true;
        return;
    }
    // A driver process that does not answer may not keep the program from closing.
    const timeval patience{1, 0};
    setsockopt(socket_.number(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(socket_.number(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    kivplatform_request request{};
    request.kind = KIVPLATFORM_CLOSE;
    std::size_t produced = 0;
    if (send(request, nullptr, 0, -1)) receive({}, produced, nullptr);
    ended_ = true;
    shutdown(socket_.number(), SHUT_RDWR);
}

bool Conversation::send(const kivplatform_request& request, const void* payload, std::size_t size,
                        int descriptor) {
    iovec parts[2] = {{const_cast<kivplatform_request*>(&request), sizeof request},
                      {const_cast<void*>(payload), size}};
    DescriptorRoom beside{};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = size == 0 ? 1 : 2;
    if (descriptor >= 0) {
        message.msg_control = &beside;
        message.msg_controllen = sizeof beside;
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof descriptor);
        std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    }
    ssize_t done = 0;
    do {
        done = sendmsg(socket_.number(), &message, MSG_NOSIGNAL);
    } while (done < 0 && errno == EINTR);
    return done >= 0;
}

kern_return_t Conversation::receive(std::span<std::byte> room, std::size_t& produced, Descriptor* received) {
    kivplatform_reply reply{};
    iovec parts[2] = {{&reply, sizeof reply}, {room.data(), room.size()}};
    DescriptorRoom beside{};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    // Without room for descriptors the system drops those that come along.
    if (received != nullptr) {
        message.msg_control = &beside;
        message.msg_controllen = sizeof beside;
    }
    ssize_t done = 0;
    do {
        done = recvmsg(socket_.number(), &message, MSG_CMSG_CLOEXEC);
    } while (done < 0 && errno == EINTR);
    if (done >= 0 && received != nullptr) *received = only_descriptor(message);
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
