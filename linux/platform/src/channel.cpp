#include "channel.h"

#include <kivplatform/driver_protocol.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <utility>

namespace kivplatform {

namespace {

void call(IOAsyncCallback function, void* context, const kivplatform_message& message) {
    void* values[KIVPLATFORM_MESSAGE_ARGUMENTS];
    std::transform(message.argument, message.argument + message.count, values,
                   [](uint64_t argument) { return reinterpret_cast<void*>(argument); });
    void** arguments = message.count == 0 ? nullptr : values;
    if (message.count == 1) arguments = static_cast<void**>(values[0]);
    function(context, message.result, arguments, message.count);
}

/// True for a message of exactly the arguments that it announces, in a number that a callback takes.
bool well_formed(const kivplatform_message& message, std::size_t size) {
    constexpr std::size_t header = offsetof(kivplatform_message, argument);
    return size >= header && message.count <= KIVPLATFORM_MESSAGE_ARGUMENTS && message.count != 2 &&
           size == header + message.count * sizeof message.argument[0];
}

}  // namespace

std::shared_ptr<Channel> Channel::create(IOAsyncCallback function, void* context, Descriptor& far_end) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return nullptr;
    Descriptor near_end = above_standard(ends[0]);
    far_end = above_standard(ends[1]);
    if (!near_end || !far_end) return nullptr;
    return std::shared_ptr<Channel>(new Channel(function, context, std::move(near_end)));
}

Channel::Outcome Channel::deliver(short events) {
    kivplatform_message message{};
    // Without room for descriptors: the system drops those that come along. MSG_TRUNC gives the whole size.
    const ssize_t size = recv(descriptor(), &message, sizeof message, MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0) return errno == EAGAIN || errno == EINTR ? Outcome::Nothing : Outcome::Ended;
    // An empty message looks like the end, but for what poll() said.
    if (closed_ || (size == 0 && (events & (POLLHUP | POLLRDHUP | POLLERR)) != 0)) return Outcome::Ended;
    if (function_ == nullptr || !well_formed(message, static_cast<std::size_t>(size)))
        return Outcome::Nothing;
    call(function_, context_, message);
    return Outcome::Delivered;
}

void Channel::close() {
    closed_ = true;
    shutdown(descriptor(), SHUT_RDWR);
}

Waker::Waker() : event_(above_standard(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))) {}

void Waker::wake() const {
    if (descriptor() >= 0) eventfd_write(descriptor(), 1);
}

void Waker::clear() const {
    eventfd_t ignored = 0;
    if (descriptor() >= 0) eventfd_read(descriptor(), &ignored);
}

void Channels::add(std::shared_ptr<Channel> channel) {
    const std::lock_guard lock(mutex_);
    if (!valid_) return;
    channels_.push_back(std::move(channel));
    wake_all();
}

void Channels::remove(const Channel* channel) {
    const std::lock_guard lock(mutex_);
    std::erase_if(channels_, [channel](const auto& each) { return each.get() == channel; });
}

void Channels::watch(const std::shared_ptr<Waker>& waker) {
    const std::lock_guard lock(mutex_);
    std::erase_if(wakers_, [](const auto& each) { return each.expired(); });
    wakers_.push_back(waker);
}

void Channels::invalidate() {
    const std::lock_guard lock(mutex_);
    valid_ = false;
    for (const auto& channel : channels_)
        channel->close();
    channels_.clear();
    wake_all();
}

bool Channels::valid() const {
    const std::lock_guard lock(mutex_);
    return valid_;
}

std::vector<std::shared_ptr<Channel>> Channels::all() const {
    const std::lock_guard lock(mutex_);
    return channels_;
}

void Channels::wake_all() const {
    for (const auto& each : wakers_) {
        if (const auto waker = each.lock()) waker->wake();
    }
}

}  // namespace kivplatform
