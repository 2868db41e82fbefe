#include "memory.h"

#include <kivos/shared_memory.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>

namespace kivplatform {

namespace {

/// Touching a page beyond the end of the file would end this process.
bool within_file(const kivplatform_mapping& bytes, const kivos::Descriptor& file) {
    struct stat found {};
    if (fstat(file.get(), &found) != 0 || kivos::may_shrink(file.get())) return false;
    const uint64_t page = kivos::page_size();
    const auto length = static_cast<uint64_t>(found.st_size);
    return bytes.size != 0 && bytes.size % page == 0 && bytes.offset % page == 0 && bytes.size <= length &&
           bytes.offset <= length - bytes.size;
}

}  // namespace

std::vector<Mappings::Mapping>::iterator Mappings::find(const kivplatform_mapping& bytes) {
    return std::find_if(mappings_.begin(), mappings_.end(), [&bytes](const Mapping& each) {
        return each.bytes.memory == bytes.memory && each.bytes.offset == bytes.offset &&
               each.bytes.size == bytes.size;
    });
}

kern_return_t Mappings::map(const kivos::Descriptor& file, const kivplatform_mapping& bytes,
                            mach_vm_address_t& address) {
    if (!within_file(bytes, file)) return kIOReturnBadArgument;
    const std::lock_guard lock(mutex_);
    if (closed_) return MACH_SEND_INVALID_DEST;
    auto same = find(bytes);
    if (same == mappings_.end()) {
        mappings_.push_back(
            {bytes, nullptr});  // Before the memory is mapped: out of memory nothing may be left over.
        same = std::prev(mappings_.end());
        same->address = mmap(nullptr, bytes.size, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(),
                             static_cast<off_t>(bytes.offset));
        if (same->address == MAP_FAILED) {
            mappings_.pop_back();
            return kIOReturnBadArgument;
        }
    }
    address = reinterpret_cast<mach_vm_address_t>(same->address);
    return kIOReturnSuccess;
}

kern_return_t Mappings::unmap(const kivplatform_mapping& bytes) {
    const std::lock_guard lock(mutex_);
    const auto found = find(bytes);
    if (found == mappings_.end()) return kIOReturnBadArgument;
    munmap(found->address, found->bytes.size);
    mappings_.erase(found);
    return kIOReturnSuccess;
}

void Mappings::close() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    for (const Mapping& each : mappings_)
        munmap(each.address, each.bytes.size);
    mappings_.clear();
}

}  // namespace kivplatform
