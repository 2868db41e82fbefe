/// One conversation with the driver process.
#ifndef KIVPLATFORM_SOCKET_H
#define KIVPLATFORM_SOCKET_H

#include <kivos/descriptor.h>
#include <kivplatform/driver_protocol.h>
#include <kivplatform/frames.h>
#include <mach/mach_types.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <span>
#include <utility>

namespace kivplatform {

class Conversation {
  public:
    /// A new conversation. Empty with status 0 when there is no driver process, with an error when there may
    /// be one that cannot be reached.
    static std::shared_ptr<Conversation> start(kern_return_t& status);

    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;

    /// Sends a request and waits for its reply; calls take turns. Returns the reply's status, with the
    /// `produced` bytes of its payload in `room`; kIOReturnBadArgument when they do not fit;
    /// MACH_SEND_INVALID_DEST when the driver process is gone or the conversation has ended. The descriptor
    /// `sent` goes along unless it is -1. `received` is where the reply's descriptor goes, if it has exactly
    /// one; a descriptor that nobody asked for is closed.
    kern_return_t ask(const kivplatform_request& request, const void* payload, std::size_t size,
                      std::span<std::byte> room, std::size_t& produced, int sent = -1,
                      kivos::Descriptor* received = nullptr);

    /// Takes leave of the driver process; a request under way in another thread is aborted instead.
    void end();

  private:
    explicit Conversation(kivos::Descriptor socket) : socket_(std::move(socket)) {}
    bool send(const kivplatform_request& request, std::span<const std::byte> payload, int descriptor);
    kern_return_t receive(std::span<std::byte> room, std::size_t& produced, kivos::Descriptor* received);

    const kivos::Descriptor socket_;
    std::mutex turn_;  ///< One request at a time. Guards all below.
    IncomingFrames replies_{sizeof(kivplatform_reply) + KIVPLATFORM_MESSAGE_SIZE,
                            IncomingFrames::Descriptors::Taken};
    bool ended_ = false;
};

}  // namespace kivplatform

#endif
