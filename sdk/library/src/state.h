/// What the C interface keeps for the process.
#ifndef KIV_STATE_H
#define KIV_STATE_H

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <kiv/CardConfig.h>
#include <kiv/DeviceManager.h>
#include <kiv/kiv_types.h>
#include <kiv/threadSafety.h>
#include "platform.h"

namespace kiv::api {

/// One object, never destroyed: other threads may be in calls while the process exits. Its members stand in
/// the order of their lives. At exit a handler ends the manager, and with it all callbacks, then the driver
/// clients.
///
/// It belongs to the process that first looked for cards. In a forked child of that process nothing here may
/// be touched: locks may be held there for ever by threads that are not there, and the connections are the
/// parent's.
class Process {
  public:
    static Process& instance();

    /// True in a forked child of the process that looked for cards. No lock.
    static bool inherited() noexcept { return inherited_.load(std::memory_order_relaxed); }

    /// True once the exit handler has begun, and in a forked child.
    bool over() const noexcept { return ended_ || inherited(); }

    /// Makes this process the one that looks for cards; false when it must not.
    bool claim() noexcept;

    /// A share of the present manager, which keeps it for as long as a call needs it. Empty without one, in a
    /// forked child, and once the exit handler has begun, but for callbacks that it waits for.
    std::shared_ptr<device::DeviceManager> manager();

    /// The same for those who end or replace it.
    std::shared_ptr<device::DeviceManager> present_manager();

    /// Puts another manager, or none, in its place and gives the former one.
    std::shared_ptr<device::DeviceManager> exchange_manager(std::shared_ptr<device::DeviceManager> fresh);

    std::mutex config_mutex;
    /// The host's card configuration, which calls for several cards share.
    config::CardConfig g_CardConfig KIV_GUARDED_BY(config_mutex);
    std::vector<kiv_scan_card_device_t> g_ScanInfo;              ///< Of the last scan; under the turn.
    std::vector<kiv_scan_card_device_internal_t> g_ScanInfo_in;  ///< Of all internal scans; under the turn.
    std::vector<kiv_scan_each_card_t> scanned_each;              ///< Of the last such scan; under the turn.
    const std::unique_ptr<platform::Clients> clients = platform::make_clients();

  private:
    friend class Turn;

    Process();
    void end() noexcept;
    bool wait_for_turn();

    std::mutex mutex_;
    /// Empty until the first scan, and after a close.
    std::shared_ptr<device::DeviceManager> g_DeviceManager KIV_GUARDED_BY(mutex_);
    std::thread::id turn_ KIV_GUARDED_BY(mutex_);  ///< Thread that scans or closes.
    std::condition_variable turn_is_free_;
    std::atomic<bool> ended_{false};  ///< The exit handler has begun. Set before it wakes who waits.

    /// Of the class, as nothing has to be built before a fork may look at them. To ask for the process's
    /// number instead is a system call in every call.
    static std::atomic<bool> claimed_;    ///< The process has looked for cards.
    static std::atomic<bool> inherited_;  ///< Set in the child, by the fork itself.
};

/// The right to change what a scan makes: scans and closes take turns.
class Turn {
  public:
    /// Waits for the turn of another thread. Not granted on a thread that has the turn, and when the process
    /// is over.
    explicit Turn(Process& process);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    explicit operator bool() const { return granted_; }

  private:
    Process& process_;
    bool granted_ = false;
};

}  // namespace kiv::api

#endif
