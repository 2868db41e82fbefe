/// Frames: how messages and descriptors keep apart on a stream socket.
#ifndef KIVPLATFORM_FRAMES_H
#define KIVPLATFORM_FRAMES_H

#include <kivos/descriptor.h>
#include <kivplatform/driver_protocol.h>

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace kivplatform {

/// One frame on its way out. Allocates nothing. One thread.
class OutgoingFrame {
  public:
    enum class Outcome { Sent, Full, Gone };

    /// A message of two parts, with a descriptor unless that is -1. All stay the caller's, unchanged until it
    /// is sent.
    explicit OutgoingFrame(std::span<const std::byte> head, std::span<const std::byte> payload = {},
                           int descriptor = -1);

    /// Sends what the socket takes; all of it on a socket that waits. Full: to be called again when there is
    /// room.
    Outcome send(int socket, int flags = 0);

  private:
    kivplatform_frame frame_;
    std::array<std::span<const std::byte>, 2> parts_;
    int descriptor_;  ///< Goes with the first byte.
    std::size_t sent_ = 0;
};

/// What comes in on one socket, cut into messages. One thread.
class IncomingFrames {
  public:
    enum class Outcome { Received, Nothing, Ended };
    enum class Descriptors { Taken, Refused };

    /// For messages of at most `largest` bytes. Descriptors that are refused never come to be.
    IncomingFrames(std::size_t largest, Descriptors descriptors);

    /// Receives once. Ended: the peer has gone, or what it sent are no frames.
    Outcome receive(int socket, int flags = 0);

    /// Whether a message has come whole.
    bool has_message() const;

    /// The next message that has come whole, until the next receive(). `descriptor` takes its descriptor:
    /// none, unless it was exactly one.
    std::optional<std::span<const std::byte>> take(kivos::Descriptor& descriptor);

  private:
    kivplatform_frame next_header() const;
    bool is_well_formed() const;
    void make_room();
    std::size_t unread() const { return filled_ - begin_; }

    const std::size_t largest_;
    const bool takes_descriptors_;
    std::vector<std::byte> buffer_;
    std::size_t begin_ = 0;                       ///< Of the next frame, in the buffer.
    std::size_t filled_ = 0;                      ///< So much of the buffer is received.
    std::vector<kivos::Descriptor> descriptors_;  ///< Of frames that are not taken yet, in order.
};

}  // namespace kivplatform

#endif
