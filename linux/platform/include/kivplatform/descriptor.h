/// File descriptors with an owner, and how they travel through a local socket. For C++20.
#ifndef KIVPLATFORM_DESCRIPTOR_H
#define KIVPLATFORM_DESCRIPTOR_H

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <span>
#include <utility>

namespace kivplatform {

class Descriptor {
  public:
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }

    /// -1 when there is none.
    int get() const { return number_; }
    explicit operator bool() const { return number_ >= 0; }
    void reset() { *this = Descriptor(); }

  private:
    int number_;
};

/// Owns `number`, which may be -1, under a number of 3 or above: a process may have closed its standard
/// streams, and what it then writes to them must not reach a descriptor of ours. None, with errno, when there
/// is no number left.
inline Descriptor above_standard(int number) {
    Descriptor owner(number);
    if (number < 0 || number > STDERR_FILENO) return owner;
    return Descriptor(fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

/// What travels beside a message: a descriptor, and by its alignment perhaps a second one.
union DescriptorRoom {
    char bytes[CMSG_SPACE(sizeof(int))];
    cmsghdr alignment;
};

/// Takes all descriptors that came with a message; none of them is kept unless it was exactly one.
inline Descriptor only_descriptor(msghdr& message) {
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

/// Sends the parts as one message, with a descriptor unless that is -1. False when the peer is gone or full.
inline bool send_message(int socket, std::span<iovec> parts, int descriptor) {
    DescriptorRoom beside{};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
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
        done = sendmsg(socket, &message, MSG_NOSIGNAL);
    } while (done < 0 && errno == EINTR);
    return done >= 0;
}

/// Receives one message into the parts. Returns its size, or -1 with errno: EMSGSIZE when it does not fit.
/// `received`, unless null, is where its descriptor goes, closed on exec, if it came whole and has exactly
/// one; every other descriptor is closed.
inline ssize_t receive_message(int socket, std::span<iovec> parts, Descriptor* received) {
    DescriptorRoom beside{};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    // Without room for descriptors the system drops those that come along.
    if (received != nullptr) {
        message.msg_control = &beside;
        message.msg_controllen = sizeof beside;
    }
    ssize_t done = 0;
    do {
        done = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    } while (done < 0 && errno == EINTR);
    if (done < 0) return done;
    Descriptor only = only_descriptor(message);
    if ((message.msg_flags & MSG_TRUNC) != 0) {
        only.reset();  // Closing may change errno.
        errno = EMSGSIZE;
        return -1;
    }
    if (received != nullptr) *received = std::move(only);
    return done;
}

}  // namespace kivplatform

#endif
