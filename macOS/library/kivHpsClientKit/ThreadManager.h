/// Base class of the long-lived worker threads: one thread that runs until it is told to stop.
#ifndef KIV_THREAD_MANAGER_H
#define KIV_THREAD_MANAGER_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <kiv/kiv_export.h>
#include <kiv/threadSafety.h>

/// The owner starts the thread when all that it uses is built, and stops it with join_thread() before any of
/// that goes: destroying a manager whose thread was not joined ends the process.
class KIV_API ThreadManager {
  public:
    ThreadManager() = default;
    virtual ~ThreadManager();

    ThreadManager(const ThreadManager&) = delete;
    ThreadManager& operator=(const ThreadManager&) = delete;

    /// What the thread does; subclasses replace it. This one waits until it is stopped.
    virtual void run_thread();

    /// Starts a thread on run_thread(); what that throws ends the thread only. A second start without a join
    /// ends the process.
    void start_thread() KIV_EXCLUDES(mutex);

    /// Cuts the thread's present wait short.
    void notify_all() KIV_EXCLUDES(mutex);

    /// Asks the thread to stop and waits for its end, if it was started. The request holds even when the
    /// thread has not come to run yet. Called on the thread itself it only asks.
    void join_thread() KIV_EXCLUDES(mutex);

  protected:
    /// For run_thread(): sets `running`, unless a stop was requested; then false.
    bool set_running() KIV_EXCLUDES(mutex);

    /// Asks the thread to stop, as join_thread() does, but neither wakes it nor waits for its end.
    void request_stop() KIV_EXCLUDES(mutex);

    /// For run_thread(), before a step that takes time: whether a stop was requested.
    bool stopping() KIV_EXCLUDES(mutex);

    /// Lets go of the thread without waiting: in a forked child, where it is not.
    void abandon_thread();

    /// Whether the caller is the manager's own thread.
    bool on_own_thread() const;

    /// For run_thread(): waits for `time` or until notify_all(). False when the thread is to end.
    bool wait_awhile(std::chrono::milliseconds time) KIV_EXCLUDES(mutex);

    /// Clears a manager's `running` when its run_thread() ends, however that ends.
    class ClearRunning {
      public:
        /// `manager` outlives it.
        explicit ClearRunning(ThreadManager& manager) : manager_(manager) {}
        ~ClearRunning();
        ClearRunning(const ClearRunning&) = delete;
        ClearRunning& operator=(const ClearRunning&) = delete;

      private:
        ThreadManager& manager_;
    };

    bool running KIV_GUARDED_BY(mutex) = false;
    std::mutex mutex;
    std::condition_variable condition;
    bool wake KIV_GUARDED_BY(mutex) = false;  ///< Set by notify_all(); the thread clears it after each wait.
    bool stop_requested KIV_GUARDED_BY(mutex) = false;  ///< Set by request_stop(), cleared by start_thread().

  private:
    std::thread thread_;
};

#endif
