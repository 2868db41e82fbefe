#include "channel.h"

#include <kivos/sockets.h>
#include <kivplatform/driver_protocol.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

namespace kivplatform {

namespace {

using kivos::Descriptor;

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
    Descriptor near_end;
    if (!kivos::socket_pair(near_end, far_end)) return nullptr;
    return std::shared_ptr<Channel>(new Channel(function, context, std::move(near_end)));
}

bool Channel::has_message() const {
    const std::lock_guard lock(mutex_);
    return messages_.has_message();
}

/// `size` is how much of the message came.
Channel::Outcome Channel::next_message(kivplatform_message& message, std::size_t& size) {
    const std::lock_guard lock(mutex_);
    if (!messages_.has_message()) {
        const auto outcome = messages_.receive(descriptor(), MSG_DONTWAIT);
        if (outcome == IncomingFrames::Outcome::Ended) return Outcome::Ended;
    }
    Descriptor none;
    const auto bytes = messages_.take(none);
    if (!bytes) return Outcome::Nothing;
    size = bytes->size();
    std::memcpy(&message, bytes->data(), size);
    return Outcome::Delivered;
}

Channel::Outcome Channel::deliver() {
    kivplatform_message message{};
    std::size_t size = 0;
    const Outcome outcome = next_message(message, size);
    if (closed_) return Outcome::Ended;
    if (outcome != Outcome::Delivered) return outcome;
    if (function_ == nullptr || !well_formed(message, size)) return Outcome::Nothing;
    call(function_, context_, message);
    return Outcome::Delivered;
}

void Channel::close() {
    closed_ = true;
    shutdown(descriptor(), SHUT_RDWR);
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
