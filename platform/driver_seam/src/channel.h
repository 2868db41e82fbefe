/// What carries the messages of one asynchronous call, and who receives them.
#ifndef KIVPLATFORM_CHANNEL_H
#define KIVPLATFORM_CHANNEL_H

#include <IOKit/IOKitLib.h>
#include <kivos/descriptor.h>
#include <kivplatform/frames.h>
#include <kivplatform/waker.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace kivplatform {

/// This process's end of the call's socket pair. The function and its context never leave this process.
class Channel {
  public:
    enum class Outcome { Nothing, Delivered, Ended };

    /// A channel, with the driver process's end in `far_end`; null when there is no descriptor to be had.
    static std::shared_ptr<Channel> create(IOAsyncCallback function, void* context,
                                           kivos::Descriptor& far_end);

    int descriptor() const { return socket_.get(); }

    /// Whether a message has been received that is not delivered yet: poll() does not tell of it any more.
    bool has_message() const;

    /// Calls the function with the next message. One that fits no callback is dropped.
    Outcome deliver();

    /// No callback starts any more; whoever polls the descriptor wakes up.
    void close();

  private:
    Channel(IOAsyncCallback function, void* context, kivos::Descriptor socket)
        : function_(function), context_(context), socket_(std::move(socket)) {}
    Outcome next_message(kivplatform_message& message, std::size_t& size);

    const IOAsyncCallback function_;
    void* const context_;
    const kivos::Descriptor socket_;  ///< Closed with the channel: nobody polls a number that is reused.
    std::atomic<bool> closed_ = false;
    mutable std::mutex mutex_;  ///< Guards all below: two loops may have the port's source.
    IncomingFrames messages_{sizeof(kivplatform_message), IncomingFrames::Descriptors::Refused};
};

/// The channels of one notification port. They are polled by the run loops that have the port's source.
class Channels {
  public:
    void add(std::shared_ptr<Channel> channel);
    void remove(const Channel* channel);

    /// A loop that wants to know when a channel comes or the port goes.
    void watch(const std::shared_ptr<Waker>& waker);

    /// The port has gone, and with it all its channels, now and later.
    void invalidate();
    bool valid() const;

    std::vector<std::shared_ptr<Channel>> all() const;

  private:
    void wake_all() const;

    mutable std::mutex mutex_;  ///< Guards all below.
    std::vector<std::shared_ptr<Channel>> channels_;
    std::vector<std::weak_ptr<Waker>> wakers_;
    bool valid_ = true;
};

}  // namespace kivplatform

#endif
