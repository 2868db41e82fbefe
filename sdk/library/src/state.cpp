#include "state.h"

#include "DeviceEnumeratorMacOS.h"
#include "LogManager.h"

namespace {

/// Built first, so ended last.
struct Foundation {
    Foundation() { kiv::log::LogManager::getInstance(); }
} g_foundation;

struct DriverClients {
    DriverClients() { kiv::device::DeviceEnumeratorMacOS::prepare(); }
};

}  // namespace

// A process that exits without kiv_close ends these from the last to the first: the manager, which joins its
// threads, the driver clients, the configuration, the log.
std::mutex g_CardConfigMutex;
kiv::config::CardConfig g_CardConfig;
std::vector<kiv_scan_card_device_t> g_ScanInfo;
std::vector<kiv_scan_card_device_internal_t> g_ScanInfo_in;
namespace {
DriverClients g_driver_clients;
}
std::optional<kiv::device::DeviceManager> g_DeviceManager;
namespace {
/// Ends the callbacks, which may ask the manager, before the manager.
struct LastCallbacks {
    ~LastCallbacks() {
        if (g_DeviceManager) g_DeviceManager->stop();
    }
} g_last_callbacks;
}  // namespace
