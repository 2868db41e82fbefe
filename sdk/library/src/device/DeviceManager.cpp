#include <kiv/DeviceManager.h>

#include <unordered_set>
#include <utility>

namespace kiv::device {

namespace {

constexpr unsigned kWorkers = 4;
constexpr std::chrono::milliseconds kShortPoll{1000};
constexpr std::chrono::milliseconds kLongPoll{60000};

}  // namespace

DeviceManager::DeviceManager(DeviceFactoryRegistry& registry, std::unique_ptr<IDeviceEnumerator> enumerator)
    : registry_(registry),
      enumerator_(std::move(enumerator)),
      pool_(std::make_shared<thread::PeriodicThreadPool>(kWorkers)) {}

DeviceManager::~DeviceManager() {
    stop();
}

void DeviceManager::loadDevices() {
    std::unordered_set<uint32_t> seen;
    for (const DeviceInfo& info : enumerator_->enumerate()) {
        const uint32_t id = info.id;
        seen.insert(id);
        if (exists(id)) continue;
        insert(id, makeDevice(info));
        scheduleDevicePoll(id, kShortPoll, &Device::poll_1sec);
        scheduleDevicePoll(id, kLongPoll, &Device::poll_60sec);
    }
    std::vector<uint32_t> gone;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [id, device] : devices_) {
            if (!seen.contains(id)) gone.push_back(id);
        }
    }
    for (const uint32_t id : gone)
        removeDevice(static_cast<int>(id), scheduler_);
}

void DeviceManager::insert(uint32_t id, std::shared_ptr<Device> device) {
    const std::lock_guard lock(mutex_);
    devices_[id] = std::move(device);
}

/// A platform without a factory gives a Device without accesses and without a management-server client.
std::shared_ptr<Device> DeviceManager::makeDevice(const DeviceInfo& info) {
    const auto factory = registry_.find(info.platform);
    if (factory == registry_.end() || !factory->second)
        return std::make_shared<Device>(info, Device::AccessList{}, nullptr);
    Device::AccessList accesses;
    for (const PciFunction& address : info.functions) {
        void* const handle = enumerator_->getDeviceAccessPtr(info.id, address.function);
        accesses.push_back(factory->second->createDeviceAccess(handle, address.function));
    }
    return std::make_shared<Device>(info, std::move(accesses),
                                    factory->second->createRestApiClient(info.address));
}

void DeviceManager::start() {
    scheduler_.start();
}

void DeviceManager::stop() {
    scheduler_.stop();
    pool_->shutdown();
    clear(scheduler_);
}

uint64_t DeviceManager::scheduleDevicePoll(const unsigned& id, std::chrono::milliseconds period, Poll poll) {
    const std::weak_ptr<Device> reference = getDeviceShared(id);
    if (reference.expired()) return 0;
    const auto task = [reference, poll] {
        if (const std::shared_ptr<Device> device = reference.lock()) (device.get()->*poll)();
    };
    const uint64_t number = scheduler_.schedulePeriodic(task, period, pool_);
    tasks_[number] = id;
    return number;
}

void DeviceManager::cancelTask(uint64_t task) {
    scheduler_.cancel(task);
    tasks_.erase(task);
}

void DeviceManager::removeDevice(int id, thread::Scheduler& scheduler) {
    // The device id serves as the key here (docs/oddities.md): the polls of a removed card are not looked up
    // by their own numbers, they find the Device gone at their next run.
    if (const auto task = tasks_.find(static_cast<uint64_t>(id)); task != tasks_.end()) {
        scheduler.cancel(task->second);
        tasks_.erase(task);
    }
    decltype(devices_)::node_type removed;  // Destroyed after unlocking.
    const std::lock_guard lock(mutex_);
    removed = devices_.extract(static_cast<uint32_t>(id));
}

void DeviceManager::clear(thread::Scheduler& scheduler) {
    for (const auto& [task, id] : tasks_)
        scheduler.cancel(task);
    tasks_.clear();
    decltype(devices_) released;  // Destroyed after unlocking.
    const std::lock_guard lock(mutex_);
    released.swap(devices_);
}

Device* DeviceManager::getDevice(unsigned id) {
    return getDeviceShared(id).get();
}

std::shared_ptr<Device> DeviceManager::getDeviceShared(unsigned id) {
    const std::lock_guard lock(mutex_);
    const auto found = devices_.find(id);
    return found == devices_.end() ? nullptr : found->second;
}

bool DeviceManager::exists(unsigned id) {
    return getDeviceShared(id) != nullptr;
}

std::vector<std::shared_ptr<Device>> DeviceManager::allDevices() {
    const std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<Device>> all;
    all.reserve(devices_.size());
    for (const auto& [id, device] : devices_)
        all.push_back(device);
    return all;
}

}  // namespace kiv::device
