#include "socket.h"

#include <IOKit/IOReturn.h>
#include <kivos/sockets.h>
#include <kivplatform/driver_process.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

namespace kivplatform {

std::shared_ptr<Conversation> Conversation::start(kern_return_t& status) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    status = kIOReturnNotPermitted;
    if (!kivplatform_driver_socket(address.sun_path)) return nullptr;

    status = kIOReturnNoResources;
    kivos::Descriptor owner = kivos::stream_socket(AF_UNIX);
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
                                kivos::Descriptor* received) {
    const std::lock_guard lock(turn_);
    if (ended_) return MACH_SEND_INVALID_DEST;
    // Until the reply is there, also when memory runs out: one that comes late would be taken for the next
    // request's.
    ended_ = true;
    const kern_return_t status = send(request, {static_cast<const std::byte*>(payload), size}, sent)
                                     ? receive(room, produced, received)
                                     : MACH_SEND_INVALID_DEST;
    ended_ = status == MACH_SEND_INVALID_DEST;
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
    // One that answers byte by byte neither: the patience is for one receipt.
    if (send(request, {}, -1)) replies_.receive(socket_.get());
    ended_ = true;
    shutdown(socket_.get(), SHUT_RDWR);
}

bool Conversation::send(const kivplatform_request& request, std::span<const std::byte> payload,
                        int descriptor) {
    OutgoingFrame frame(std::as_bytes(std::span(&request, 1)), payload, descriptor);
    return frame.send(socket_.get()) == OutgoingFrame::Outcome::Sent;
}

kern_return_t Conversation::receive(std::span<std::byte> room, std::size_t& produced,
                                    kivos::Descriptor* received) {
    kivos::Descriptor descriptor;
    std::optional<std::span<const std::byte>> message;
    while (!(message = replies_.take(descriptor))) {
        if (replies_.receive(socket_.get()) != IncomingFrames::Outcome::Received)
            return MACH_SEND_INVALID_DEST;
    }
    kivplatform_reply reply{};
    if (message->size() < sizeof reply) return MACH_SEND_INVALID_DEST;
    std::memcpy(&reply, message->data(), sizeof reply);
    const auto payload = message->subspan(sizeof reply);
    if (payload.size() > room.size()) return kIOReturnBadArgument;
    std::copy(payload.begin(), payload.end(), room.begin());
    produced = payload.size();
    if (received != nullptr) *received = std::move(descriptor);
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
