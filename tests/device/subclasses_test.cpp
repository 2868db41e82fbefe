// Applications derive from the exported classes, and ask objects for their type.
#include <kiv/DeviceManager.h>
#include <kiv/RestApiClient.h>
#include <kiv/ThreadManager.h>

#include "support/Test.h"

namespace {

class OneCard final : public kiv::device::IDeviceEnumerator {
  public:
    std::vector<kiv::device::DeviceInfo> enumerate() override {
        return {{"own", "", 7, {{}}, "127.0.0.1:80"}};
    }
    void* getDeviceAccessPtr(unsigned, unsigned) override { return nullptr; }
};

class Factory final : public kiv::device::IDeviceFactory {
  public:
    std::unique_ptr<kiv::access::IDeviceAccess> createDeviceAccess(void*, unsigned) override {
        return nullptr;
    }
    std::unique_ptr<kiv::rest::IRestApiClient> createRestApiClient(const std::string& address) override {
        return std::make_unique<kiv::rest::RestApiClient>(address);
    }
};

class Worker final : public ThreadManager {
  public:
    ~Worker() override { join_thread(); }
    void run_thread() override {
        if (!set_running()) return;
        const ClearRunning at_end(*this);
        while (wait_awhile(std::chrono::seconds(20)))
            ++woken;
    }
    std::atomic<int> woken{0};
};

}  // namespace

TEST(ExportedClasses, AreDerivedFromByApplications) {
    kiv::device::DeviceFactoryRegistry registry;
    registry["own"] = std::make_unique<Factory>();
    kiv::device::DeviceManager manager(registry, std::make_unique<OneCard>());
    manager.loadDevices();
    ASSERT_TRUE(manager.exists(7));
    EXPECT_NE(dynamic_cast<kiv::rest::RestApiClient*>(manager.getDevice(7)->rest()), nullptr);

    Worker worker;
    ThreadManager& managed = worker;
    managed.start_thread();
    EXPECT_TRUE(wait_until([&] {
        managed.notify_all();
        return worker.woken > 0;
    }));
    EXPECT_EQ(dynamic_cast<Worker*>(&managed), &worker);
}
