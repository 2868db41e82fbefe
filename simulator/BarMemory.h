/// The register memory behind a card's BARs: what was never written reads 0.
#ifndef KIVSIM_BAR_MEMORY_H
#define KIVSIM_BAR_MEMORY_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>

namespace kivsim {

/// Bytes, so that 32-bit and 64-bit accesses agree. Not synchronised: its card locks.
class BarMemory {
  public:
    static constexpr uint32_t kBars = 6;
    static constexpr uint64_t kBarSize = 16u << 20;  ///< Bytes in each BAR.

    /// False when the access is not inside a BAR; `value` is then untouched.
    template <typename Value>
    bool read(uint32_t bar, uint64_t offset, Value& value) const {
        return inside(bar, offset, sizeof value) &&
               (copy_out(bar, offset, reinterpret_cast<std::byte*>(&value), sizeof value), true);
    }
    template <typename Value>
    bool write(uint32_t bar, uint64_t offset, const Value& value) {
        return inside(bar, offset, sizeof value) &&
               (copy_in(bar, offset, reinterpret_cast<const std::byte*>(&value), sizeof value), true);
    }

    static bool inside(uint32_t bar, uint64_t offset, std::size_t size) {
        return bar < kBars && offset <= kBarSize - size;
    }

  private:
    static constexpr std::size_t kPageSize = 4096;
    using Page = std::array<std::byte, kPageSize>;

    void copy_out(uint32_t bar, uint64_t offset, std::byte* to, std::size_t size) const;
    void copy_in(uint32_t bar, uint64_t offset, const std::byte* from, std::size_t size);

    std::array<std::map<uint64_t, Page>, kBars> pages_;  ///< Written pages by their number.
};

}  // namespace kivsim

#endif
