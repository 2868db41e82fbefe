/// What the driver of a card keeps for the programs that use it: memory blocks, connections, messages.
#ifndef KIVSIM_DRIVER_STATE_H
#define KIVSIM_DRIVER_STATE_H

#include "driver/wire.h"

#include <kivos/shared_memory.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <limits>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/SharedMemory.h"

namespace kivsim {

/// A memory block, allocated by a connection, or by the driver itself (owner 0).
struct MemoryBlock {
    uint32_t id = 0;
    uint32_t elm_size = 0;  ///< Bytes in an element, as asked for.
    uint32_t depth = 0;     ///< Number of elements.
    uint64_t owner = 0;
    uint64_t bus_address = 0;
    SharedMemory memory;

    /// Elements begin on pages.
    uint64_t element_size() const {
        const uint64_t page = kivos::page_size();
        return (elm_size + page - 1) / page * page;
    }
};

/// What the driver knows of one connection.
struct ConnectionState {
    uint8_t function = 0;
    std::optional<kiv::wire::MemorySelection> selected;
    uint32_t announced = 0;  ///< Processes that have come and not gone.
    bool takes_messages = false;
    std::set<uint32_t> interrupts;                             ///< Enabled interrupt numbers.
    std::map<std::array<uint32_t, 3>, uint32_t> process_data;  ///< Data by flag, number and value.
};

/// Messages to be sent to every connection that takes them.
struct MessageStream {
    using Clock = std::chrono::steady_clock;

    std::vector<uint64_t> arguments;
    uint64_t left = 1;                 ///< Messages still to be sent; the first argument counts up with them.
    std::chrono::nanoseconds pause{};  ///< Between two.
    Clock::time_point due = Clock::now();
};

/// Not synchronised: its card locks.
struct DriverState {
    /// Places a block; kIOReturn... when it cannot be had.
    int32_t allocate(uint32_t id, uint32_t elm_size, uint32_t depth, uint64_t owner);

    /// The first block with that id, the connection's own before others'; or null.
    MemoryBlock* block(uint32_t id, uint64_t connection);

    /// Releases the connection's first block with that id.
    int32_t release(uint32_t id, uint64_t connection);

    /// Forgets a connection and releases its blocks.
    void end(uint64_t connection);

    std::list<MemoryBlock> blocks;
    std::map<uint64_t, ConnectionState> connections;
    std::vector<MessageStream> streams;
    uint64_t interrupt_count = 0;  ///< Messages of the card's own timer so far.
    uint64_t next_bus_address = uint64_t{1} << 40;
};

}  // namespace kivsim

#endif
