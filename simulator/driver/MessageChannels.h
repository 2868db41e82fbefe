/// Where the driver sends its messages: a channel for each connection that has registered.
#ifndef KIVSIM_MESSAGE_CHANNELS_H
#define KIVSIM_MESSAGE_CHANNELS_H

#include <kivplatform/frames.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <utility>
#include <vector>

#include "common/LocalSocket.h"
#include "common/PollSet.h"

namespace kivsim {

/// One thread. Messages wait in order while a program does not read; nothing is lost, unless it reads none
/// for long.
class MessageChannels {
  public:
    /// A channel that is full is waited for under its connection's number with this bit.
    static constexpr uint64_t kChannelBit = uint64_t{1} << 62;

    /// A program that is behind by so many messages holds the senders up ...
    static constexpr std::size_t kMostWaiting = 4096;

    /// ... and gets no more of them when it takes none for so long.
    static constexpr std::chrono::seconds kPatience{2};

    /// `poll_set` is where a channel waits for room.
    explicit MessageChannels(PollSet& poll_set) : poll_set_(poll_set) {}

    void add(uint64_t connection, Descriptor channel);  ///< In place of an earlier one.
    void remove(uint64_t connection);
    bool has(uint64_t connection) const { return channels_.contains(connection); }
    bool is_full(uint64_t connection);  ///< Removes a channel that is full for too long.

    void send(uint64_t connection, std::span<const uint64_t> arguments);
    void flush(uint64_t connection);  ///< Sends what the socket takes. A channel that is gone is removed.

  private:
    using Clock = std::chrono::steady_clock;
    struct Message {
        explicit Message(std::vector<std::byte> all) : bytes(std::move(all)), frame(bytes) {}
        std::vector<std::byte> bytes;
        kivplatform::OutgoingFrame frame;
    };
    struct Channel {
        Descriptor socket;
        std::deque<Message> waiting;
        bool watched = false;  ///< For room.
        Clock::time_point last_taken = Clock::now();
    };

    PollSet& poll_set_;
    std::map<uint64_t, Channel> channels_;
};

}  // namespace kivsim

#endif
