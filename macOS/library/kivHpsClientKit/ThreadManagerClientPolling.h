/// Reads the card's PTP documents now and then, and keeps a digest of them.
#ifndef KIV_THREAD_MANAGER_CLIENT_POLLING_H
#define KIV_THREAD_MANAGER_CLIENT_POLLING_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <string>

#include <kiv/ThreadManager.h>
#include <kiv/hpsRecords.h>
#include <kiv/threadSafety.h>

class ThreadManagerClientPolling final : public ThreadManager {
  public:
    /// Fills a text with a JSON document; 0 on success.
    using Callback = std::function<int32_t(std::string& document)>;

    /// Both callbacks run on the thread. `period` in seconds.
    ThreadManagerClientPolling(uint16_t period, Callback master, Callback management);

    /// Polls every `period` seconds, until it is stopped or a poll fails; it is not taken up again then.
    void run_thread() override;

    /// The digest of the last poll: 0. -1, with `out` untouched, when the thread does not run (any more).
    int32_t get_hps_ptp_sm(hps_ptp_sm& out);

    /// True as soon as the first poll is complete, false when that takes longer than `limit`.
    bool wait_first_request(std::chrono::milliseconds limit);

  private:
    bool poll(hps_ptp_sm& fresh);
    void keep(const hps_ptp_sm& fresh);

    const uint16_t period_;
    std::atomic<bool> first_request_{false};  ///< Set once, after the first complete poll.
    std::condition_variable first_request_condition_;
    hps_ptp_sm digest_ KIV_GUARDED_BY(mutex);
    const Callback master_;
    const Callback management_;
};

#endif
