// DMA memory and BARs in this process: mapping, the registry of buffers, the ANC memories.
#include <IOKit/IOKitLib.h>
#include <mach/mach.h>
#include <mach/mach_vm.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

#include <kiv/kivDriverClient.h>
#include "driver/driverLog.h"
#include "driver/wire.h"

namespace wire = kiv::wire;

namespace {

constexpr uint32_t kBlock = 0;
constexpr uint32_t kBar = 1;

auto find_buffer(auto& buffers, uint32_t id) {
    return std::find_if(buffers.begin(), buffers.end(),
                        [&](const dextBuffer& buffer) { return buffer.id == id; });
}

}  // namespace

/// After a failure the driver may have selected this or that.
int32_t kivDriverClient::select(uint32_t connect, const Memory& memory) {
    selected_.reset();
    const wire::MemorySelection selection{1, {}, memory.kind, memory.id, memory.index, memory.bar};
    const kern_return_t status = IOConnectCallStructMethod(connect, wire::kSelectMemory, &selection,
                                                           sizeof selection, nullptr, nullptr);
    if (status == kIOReturnSuccess) selected_ = memory;
    return status;
}

/// `is_new`: whether the memory was not mapped before.
int32_t kivDriverClient::map_memory(const Memory& memory, uint64_t* address, uint64_t* size,
                                    bool* is_new) try {
    if (inherited()) return -1;
    const std::lock_guard lock(selection_mutex_);
    // Only now: close() may have come while this waited.
    const uint32_t connect = connected();
    if (connect == 0) return -1;
    // Out of memory nothing may be mapped that is not remembered.
    if (mappings_.size() == mappings_.capacity()) mappings_.reserve(2 * mappings_.size() + 8);
    const int32_t selected = select(connect, memory);
    if (selected != 0) return selected;
    mach_vm_address_t mapped_at = 0;
    mach_vm_size_t mapped_size = 0;
    const kern_return_t mapped = IOConnectMapMemory64(connect, kIODefaultMemoryType, mach_task_self(),
                                                      &mapped_at, &mapped_size, kIOMapAnywhere);
    if (mapped != kIOReturnSuccess) return mapped;
    // A memory that is at another address now is another one of the same name: the one before cannot be
    // selected.
    const Mapping fresh{memory, mapped_at};
    if (is_new != nullptr) *is_new = std::find(mappings_.begin(), mappings_.end(), fresh) == mappings_.end();
    std::erase_if(mappings_,
                  [&](const Mapping& each) { return each.memory == memory || each.address == mapped_at; });
    mappings_.push_back(fresh);
    if (address != nullptr) *address = mapped_at;
    if (size != nullptr) *size = mapped_size;
    return 0;
} catch (const std::bad_alloc&) {
    return kIOReturnNoMemory;
}

int32_t kivDriverClient::map_iomemory(uint32_t id, uint32_t index, uint64_t* address, uint64_t* size) {
    return map_memory({kBlock, id, index, 0}, address, size);
}

int32_t kivDriverClient::map_pci(uint32_t bar, uint64_t* address, uint64_t* size) {
    return map_memory({kBar, 0, 0, bar}, address, size);
}

/// The platform undoes the mapping of the memory that is selected, at whatever address.
int32_t kivDriverClient::unmap(uint64_t address) {
    if (inherited()) return -1;
    const std::lock_guard lock(selection_mutex_);
    const uint32_t connect = connected();
    if (connect == 0) return -1;
    const auto found = std::find_if(mappings_.begin(), mappings_.end(),
                                    [&](const Mapping& each) { return each.address == address; });
    if (found == mappings_.end()) return kIOReturnBadArgument;
    const Memory memory = found->memory;
    mappings_.erase(found);
    if (selected_ != memory) {
        const int32_t selected = select(connect, memory);
        if (selected != 0) return selected;
    }
    return IOConnectUnmapMemory64(connect, kIODefaultMemoryType, mach_task_self(), address);
}

/// After a call that changes which memory a selection stands for.
void kivDriverClient::forget_selection() {
    if (inherited()) return;
    const std::lock_guard lock(selection_mutex_);
    selected_.reset();
}

// ---- Buffers ----------------------------------------------------------------------------------------------

int32_t kivDriverClient::allocate_buffer(uint32_t id, uint32_t elm_size, uint32_t depth) {
    const std::lock_guard lock(buffer_mutex_);
    const int32_t allocated = iomalloc(id, elm_size, depth);
    if (allocated != 0) {
        // Without a line end: docs/oddities.md.
        driver_log(__LINE__, "fail iomalloc=%08X elm_size=%u buffer_depth=%u",
                   static_cast<unsigned>(allocated), elm_size, depth);
        return -1;
    }
    dextBuffer buffer{id, depth, {}};
    std::vector<uint64_t> mapped;  // By this call: another buffer of this id may use the same memory.
    int32_t status = 0;
    try {
        for (uint32_t index = 0; index < depth && status == 0; ++index) {
            buffer_info& info = buffer.infos.emplace_back();
            uint64_t& fresh = mapped.emplace_back(0);
            bool is_new = false;
            status = get_iobus_address(id, index, &info.bus_address);
            if (status == 0)
                status = map_memory({kBlock, id, index, 0}, &info.mapped_address, &info.mapped_size, &is_new);
            if (is_new) fresh = info.mapped_address;
        }
        if (status == 0) {
            buffers_.push_back(std::move(buffer));
            return 0;
        }
    } catch (const std::bad_alloc&) {
        status = -1;
    }
    for (const uint64_t address : mapped)
        if (address != 0) unmap(address);
    iofree(id);
    return status;
}

int32_t kivDriverClient::get_buffer(uint32_t id, dextBuffer& out) const {
    const std::lock_guard lock(buffer_mutex_);
    const auto found = find_buffer(buffers_, id);
    if (found == buffers_.end()) return -1;
    out = *found;
    return 0;
}

int32_t kivDriverClient::free_buffer(uint32_t id) {
    const std::lock_guard lock(buffer_mutex_);
    const auto found = find_buffer(buffers_, id);
    if (found == buffers_.end()) return -1;
    iofree(id);  // The elements stay mapped, unlike below: docs/oddities.md.
    buffers_.erase(found);
    return 0;
}

int32_t kivDriverClient::free_buffer() {
    const std::lock_guard lock(buffer_mutex_);
    for (const dextBuffer& buffer : buffers_)
        release(buffer);
    buffers_.clear();
    return 0;
}

void kivDriverClient::release(const dextBuffer& buffer) {
    for (const buffer_info& info : buffer.infos)
        unmap(info.mapped_address);
    iofree(buffer.id);
}

bool kivDriverClient::isAddressValid(uint64_t address) {
    mach_vm_size_t size = 0;
    vm_region_basic_info_data_64_t info{};
    mach_msg_type_number_t count = VM_REGION_BASIC_INFO_COUNT_64;
    mach_port_t object = MACH_PORT_NULL;
    return mach_vm_region(mach_task_self(), &address, &size, VM_REGION_BASIC_INFO_64,
                          reinterpret_cast<vm_region_info_t>(&info), &count, &object) == KERN_SUCCESS;
}

// ---- ANC memories -----------------------------------------------------------------------------------------

int32_t kivDriverClient::init_anc_buffer() {
    struct Step {
        unsigned memory;
        bool bus_address;  ///< Else the mapping.
    };
    constexpr Step kSteps[] = {{0, true}, {0, false}, {2, false}, {1, true}, {1, false}, {3, false}};
    const std::lock_guard lock(buffer_mutex_);
    for (const auto& [memory, bus_address] : kSteps) {
        buffer_info& info = anc_buffers_[memory];
        const uint32_t id = boot_conf.memory_ids[memory];
        const int32_t status = bus_address ? get_iobus_address(id, 0, &info.bus_address)
                                           : map_iomemory(id, 0, &info.mapped_address, &info.mapped_size);
        if (status != 0) return status;
    }
    return 0;
}

buffer_info kivDriverClient::get_anc_buffer(unsigned number) const {
    const std::lock_guard lock(buffer_mutex_);
    return number < std::size(anc_buffers_) ? anc_buffers_[number] : buffer_info{};
}
