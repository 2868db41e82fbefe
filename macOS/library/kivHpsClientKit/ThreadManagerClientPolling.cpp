#include "kivHpsClientKit/ThreadManagerClientPolling.h"

#include <utility>

#include <kiv/kiv_json.h>
#include "base/jsonText.h"
#include "log/kivLogDispatch.h"

using kiv::kHpsSource;
using kiv::log_error;

namespace {

using Json = nlohmann::ordered_json;

/// Runs `read`; what it throws is logged with the document's name.
template <typename Read>
bool readable(const char* format, Read read) {
    try {
        read();
        return true;
    } catch (const std::exception& error) {
        log_error(kHpsSource, format, error.what());
        return false;
    }
}

constexpr const char* kMasterError = "Fail json::parse ptp_master={}";
constexpr const char* kManagementError = "Fail json::parse ptp_management={}";

}  // namespace

ThreadManagerClientPolling::ThreadManagerClientPolling(uint16_t period, Callback master, Callback management)
    : period_(period), master_(std::move(master)), management_(std::move(management)) {}

void ThreadManagerClientPolling::run_thread() {
    if (!master_ || !management_) {
        log_error(kHpsSource, "function null");
        return;
    }
    if (!set_running()) return;
    const ClearRunning at_the_end(*this);
    for (;;) {
        hps_ptp_sm fresh;
        if (!poll(fresh)) return;  // For good: docs/oddities.md.
        keep(fresh);
        if (!wait_awhile(std::chrono::seconds(period_))) return;
    }
}

/// Both documents into `fresh`. False when one cannot be had or read, or a stop came between.
bool ThreadManagerClientPolling::poll(hps_ptp_sm& fresh) {
    std::string master_text;
    std::string management_text;
    if (stopping()) return false;
    if (master_(master_text) != 0) {
        log_error(kHpsSource, "Fail get_ptp_master");
        return false;
    }
    if (stopping()) return false;
    if (management_(management_text) != 0) {
        log_error(kHpsSource, "Fail get_ptp_management");
        return false;
    }
    Json master;
    Json management;
    return readable(kMasterError, [&] { master = kiv::json::parse(master_text); }) &&
           readable(kManagementError, [&] { management = kiv::json::parse(management_text); }) &&
           readable(kMasterError, [&] { read_digest_of_master(master, fresh); }) &&
           readable(kManagementError, [&] { read_digest_of_management(management, fresh); });
}

void ThreadManagerClientPolling::keep(const hps_ptp_sm& fresh) {
    const std::lock_guard lock(mutex);
    digest_ = fresh;
    if (first_request_) return;
    first_request_ = true;
    first_request_condition_.notify_one();
}

int32_t ThreadManagerClientPolling::get_hps_ptp_sm(hps_ptp_sm& out) {
    const std::lock_guard lock(mutex);
    if (!running) return -1;
    out = digest_;
    return 0;
}

/// The flag is not under the waiter's mutex, so a signal may be missed: the wait looks again every few
/// milliseconds.
bool ThreadManagerClientPolling::wait_first_request(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    std::mutex waiting;
    std::unique_lock lock(waiting);
    while (!first_request_ && std::chrono::steady_clock::now() < end) {
        first_request_condition_.wait_for(lock, std::chrono::milliseconds(5));
    }
    return first_request_;
}
