#include "BarMemory.h"

namespace kivsim {

void BarMemory::copy_out(uint32_t bar, uint64_t offset, std::byte* to, std::size_t size) const {
    for (std::size_t i = 0; i < size; ++i, ++offset) {
        const auto page = pages_[bar].find(offset / kPageSize);
        to[i] = page == pages_[bar].end() ? std::byte{0} : page->second[offset % kPageSize];
    }
}

void BarMemory::copy_in(uint32_t bar, uint64_t offset, const std::byte* from, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i, ++offset) {
        pages_[bar].try_emplace(offset / kPageSize, Page{}).first->second[offset % kPageSize] = from[i];
    }
}

}  // namespace kivsim
