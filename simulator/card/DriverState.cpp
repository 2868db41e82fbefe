#include "card/DriverState.h"

#include <IOKit/IOReturn.h>
#include <kivos/shared_memory.h>

#include <algorithm>
#include <utility>

namespace kivsim {

namespace {

/// What the driver can have in one piece.
constexpr uint64_t kGreatestBlock = uint64_t{1} << 36;

}  // namespace

int32_t DriverState::allocate(uint32_t id, uint32_t elm_size, uint32_t depth, uint64_t owner) {
    if (elm_size == 0) return kIOReturnBadArgument;
    MemoryBlock fresh{id, elm_size, depth, owner, next_bus_address, {}};
    if (depth > kGreatestBlock / fresh.element_size()) return kIOReturnNoMemory;
    const uint64_t size = fresh.element_size() * depth;
    fresh.memory = SharedMemory(size);
    if (!fresh.memory) return kIOReturnNoMemory;
    next_bus_address += std::max(size, kivos::page_size());
    blocks.push_back(std::move(fresh));
    return kIOReturnSuccess;
}

MemoryBlock* DriverState::block(uint32_t id, uint64_t connection) {
    MemoryBlock* found = nullptr;
    for (MemoryBlock& block : blocks) {
        if (block.id != id) continue;
        if (block.owner == connection) return &block;
        if (found == nullptr) found = &block;
    }
    return found;
}

int32_t DriverState::release(uint32_t id, uint64_t connection) {
    const auto found = std::find_if(blocks.begin(), blocks.end(), [&](const MemoryBlock& block) {
        return block.id == id && block.owner == connection;
    });
    if (found == blocks.end()) return kIOReturnNotFound;
    blocks.erase(found);
    return kIOReturnSuccess;
}

void DriverState::end(uint64_t connection) {
    connections.erase(connection);
    blocks.remove_if([&](const MemoryBlock& block) { return block.owner == connection; });
}

}  // namespace kivsim
