/// What carries the messages of one asynchronous call, and who receives them.
#ifndef KIVPLATFORM_CHANNEL_H
#define KIVPLATFORM_CHANNEL_H

#include <IOKit/IOKitLib.h>
#include <kivplatform/descriptor.h>

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
    static std::shared_ptr<Channel> create(IOAsyncCallback function, void* context, Descriptor& far_end);

    int descriptor() const { return socket_.get(); }

    /// Receives one message and calls the function with it; `events` is what poll() said. A message that
    /// fits no callback is dropped.
    Outcome deliver(short events);

    /// No callback starts any more; whoever polls the descriptor wakes up.
    void close();

  private:
    Channel(IOAsyncCallback function, void* context, Descriptor socket)
        : function_(function), context_(context), socket_(std::move(socket)) {}

    const IOAsyncCallback function_;
    void* const context_;
    const Descriptor socket_;  ///< Closed with the channel, so that nobody polls a number that is reused.
    std::atomic<bool> closed_ = false;
};

/// Ends a poll() of one run loop from any thread.
class Waker {
  public:
    Waker();
    void wake() const;
    void clear() const;
    /// -1 when the process had no descriptor left: then a loop has to look from time to time.
    int descriptor() const { return event_.get(); }

  private:
    const Descriptor event_;
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
