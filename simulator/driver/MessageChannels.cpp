#include "driver/MessageChannels.h"

#include <kivplatform/driver_protocol.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace kivsim {

void MessageChannels::add(uint64_t connection, Descriptor channel) {
    remove(connection);
    channels_[connection].socket = std::move(channel);
}

void MessageChannels::remove(uint64_t connection) {
    const auto channel = channels_.find(connection);
    if (channel == channels_.end()) return;
    // It would stay in the epoll set as long as anybody holds another copy of it.
    if (channel->second.watched)
        epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, channel->second.socket.get(), nullptr);
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
    channel->second.waiting.push_back(std::move(bytes));
    flush(connection);
}

void MessageChannels::flush(uint64_t connection) {
    const auto found = channels_.find(connection);
    if (found == channels_.end()) return;
    Channel& channel = found->second;
    while (!channel.waiting.empty()) {
        const std::vector<std::byte>& next = channel.waiting.front();
        if (::send(channel.socket.get(), next.data(), next.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN) {
                remove(connection);
                return;
            }
            break;
        }
        channel.waiting.pop_front();
        channel.last_taken = Clock::now();
    }
    const bool full = !channel.waiting.empty();
    if (full == channel.watched) return;
    epoll_event event{};
    event.events = EPOLLOUT;
    event.data.u64 = connection | kEpollBit;
    epoll_ctl(epoll_.get(), full ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, channel.socket.get(), &event);
    channel.watched = full;
}

}  // namespace kivsim
