/// What becomes of a thread's work, for another thread that waits for it.
#ifndef KIV_OUTCOME_H
#define KIV_OUTCOME_H

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <utility>

#include <kiv/threadSafety.h>

namespace kiv {

/// Not a std::promise: one that is given up, as its thread cannot be started, asks for memory, and ends the
/// process when there is none.
template <typename Result>
class Outcome {
  public:
    /// Takes what `body` gives or throws.
    template <typename Body>
    void of(Body body) noexcept {
        std::optional<Result> result;
        std::exception_ptr failure;
        try {
            result = body();
        } catch (...) {
            failure = std::current_exception();
        }
        {
            const std::lock_guard lock(mutex_);
            result_ = std::move(result);
            std::swap(failure_, failure);
        }
        known_.notify_all();
    }

    /// False when it is not known in time.
    bool wait_until(std::chrono::steady_clock::time_point end) {
        UniqueLock lock(mutex_);
        return known_.wait_until(lock, end, [this]() KIV_REQUIRES(mutex_) { return result_ || failure_; });
    }

    /// Once it is known.
    Result get() {
        const std::lock_guard lock(mutex_);
        if (failure_) std::rethrow_exception(failure_);
        return *result_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable known_;
    std::optional<Result> result_ KIV_GUARDED_BY(mutex_);
    std::exception_ptr failure_ KIV_GUARDED_BY(mutex_);
};

}  // namespace kiv

#endif
