#include "card/BarMemory.h"

#include <kivos/shared_memory.h>

#include <span>

namespace kivsim {

namespace {

/// Appends the registers of a piece of memory that begins at a multiple of 8: words of 64 bits, or of 32
/// where the other half is zero.
void append_registers(uint32_t bar, uint64_t offset, std::span<const uint64_t> words,
                      std::vector<RegisterSettings>& found) {
    for (const uint64_t word : words) {
        if (word != 0) {
            const bool upper = (word & 0xFFFFFFFFu) == 0;
            found.push_back({bar, upper ? offset + sizeof(uint32_t) : offset, upper ? word >> 32 : word});
        }
        offset += sizeof word;
    }
}

}  // namespace

std::vector<RegisterSettings> BarMemory::registers() const {
    std::vector<RegisterSettings> found;
    std::vector<uint64_t> page(kivos::page_size() / sizeof(uint64_t));
    for (uint32_t bar = 0; bar < kBars; ++bar) {
        if (!memories_[bar] || !*memories_[bar]) continue;
        const SharedMemory& memory = *memories_[bar];
        for (uint64_t offset = memory.next_written(0); offset < kBarSize;
             offset = memory.next_written(offset + kivos::page_size())) {
            memory.read(offset, page.data(), kivos::page_size());
            append_registers(bar, offset, page, found);
        }
    }
    return found;
}

}  // namespace kivsim
