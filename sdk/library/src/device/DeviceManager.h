/// Owns the cards of the machine and drives their polls.
#ifndef KIV_DEVICE_MANAGER_H
#define KIV_DEVICE_MANAGER_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <kiv/Device.h>
#include <kiv/DeviceFactoryRegistry.h>
#include <kiv/IDeviceEnumerator.h>
#include <kiv/PeriodicThreadPool.h>
#include <kiv/Scheduler.h>
#include <kiv/kiv_export.h>
#include <kiv/threadSafety.h>

namespace kiv::device {

/// Threads: getDevice, getDeviceShared, exists and allDevices may be called from any thread at any time; what
/// getDevice gives may go when the owner releases it. Everything else belongs to one thread at a time.
class KIV_API DeviceManager {
  public:
    /// What is called on a Device.
    using Poll = bool (Device::*)();

    /// `registry` is used by loadDevices() only and must live as long as that is called.
    DeviceManager(DeviceFactoryRegistry& registry, std::unique_ptr<IDeviceEnumerator> enumerator);
    ~DeviceManager();  ///< As stop().

    DeviceManager(const DeviceManager&) = delete;
    DeviceManager& operator=(const DeviceManager&) = delete;

    /// Enumerates: new cards get a Device and their polls (every 1000 ms and 60000 ms), known ones stay as
    /// they are, those not found any more are removed.
    void loadDevices();

    /// Starts the scheduler.
    void start();

    /// Ends the polls and releases every Device. May be called again.
    void stop();

    /// Calls `poll` on the Device every `period`, for as long as it exists. The scheduler's task id, or 0
    /// when the id is unknown.
    uint64_t scheduleDevicePoll(const unsigned& id, std::chrono::milliseconds period, Poll poll);
    /// Ends such calls; an unknown task is ignored.
    void cancelTask(uint64_t task);

    /// Releases one Device. Its polls find it gone.
    void removeDevice(int id, thread::Scheduler& scheduler);

    /// Cancels every poll and releases every Device.
    void clear(thread::Scheduler& scheduler);

    /// The Device, or null. The shared form keeps it alive.
    Device* getDevice(unsigned id);
    std::shared_ptr<Device> getDeviceShared(unsigned id);
    /// Whether there is a Device with this id.
    bool exists(unsigned id);

    /// Every Device, in no particular order.
    std::vector<std::shared_ptr<Device>> allDevices();

  private:
    KIV_LOCAL std::shared_ptr<Device> makeDevice(const DeviceInfo& info);
    KIV_LOCAL void insert(uint32_t id, std::shared_ptr<Device> device);

    std::unordered_map<uint32_t, std::shared_ptr<Device>> devices_ KIV_GUARDED_BY(mutex_);
    std::mutex mutex_;
    DeviceFactoryRegistry& registry_;
    std::unique_ptr<IDeviceEnumerator> enumerator_;
    thread::Scheduler scheduler_;
    std::shared_ptr<thread::PeriodicThreadPool> pool_;
    std::unordered_map<uint64_t, uint32_t> tasks_;  ///< Task id to device id, one entry for each poll.
};

}  // namespace kiv::device

#endif
