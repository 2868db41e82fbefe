// The scan, and the close that ends it.
#include <memory>

#include "DeviceEnumeratorMacOS.h"
#include "DeviceFactoryMacOS.h"
#include "gate.h"
#include "kiv_api.h"

using kiv::guarded;

namespace kiv {

namespace {

using device::Device;

/// Opens the card's accesses in order, then its management-server client. An exception is a failure.
bool open_card(Device& card) {
    return guarded([&]() -> kiv_result_t {
               for (const auto& access : card.accesses()) {
                   if (!access || access->open() != 0) return KIV_ERR_FAILED;
               }
               return card.rest() != nullptr && card.rest()->open() == 0 ? KIV_OK : KIV_ERR_FAILED;
           }) == KIV_OK;
}

void log_card(uint8_t id, int line, const char* format) {
    kivLog_dispatch(KIV_LOG_LEVEL_ERROR, kApiSource, line, format, unsigned{id});
}

/// Asks the card for its record and appends it to g_ScanInfo.
kiv_result_t append_card(uint8_t id) {
    kiv_card_info_t info{};
    if (kiv_get_card_info(id, &info) != KIV_OK) {
        log_card(id, __LINE__, "[{}]kiv_get_card_info in kiv_scan");
        return KIV_ERR_FAILED;
    }
    kiv_net_config_t net{};
    if (kiv_get_media_net_config(id, &net) != KIV_OK) {
        log_card(id, __LINE__, "[{}]kiv_get_media_net_config in kiv_scan");
        return KIV_ERR_FAILED;
    }
    g_ScanInfo.push_back({id, info.reg_10, net.port_0.ip_address_0, net.port_1.ip_address_1});
    return KIV_OK;
}

kiv_result_t _scan(kiv_scan_t* scan) {
    if (scan == nullptr) return api::null_argument();
    if (device::thread::PeriodicThreadPool::onWorkerThread()) return KIV_ERR_FAILED;

    device::DeviceFactoryRegistry registry;
    registry["macOS"] = std::make_unique<device::DeviceFactoryMacOS>();
    auto enumerator = std::make_unique<device::DeviceEnumeratorMacOS>();

    g_ScanInfo.clear();
    // A callback under way may still ask the manager: it ends before the manager does.
    if (g_DeviceManager) g_DeviceManager->stop();
    g_DeviceManager.reset();
    g_DeviceManager.emplace(registry, std::move(enumerator));
    g_DeviceManager->loadDevices();
    g_DeviceManager->start();

    const auto cards = g_DeviceManager->allDevices();
    for (const auto& card : cards) {
        if (open_card(*card)) continue;
        log_card(card->info().id, __LINE__, "[{}]Open Fail");
        return KIV_ERR_FAILED;
    }
    for (const auto& card : cards) {
        const kiv_result_t result = append_card(card->info().id);
        if (result != KIV_OK) return result;
    }
    scan->count = static_cast<uint8_t>(cards.size());
    scan->devices = g_ScanInfo.data();
    return KIV_OK;
}

kiv_result_t scan_internal(kiv_scan_internal_t* out) {
    if (out == nullptr) return api::null_argument();
    kiv_scan_t scan{};
    const kiv_result_t result = _scan(&scan);
    if (result != KIV_OK) return result;
    for (uint8_t i = 0; i < scan.count; ++i) {
        kiv_scan_card_device_internal_t tunnel{};
        if (const auto card = g_DeviceManager->getDeviceShared(scan.devices[i].device_id)) {
            card->get_tun_config(tunnel.tunnel_address, tunnel.tunnel_value);
        }
        g_ScanInfo_in.push_back(tunnel);
    }
    out->count = scan.count;
    out->devices = g_ScanInfo.data();
    // Never emptied: the start of the list holds the values of the first internal scan of the process.
    out->internal = g_ScanInfo_in.data();
    return KIV_OK;
}

kiv_result_t close() {
    if (device::thread::PeriodicThreadPool::onWorkerThread()) return KIV_OK;
    if (g_DeviceManager) {
        g_DeviceManager->stop();
        // The stop has released every card: what is left to close ends with the cards themselves.
        for (const auto& card : g_DeviceManager->allDevices()) {
            for (const auto& access : card->accesses())
                access->close();
            if (card->rest() != nullptr) card->rest()->close();
        }
    }
    g_ScanInfo.clear();
    g_DeviceManager.reset();
    return KIV_OK;
}

}  // namespace

}  // namespace kiv

kiv_result_t kiv_scan(kiv_scan_t* scan) {
    return guarded([&] { return kiv::_scan(scan); });
}

kiv_result_t kiv_scan_internal(kiv_scan_internal_t* scan) {
    return guarded([&] { return kiv::scan_internal(scan); });
}

kiv_result_t kiv_close() {
    return guarded([] { return kiv::close(); });
}
