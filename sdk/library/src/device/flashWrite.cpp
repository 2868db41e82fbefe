#include "device/flashWrite.h"

#include <chrono>
#include <thread>

#include "log/kivLogDispatch.h"

namespace kiv::device {

namespace {

constexpr kiv_flash_status_t kIdle = 0;
constexpr kiv_flash_status_t kBusy = 1;
constexpr int kStartAttempts = 10;
constexpr std::chrono::milliseconds kStartPause{100};

/// Waits until the card is seen busy, or its state cannot be read, or about a second has passed.
void wait_for_start(Device& device) noexcept try {
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        kiv_flash_status_t status = kIdle;
        if (device.get_flash_write_status(status) != KIV_OK || status == kBusy) return;
        std::this_thread::sleep_for(kStartPause);
    }
} catch (...) {
    // The upload has succeeded: what the status says now does not change that.
}

}  // namespace

kiv_result_t write_flash_image(Device& device, const char* path, const UploadProgress& progress) {
    kiv_flash_status_t status = kIdle;
    const kiv_result_t asked = device.get_flash_write_status(status);
    if (asked != KIV_OK) return asked;
    if (status != kIdle) {
        log_error(kApiSource, "Can't write now. Status={}", status);
        return KIV_ERR_BUSY;
    }
    // After the state of the card: docs/oddities.md.
    if (path == nullptr) {
        log_error(kApiSource, "Argument is NULL");
        return KIV_ERR_NULL_ARGUMENT;
    }
    const kiv_result_t uploaded = device.upload_image(path, progress);
    if (uploaded != KIV_OK) return uploaded;
    wait_for_start(device);
    return KIV_OK;
}

}  // namespace kiv::device
