#include "card/Firmware.h"

#include <openssl/evp.h>

#include <algorithm>
#include <iterator>
#include <span>
#include <utility>

#include "common/hex.h"

namespace kivsim {

std::string md5_of(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_md5(), nullptr);
    return hex(std::as_bytes(std::span(digest, size)));
}

std::string Firmware::upload(std::string image) {
    settle();
    if (started_) return "a write is under way";
    image_ = std::move(image);
    return "";
}

std::string Firmware::start(const std::string& md5) {
    settle();
    if (started_) return "a write is under way";
    if (!image_) return "no image was uploaded";
    written_ = md5_of(*image_);
    if (!md5.empty() && md5 != written_) return "the image's MD5 is " + written_;
    image_.reset();
    card_.firmware.status.reset();
    started_ = Clock::now();
    return "";
}

void Firmware::cancel() {
    settle();
    card_.firmware.status.reset();
    started_.reset();
}

std::string Firmware::switch_to(uint64_t slot) {
    settle();
    if (started_) return "a write is under way";
    if (slot > 1) return "images are 0 and 1";
    card_.firmware.next_boot_slot = static_cast<uint8_t>(slot);
    return "";
}

std::string Firmware::status() {
    settle();
    return started_ ? kFlashPhases[phase()] : card_.firmware.status.value_or("idle");
}

std::string Firmware::slot(unsigned number) {
    settle();
    return card_.firmware.slots[number] +
           (number == card_.firmware.next_boot_slot ? " [Next Boot Image]" : "");
}

/// The phase of the write that is under way.
int Firmware::phase() const {
    const auto quarters = (Clock::now() - *started_) * 4 / write_time();
    return quarters < 1 ? 0 : quarters < 3 ? 1 : 2;
}

/// Completes a write whose time is over, and lets one fail in its phase; a status that was set from outside
/// ends it undone.
void Firmware::settle() {
    FirmwareSettings& settings = card_.firmware;
    if (settings.status) started_.reset();
    if (!started_) return;
    const auto* const failing =
        std::find(std::begin(kFlashPhases), std::end(kFlashPhases), settings.fails_while);
    if (phase() >= failing - std::begin(kFlashPhases)) {
        settings.fails_while.clear();
        settings.status = "failed";
        started_.reset();
    }
    if (!started_ || Clock::now() - *started_ < write_time()) return;
    started_.reset();
    card_.firmware.slots[1 - card_.firmware.next_boot_slot] = written_;
}

std::chrono::milliseconds Firmware::write_time() const {
    return std::chrono::milliseconds(std::max(1u, card_.flash_ms));
}

}  // namespace kivsim
