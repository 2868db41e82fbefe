/// Where the driver sends its messages: a channel for each connection that has registered.
#ifndef KIVSIM_MESSAGE_CHANNELS_H
#define KIVSIM_MESSAGE_CHANNELS_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <vector>

#include "Descriptor.h"

namespace kivsim {

/// One thread. Messages wait in order while a program does not read; nothing is lost.
class MessageChannels {
  public:
    /// The epoll entry of a channel that is full has this bit in its number, beside the connection's.
    static constexpr uint64_t kEpollBit = uint64_t{1} << 62;

    /// A program that is behind by so many messages holds the senders up.
    static constexpr std::size_t kMostWaiting = 4096;

    explicit MessageChannels(const Descriptor& epoll) : epoll_(epoll) {}

    void add(uint64_t connection, Descriptor channel);  ///< In place of an earlier one.
    void remove(uint64_t connection);
    bool has(uint64_t connection) const { return channels_.contains(connection); }
    bool is_full(uint64_t connection) const;

    void send(uint64_t connection, std::span<const uint64_t> arguments);
    void flush(uint64_t connection);  ///< Sends what the socket takes. A channel that is gone is removed.

  private:
    struct Channel {
        Descriptor socket;
        std::deque<std::vector<std::byte>> waiting;
        bool watched = false;  ///< In the epoll set, for room.
    };

    const Descriptor& epoll_;
    std::map<uint64_t, Channel> channels_;
};

}  // namespace kivsim

#endif
