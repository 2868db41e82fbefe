/// A fixed set of worker threads for the jobs that the Scheduler finds due.
#ifndef KIV_PERIODIC_THREAD_POOL_H
#define KIV_PERIODIC_THREAD_POOL_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <kiv/kiv_export.h>
#include <kiv/threadSafety.h>

namespace kiv::device::thread {

/// Jobs start first in, first out; they complete in any order. What a job throws is dropped.
class KIV_API PeriodicThreadPool {
  public:
    /// Starts `threadCount` workers. With 0, posted jobs never run. Throws std::system_error when a thread
    /// cannot be started; those already started are ended first.
    explicit PeriodicThreadPool(unsigned threadCount);

    /// Ends and joins the workers, as shutdown(); jobs still queued are destroyed unrun. On a worker (a job
    /// that owned the last reference to its pool) that worker is let go instead of waited for, and ends after
    /// its job.
    ~PeriodicThreadPool();

    PeriodicThreadPool(const PeriodicThreadPool&) = delete;
    PeriodicThreadPool& operator=(const PeriodicThreadPool&) = delete;

    /// Queues a job, for which a worker is woken. Any thread. After shutdown() the job is kept, but never
    /// runs.
    void post(std::function<void()> task);

    /// Lets running jobs finish, leaves queued ones (a worker that was idle may still take one) and joins the
    /// workers. May be called again, and from several threads at once: each returns when the workers have
    /// ended. On one of the pool's own workers it only asks them to end.
    void shutdown();

    /// True on a worker thread of any pool.
    static bool onWorkerThread();

  private:
    /// Shared with the workers, so that one of them may release the pool itself.
    struct State {
        std::deque<std::function<void()>> tasks KIV_GUARDED_BY(mutex);
        std::mutex mutex;
        std::condition_variable cv;
        std::size_t asleep KIV_GUARDED_BY(mutex) = 0;  ///< Workers that wait,
        std::size_t called KIV_GUARDED_BY(mutex) = 0;  ///< and those of them that are on their way.
        std::atomic<bool> running{true};               ///< Cleared under the mutex.

        /// Whether a worker is to be woken now; it counts as called then.
        KIV_LOCAL bool calls_one() KIV_REQUIRES(mutex);
    };
    KIV_LOCAL static void workerLoop(State& state);
    KIV_LOCAL void ask_to_end();
    KIV_LOCAL void join_workers();

    std::vector<std::thread> threads_ KIV_GUARDED_BY(join_mutex_);
    std::mutex join_mutex_;  ///< One thread at a time joins the workers. No worker waits for it.
    const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace kiv::device::thread

#endif
