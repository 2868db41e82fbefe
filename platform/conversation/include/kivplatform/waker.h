/// Ends a wait from any thread.
#ifndef KIVPLATFORM_WAKER_H
#define KIVPLATFORM_WAKER_H

#include <kivos/sockets.h>

namespace kivplatform {

/// A descriptor that is readable from the first wake() on, until clear(). Safe in a signal handler.
class Waker {
  public:
    Waker() {
        if (!kivos::pipe_pair(read_end_, write_end_)) return;
        kivos::do_not_wait(read_end_.get());
        kivos::do_not_wait(write_end_.get());
    }

    void wake() const {
        const char any = 0;
        [[maybe_unused]] const ssize_t written = write(write_end_.get(), &any, sizeof any);
    }
    void clear() const {
        char ignored[64];
        while (read(read_end_.get(), ignored, sizeof ignored) == sizeof ignored) {
        }
    }

    /// -1 when the process had no descriptor left: then one has to look from time to time.
    int descriptor() const { return write_end_ ? read_end_.get() : -1; }

  private:
    kivos::Descriptor read_end_;
    kivos::Descriptor write_end_;
};

}  // namespace kivplatform

#endif
