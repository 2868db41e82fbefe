#include "memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace kivplatform {

namespace {

bool is_sealed(const Descriptor& file) {
    const int seals = fcntl(file.number(), F_GET_SEALS);
    return seals >= 0 && (seals & F_SEAL_SHRINK) != 0;
}

/// Touching a page beyond the end of the file would end this process: it must be sealed against shrinking.
bool within_file(const kivplatform_mapping& bytes, const struct stat& file, bool sealed) {
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const auto length = static_cast<uint64_t>(file.st_size);
    return sealed && bytes.size != 0 && bytes.size % page == 0 && bytes.offset % page == 0 &&
           bytes.size <= length && bytes.offset <= length - bytes.size;
}

}  // namespace

kern_return_t Mappings::map(const Descriptor& file, const kivplatform_mapping& bytes,
                            mach_vm_address_t& address) {
    struct stat found {};
    if (fstat(file.number(), &found) != 0 || !within_file(bytes, found, is_sealed(file)))
        return kIOReturnBadArgument;
    Mapping wanted{found.st_dev, found.st_ino, bytes.offset, bytes.size, nullptr};

    const std::lock_guard lock(mutex_);
    if (closed_) return MACH_SEND_INVALID_DEST;
    // A mapping keeps its file alive: while it exists no other file has the same numbers.
    auto same = std::find_if(mappings_.begin(), mappings_.end(), [&wanted](const Mapping& each) {
        return each.device == wanted.device && each.inode == wanted.inode && each.offset == wanted.offset &&
               each.size == wanted.size;
    });
    if (same == mappings_.end()) {
        wanted.address = mmap(nullptr, bytes.size, PROT_READ | PROT_WRITE, MAP_SHARED, file.number(),
                              static_cast<off_t>(bytes.offset));
        if (wanted.address == MAP_FAILED) return kIOReturnBadArgument;
        same = mappings_.insert(same, wanted);
    }
    address = reinterpret_cast<mach_vm_address_t>(same->address);
    return kIOReturnSuccess;
}

bool Mappings::unmap(mach_vm_address_t address) {
    const std::lock_guard lock(mutex_);
    const auto found = std::find_if(mappings_.begin(), mappings_.end(), [address](const Mapping& each) {
        return reinterpret_cast<mach_vm_address_t>(each.address) == address;
    });
    if (found == mappings_.end()) return false;
    munmap(found->address, found->size);
    mappings_.erase(found);
    return true;
}

void Mappings::close() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    for (const Mapping& each : mappings_)
        munmap(each.address, each.size);
    mappings_.clear();
}

}  // namespace kivplatform
