/// The firmware update of a card: upload, write, and the choice of the image to boot.
#ifndef KIVSIM_FIRMWARE_H
#define KIVSIM_FIRMWARE_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "card/CardSettings.h"

namespace kivsim {

/// Works on the settings of its card. Not synchronised: its card locks. Commands return an empty text, or why
/// they are refused.
class Firmware {
  public:
    explicit Firmware(CardSettings& card) : card_(card) {}

    std::string upload(std::string image);

    /// Writes the uploaded image into the slot that does not boot next. `md5` must be the image's, or empty.
    std::string start(const std::string& md5);
    void cancel();
    std::string switch_to(uint64_t slot);

    /// The word of the settings; without one "idle", or the phase of the write: "erasing", "writing",
    /// "verifying".
    std::string status();

    /// A slot's identifier, marked when it boots next.
    std::string slot(unsigned number);

  private:
    using Clock = std::chrono::steady_clock;
    void settle();
    int phase() const;
    std::chrono::milliseconds write_time() const;

    CardSettings& card_;
    std::optional<std::string> image_;          ///< Uploaded.
    std::optional<Clock::time_point> started_;  ///< While a write is under way.
    std::string written_;                       ///< Identifier of the image that is being written.
};

/// The phases of a write, in their order.
inline constexpr const char* kFlashPhases[] = {"erasing", "writing", "verifying"};

/// 32 lower-case hexadecimal digits.
std::string md5_of(const std::string& bytes);

}  // namespace kivsim

#endif
