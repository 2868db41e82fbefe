#include <kivos/sockets.h>
#include <kivplatform/frames.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

namespace kivplatform {

namespace {

using kivos::Descriptor;

/// What travels beside a message: one descriptor.
union OneDescriptor {
    char bytes[CMSG_SPACE(sizeof(int))];
    cmsghdr alignment;
};

/// The most that a system passes at once: where the room is too small, some systems leave the rest open.
constexpr std::size_t kMostAtOnce = 512;
union ManyDescriptors {
    char bytes[CMSG_SPACE(kMostAtOnce * sizeof(int))];
    cmsghdr alignment;
};

/// More than a well-behaved peer ever has under way.
constexpr std::size_t kMostWaiting = 64;

/// Holds most messages whole, and many small ones.
constexpr std::size_t kUsualSize = 4096 + 256;

void attach(int descriptor, OneDescriptor& room, msghdr& message) {
    message.msg_control = &room;
    message.msg_controllen = sizeof room;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
}

iovec part_of(const void* data, std::size_t size) {
    return {const_cast<void*>(data), size};
}

/// Leaves out the first bytes of the parts.
void drop_first(std::span<iovec> parts, std::size_t count) {
    for (iovec& part : parts) {
        const std::size_t here = std::min(count, part.iov_len);
        part.iov_base = static_cast<char*>(part.iov_base) + here;
        part.iov_len -= here;
        count -= here;
    }
}

/// Takes what came with a message, closed on exec. Gives false, and closes the rest, when there are too many.
bool take_descriptors(msghdr& message, std::vector<Descriptor>& taken) {
    bool fits = (message.msg_flags & MSG_CTRUNC) == 0;
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
        for (std::size_t at = 0; CMSG_LEN(at + sizeof(int)) <= header->cmsg_len; at += sizeof(int)) {
            int number = -1;
            std::memcpy(&number, CMSG_DATA(header) + at, sizeof number);
            Descriptor owner = kivos::above_standard(number);
            kivos::adopt(owner.get());
            fits = fits && taken.size() < kMostWaiting;
            if (fits) taken.push_back(std::move(owner));
        }
    }
    return fits;
}

}  // namespace

OutgoingFrame::OutgoingFrame(std::span<const std::byte> head, std::span<const std::byte> payload,
                             int descriptor)
    : frame_{static_cast<uint32_t>(head.size() + payload.size()), descriptor < 0 ? 0u : 1u},
      parts_{head, payload},
      descriptor_(descriptor) {}

OutgoingFrame::Outcome OutgoingFrame::send(int socket, int flags) {
    const std::size_t whole = sizeof frame_ + frame_.size;
    while (sent_ < whole) {
        iovec parts[] = {part_of(&frame_, sizeof frame_), part_of(parts_[0].data(), parts_[0].size()),
                         part_of(parts_[1].data(), parts_[1].size())};
        drop_first(parts, sent_);
        OneDescriptor beside{};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = std::size(parts);
        if (sent_ == 0 && descriptor_ >= 0) attach(descriptor_, beside, message);
        const ssize_t done = sendmsg(socket, &message, flags | kivos::kNoSignal);
        if (done >= 0) {
            sent_ += static_cast<std::size_t>(done);
        } else if (errno != EINTR) {
            return errno == EAGAIN || errno == EWOULDBLOCK ? Outcome::Full : Outcome::Gone;
        }
    }
    return Outcome::Sent;
}

IncomingFrames::IncomingFrames(std::size_t largest, Descriptors descriptors)
    : largest_(largest),
      takes_descriptors_(descriptors == Descriptors::Taken),
      buffer_(std::min(sizeof(kivplatform_frame) + largest, kUsualSize)) {
    // While descriptors lie open nothing may fail.
    if (takes_descriptors_) descriptors_.reserve(kMostWaiting);
}

IncomingFrames::Outcome IncomingFrames::receive(int socket, int flags) {
    if (!is_well_formed()) return Outcome::Ended;  // What came behind another message.
    make_room();
    iovec part{buffer_.data() + filled_, buffer_.size() - filled_};
    ManyDescriptors beside;
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    // Without room for descriptors the system drops those that come along.
    if (takes_descriptors_) {
        message.msg_control = &beside;
        message.msg_controllen = sizeof beside;
    }
    ssize_t done = 0;
    do {
        done = recvmsg(socket, &message, flags | kivos::kReceivedCloseOnExec);
    } while (done < 0 && errno == EINTR);
    if (done < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? Outcome::Nothing : Outcome::Ended;
    const bool fits = !takes_descriptors_ || take_descriptors(message, descriptors_);
    filled_ += static_cast<std::size_t>(done);
    return done == 0 || !fits || !is_well_formed() ? Outcome::Ended : Outcome::Received;
}

/// For the rest of the next frame at least.
void IncomingFrames::make_room() {
    std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
              buffer_.begin() + static_cast<std::ptrdiff_t>(filled_), buffer_.begin());
    filled_ -= std::exchange(begin_, 0);
    if (filled_ < sizeof(kivplatform_frame)) return;
    const std::size_t whole = sizeof(kivplatform_frame) + next_header().size;
    if (whole > buffer_.size()) buffer_.resize(whole);
}

kivplatform_frame IncomingFrames::next_header() const {
    kivplatform_frame header{};
    std::memcpy(&header, buffer_.data() + begin_, sizeof header);
    return header;
}

/// So far. A descriptor arrives with the first byte of its frame, never behind it.
bool IncomingFrames::is_well_formed() const {
    if (unread() < sizeof(kivplatform_frame)) return true;
    const kivplatform_frame header = next_header();
    return header.size <= largest_ && header.descriptors <= descriptors_.size();
}

bool IncomingFrames::has_message() const {
    return unread() >= sizeof(kivplatform_frame) && is_well_formed() &&
           unread() - sizeof(kivplatform_frame) >= next_header().size;
}

std::optional<std::span<const std::byte>> IncomingFrames::take(Descriptor& descriptor) {
    if (!has_message()) return std::nullopt;
    const kivplatform_frame header = next_header();
    const std::span message(buffer_.data() + begin_ + sizeof header, header.size);
    begin_ += sizeof header + header.size;
    descriptor = header.descriptors == 1 ? std::move(descriptors_.front()) : Descriptor();
    // With nothing behind it, what is left belongs to no frame.
    const bool is_last = unread() == 0;
    descriptors_.erase(descriptors_.begin(),
                       is_last ? descriptors_.end() : descriptors_.begin() + header.descriptors);
    return message;
}

}  // namespace kivplatform
