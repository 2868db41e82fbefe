#include "driver/MessageChannels.h"

#include <kivos/sockets.h>
#include <kivplatform/driver_protocol.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace kivsim {

void MessageChannels::add(uint64_t connection, Descriptor channel) {
    remove(connection);
    kivos::do_not_wait(channel.get());  // As DriverProcess::accept_connection() does.
    channels_[connection].socket = std::move(channel);
}

void MessageChannels::remove(uint64_t connection) {
    const auto channel = channels_.find(connection);
    if (channel == channels_.end()) return;
    poll_set_.forget(connection | kChannelBit);
    channels_.erase(channel);
}

bool MessageChannels::is_full(uint64_t connection) {
    const auto channel = channels_.find(connection);
    if (channel == channels_.end() || channel->second.waiting.size() < kMostWaiting) return false;
    if (Clock::now() - channel->second.last_taken < kPatience) return true;
    remove(connection);
    return false;
}

void MessageChannels::send(uint64_t connection, std::span<const uint64_t> arguments) {
    const auto channel = channels_.find(connection);
    if (channel == channels_.end()) return;
    kivplatform_message message{};
    message.count = static_cast<uint32_t>(arguments.size());
    std::copy(arguments.begin(), arguments.end(), message.argument);
    std::vector<std::byte> bytes(offsetof(kivplatform_message, argument) + arguments.size_bytes());
    std::memcpy(bytes.data(), &message, bytes.size());
    channel->second.waiting.emplace_back(std::move(bytes));
    flush(connection);
}

void MessageChannels::flush(uint64_t connection) {
    const auto found = channels_.find(connection);
    if (found == channels_.end()) return;
    Channel& channel = found->second;
    using Outcome = kivplatform::OutgoingFrame::Outcome;
    while (!channel.waiting.empty()) {
        const Outcome outcome = channel.waiting.front().frame.send(channel.socket.get(), MSG_DONTWAIT);
        if (outcome == Outcome::Full) break;
        if (outcome == Outcome::Gone) {
            remove(connection);
            return;
        }
        channel.waiting.pop_front();
        channel.last_taken = Clock::now();
    }
    const bool full = !channel.waiting.empty();
    if (full == channel.watched) return;
    if (full) {
        poll_set_.watch(connection | kChannelBit, channel.socket.get(), POLLOUT);
    } else {
        poll_set_.forget(connection | kChannelBit);
    }
    channel.watched = full;
}

}  // namespace kivsim
