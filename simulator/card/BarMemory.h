/// The memory behind a card's BARs: what was never written reads 0.
#ifndef KIVSIM_BAR_MEMORY_H
#define KIVSIM_BAR_MEMORY_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "card/CardSettings.h"
#include "common/SharedMemory.h"

namespace kivsim {

/// Bytes, so that 32-bit and 64-bit accesses agree, and mappings with both. Not synchronised: its card locks.
class BarMemory {
  public:
    static constexpr uint32_t kBars = 6;
    static constexpr uint64_t kBarSize = 16u << 20;  ///< Bytes in each BAR.

    /// False when the access is not inside a BAR; `value` is then untouched.
    template <typename Value>
    bool read(uint32_t bar, uint64_t offset, Value& value) {
        if (!inside(bar, offset, sizeof value) || !memory(bar)) return false;
        memory(bar).read(offset, &value, sizeof value);
        return true;
    }
    template <typename Value>
    bool write(uint32_t bar, uint64_t offset, const Value& value) {
        if (!inside(bar, offset, sizeof value) || !memory(bar)) return false;
        memory(bar).write(offset, &value, sizeof value);
        return true;
    }

    static bool inside(uint32_t bar, uint64_t offset, std::size_t size) {
        return bar < kBars && offset <= kBarSize - size;
    }

    /// What is not zero, in the order of BARs and offsets.
    std::vector<RegisterSettings> registers() const;

    /// `bar` below kBars. Made at its first use.
    SharedMemory& memory(uint32_t bar) {
        if (!memories_[bar] || !*memories_[bar]) memories_[bar] = std::make_unique<SharedMemory>(kBarSize);
        return *memories_[bar];
    }

  private:
    std::array<std::unique_ptr<SharedMemory>, kBars> memories_;
};

}  // namespace kivsim

#endif
