// The scan, and the close that ends it.
#include <algorithm>
#include <chrono>
#include <list>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include <kiv/kiv_api.h>
#include "base/libraryThread.h"
#include "base/outcome.h"
#include "gate.h"

using kiv::guarded;

namespace kiv {

namespace {

using api::Process;
using device::Device;
using Clock = std::chrono::steady_clock;

/// Opens the card's accesses in order, then its management-server client. An exception is a failure.
kiv_result_t open_card(Device& card) noexcept {
    return guarded([&]() -> kiv_result_t {
        for (const auto& access : card.accesses()) {
            if (!access || access->open() != 0) return KIV_ERR_FAILED;
        }
        return card.rest() != nullptr && card.rest()->open() == 0 ? KIV_OK : KIV_ERR_REST;
    });
}

/// Asks the card for its record.
kiv_result_t get_record(uint8_t id, kiv_scan_card_device_t& record) {
    kiv_card_info_t info{};
    if (kiv_get_card_info(id, &info) != KIV_OK) {
        log_error(kApiSource, "[{}]kiv_get_card_info in kiv_scan", unsigned{id});
        return KIV_ERR_FAILED;
    }
    kiv_net_config_t net{};
    const kiv_result_t asked = kiv_get_media_net_config(id, &net);
    if (asked != KIV_OK) {
        log_error(kApiSource, "[{}]kiv_get_media_net_config in kiv_scan", unsigned{id});
        return asked;
    }
    record = {id, info.reg_10, net.port_0.ip_address_0, net.port_1.ip_address_1};
    return KIV_OK;
}

/// Shows one card of all that an enumerator lists.
class OneCard final : public device::IDeviceEnumerator {
  public:
    OneCard(std::unique_ptr<device::IDeviceEnumerator> all, uint8_t id) : all_(std::move(all)), id_(id) {}

    std::vector<device::DeviceInfo> enumerate() override {
        std::vector<device::DeviceInfo> cards = all_->enumerate();
        std::erase_if(cards, [&](const device::DeviceInfo& card) { return card.id != id_; });
        return cards;
    }
    void* getDeviceAccessPtr(unsigned id, unsigned function) override {
        return all_->getDeviceAccessPtr(id, function);
    }

  private:
    const std::unique_ptr<device::IDeviceEnumerator> all_;
    const uint8_t id_;
};

/// A manager that watches the cards of the machine, or one of them, in the place of the former one.
std::shared_ptr<device::DeviceManager> replace_manager(Process& process, const uint8_t* only = nullptr) {
    device::DeviceFactoryRegistry registry = platform::make_factories();
    // A callback under way may still ask the former manager: it ends before the manager does.
    if (const auto former = process.present_manager()) former->stop();
    process.exchange_manager(nullptr);
    auto enumerator = platform::make_enumerator(*process.clients);
    if (only != nullptr) enumerator = std::make_unique<OneCard>(std::move(enumerator), *only);
    auto manager = std::make_shared<device::DeviceManager>(registry, std::move(enumerator));
    process.exchange_manager(manager);
    manager->loadDevices();
    manager->start();
    return manager;
}

kiv_result_t _scan(Process& process, kiv_scan_t& scan) {
    process.g_ScanInfo.clear();
    const auto cards = replace_manager(process)->allDevices();
    for (const auto& card : cards) {
        if (open_card(*card) == KIV_OK) continue;
        // The whole scan fails, and the manager stays: docs/oddities.md.
        log_error(kApiSource, "[{}]Open Fail", unsigned{card->info().id});
        return KIV_ERR_FAILED;
    }
    for (const auto& card : cards) {
        kiv_scan_card_device_t record{};
        if (get_record(card->info().id, record) != KIV_OK) return KIV_ERR_FAILED;
        process.g_ScanInfo.push_back(record);
    }
    scan.count = static_cast<uint8_t>(cards.size());
    scan.devices = process.g_ScanInfo.data();
    return KIV_OK;
}

kiv_result_t scan_internal(Process& process, kiv_scan_internal_t& out) {
    kiv_scan_t scan{};
    const kiv_result_t result = _scan(process, scan);
    if (result != KIV_OK) return result;
    const auto manager = process.manager();
    if (!manager) return KIV_ERR_NOT_OPENED;
    for (uint8_t i = 0; i < scan.count; ++i) {
        kiv_scan_card_device_internal_t tunnel{};
        if (const auto card = manager->getDeviceShared(scan.devices[i].device_id)) {
            card->get_tun_config(tunnel.tunnel_address, tunnel.tunnel_value);
        }
        process.g_ScanInfo_in.push_back(tunnel);
    }
    out.count = scan.count;
    out.devices = process.g_ScanInfo.data();
    // Never emptied: the start of the list holds the values of the first internal scan (docs/oddities.md).
    out.internal = process.g_ScanInfo_in.data();
    return KIV_OK;
}

/// What is known of a card without a call to the driver.
kiv_scan_each_card_t unread(Device& card, kiv_result_t result) {
    kiv_scan_each_card_t scanned{};
    scanned.result = result;
    scanned.device.device_id = card.info().id;
    card.get_tun_config(scanned.tunnel.tunnel_address, scanned.tunnel.tunnel_value);
    return scanned;
}

kiv_scan_each_card_t scan_one(Device& card) {
    const uint8_t id = card.info().id;
    kiv_scan_each_card_t scanned = unread(card, open_card(card));
    if (scanned.result != KIV_OK) {
        log_error(kApiSource, "[{}]Open Fail", unsigned{id});
        return scanned;
    }
    kiv_scan_card_device_t record{};
    scanned.result = get_record(id, record);
    if (scanned.result == KIV_OK) scanned.device = record;
    return scanned;
}

/// The scan of one card, on a thread of its own, which is left where it is when its driver hangs.
class CardScan {
  public:
    explicit CardScan(std::shared_ptr<Device> card) : card_(std::move(card)) {
        thread_ = start_library_thread(
            [card = card_, outcome = outcome_] { outcome->of([&] { return scan_one(*card); }); });
    }
    ~CardScan() {
        if (thread_.joinable()) thread_.detach();
    }
    CardScan(const CardScan&) = delete;
    CardScan& operator=(const CardScan&) = delete;

    kiv_scan_each_card_t result(const std::optional<Clock::time_point>& end) {
        if (end && !outcome_->wait_until(*end)) return unread(*card_, KIV_ERR_BUSY);
        thread_.join();
        return outcome_->get();
    }

  private:
    std::shared_ptr<Device> card_;
    std::shared_ptr<Outcome<kiv_scan_each_card_t>> outcome_ =
        std::make_shared<Outcome<kiv_scan_each_card_t>>();
    std::thread thread_;
};

kiv_result_t scan_each(Process& process, const uint8_t* only, uint32_t limit_ms, kiv_scan_each_t& out) {
    process.g_ScanInfo.clear();
    process.scanned_each.clear();
    std::list<CardScan> scans;
    for (auto& card : replace_manager(process, only)->allDevices())
        scans.emplace_back(std::move(card));
    std::optional<Clock::time_point> end;
    if (limit_ms != 0) end = Clock::now() + std::chrono::milliseconds(limit_ms);
    for (CardScan& scan : scans)
        process.scanned_each.push_back(scan.result(end));
    std::sort(process.scanned_each.begin(), process.scanned_each.end(),
              [](const auto& a, const auto& b) { return a.device.device_id < b.device.device_id; });
    out = {static_cast<uint32_t>(process.scanned_each.size()), process.scanned_each.data()};
    return KIV_OK;
}

kiv_result_t close(Process& process) {
    const auto manager = process.present_manager();
    if (manager) {
        manager->stop();
        // The stop has released every card: what is left to close ends with the cards themselves
        // (docs/oddities.md).
        for (const auto& card : manager->allDevices()) {
            for (const auto& access : card->accesses())
                access->close();
            if (card->rest() != nullptr) card->rest()->close();
        }
    }
    process.g_ScanInfo.clear();
    process.scanned_each.clear();
    process.exchange_manager(nullptr);
    return KIV_OK;
}

/// Runs a scan or close in its turn. Where it would wait for its own thread it does nothing, and `refused` is
/// the result; `late` is the result when the process ends.
template <typename Body>
kiv_result_t in_turn(kiv_result_t refused, kiv_result_t late, Body body) {
    Process& process = Process::instance();
    if (Process::inherited()) return KIV_ERR_NOT_OPENED;
    if (device::thread::PeriodicThreadPool::onWorkerThread()) return refused;
    const api::Turn turn(process);
    if (turn) return body(process);
    return process.over() ? late : refused;
}

template <typename Record, typename Body>
kiv_result_t scan_in_turn(Record* record, Body body) noexcept {
    return guarded([&] {
        // Before all else, the log too: in a forked child locks may be held for ever. A scan claims the
        // process before its turn, or a child forked in between would not know that the turn is the parent's.
        if (!Process::instance().claim()) return KIV_ERR_NOT_OPENED;
        if (record == nullptr) return api::null_argument();
        return in_turn(KIV_ERR_FAILED, KIV_ERR_NOT_OPENED,
                       [&](Process& process) { return body(process, *record); });
    });
}

}  // namespace

}  // namespace kiv

kiv_result_t kiv_scan(kiv_scan_t* scan) {
    return kiv::scan_in_turn(scan, kiv::_scan);
}

kiv_result_t kiv_scan_internal(kiv_scan_internal_t* scan) {
    return kiv::scan_in_turn(scan, kiv::scan_internal);
}

kiv_result_t kiv_scan_each(const uint8_t* only, uint32_t limit_ms, kiv_scan_each_t* scan) {
    return kiv::scan_in_turn(scan, [=](kiv::api::Process& process, kiv_scan_each_t& out) {
        return kiv::scan_each(process, only, limit_ms, out);
    });
}

kiv_result_t kiv_close() {
    return guarded([] { return kiv::in_turn(KIV_OK, KIV_OK, kiv::close); });
}
