#include "card/Firmware.h"

#include <openssl/evp.h>

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

Firmware::Firmware(std::chrono::milliseconds write_time, const std::string& first_image)
    : write_time_(write_time), slots_{md5_of(first_image), md5_of("factory image")} {}

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
    started_ = Clock::now();
    return "";
}

void Firmware::cancel() {
    settle();
    started_.reset();
}

std::string Firmware::switch_to(uint64_t slot) {
    settle();
    if (started_) return "a write is under way";
    if (slot > 1) return "images are 0 and 1";
    next_boot_ = static_cast<unsigned>(slot);
    return "";
}

std::string Firmware::status() {
    settle();
    if (!started_) return "idle";
    const auto quarters = (Clock::now() - *started_) * 4 / write_time_;
    return quarters < 1 ? "erasing" : quarters < 3 ? "writing" : "verifying";
}

std::string Firmware::slot(unsigned number) {
    settle();
    return slots_[number] + (number == next_boot_ ? " [Next Boot Image]" : "");
}

/// Completes a write whose time is over.
void Firmware::settle() {
    if (!started_ || Clock::now() - *started_ < write_time_) return;
    started_.reset();
    slots_[1 - next_boot_] = written_;
}

}  // namespace kivsim
