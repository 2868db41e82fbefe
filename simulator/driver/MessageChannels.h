/// Where the driver sends its messages: a channel for each connection that has registered.
#ifndef KIVSIM_MESSAGE_CHANNELS_H
#define KIVSIM_MESSAGE_CHANNELS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <vector>

#include "common/LocalSocket.h"

namespace kivsim {

/// One thread. Messages wait in order while a program does not read; nothing is lost, unless it reads none
/// for long.
class MessageChannels {
  public:
    /// The epoll entry of a channel that is full has this bit in its number, beside the connection's.
    static constexpr uint64_t kEpollBit = uint64_t{1} << 62;

    /// A program that is behind by so many messages holds the senders up ...
    static constexpr std::size_t kMostWaiting = 4096;

    /// ... and gets no more of them when it takes none for so long.
    static constexpr std::chrono::seconds kPatience{2};

    explicit MessageChannels(const Descriptor& epoll) : epoll_(epoll) {}

    void add(uint64_t connection, Descriptor channel);  ///< In place of an earlier one.
    void remove(uint64_t connection);
    bool has(uint64_t connection) const { return channels_.contains(connection); }
    bool is_full(uint64_t connection);  ///< Removes a channel that is full for too long.

    void send(uint64_t connection, std::span<const uint64_t> arguments);
    void flush(uint64_t connection);  ///< Sends what the socket takes. A channel that is gone is removed.

  private:
    using Clock = std::chrono::steady_clock;
    struct Channel {
        Descriptor socket;
        std::deque<std::vector<std::byte>> waiting;
        bool watched = false;  ///< In the epoll set, for room.
        Clock::time_point last_taken = Clock::now();
    };

    const Descriptor& epoll_;
    std::map<uint64_t, Channel> channels_;
};

}  // namespace kivsim

#endif
