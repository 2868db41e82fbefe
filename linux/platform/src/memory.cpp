#include "memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

namespace kivplatform {

namespace {

bool is_sealed(const Descriptor& file) {
    const int seals = fcntl(file.get(), F_GET_SEALS);
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

bool Mappings::Mapping::is_same_memory(const Mapping& other) const {
    return device == other.device && inode == other.inode && offset == other.offset && size == other.size;
}

std::vector<Mappings::Mapping>::iterator Mappings::find(const Mapping& memory) {
    // A mapping keeps its file alive: while it exists no other file has the same numbers.
    return std::find_if(mappings_.begin(), mappings_.end(),
                        [&memory](const Mapping& each) { return each.is_same_memory(memory); });
}

kern_return_t Mappings::map(const Descriptor& file, const kivplatform_mapping& bytes,
                            mach_vm_address_t& address) {
    struct stat found {};
    if (fstat(file.get(), &found) != 0 || !within_file(bytes, found, is_sealed(file)))
        return kIOReturnBadArgument;
    const Mapping wanted{found.st_dev, found.st_ino, bytes.offset, bytes.size, nullptr};

    const std::lock_guard lock(mutex_);
    if (closed_) return MACH_SEND_INVALID_DEST;
    auto same = find(wanted);
    if (same == mappings_.end()) {
        mappings_.push_back(wanted);  // Before the memory is mapped: out of memory nothing may be left over.
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

kern_return_t Mappings::unmap(const Descriptor& file, const kivplatform_mapping& bytes) {
    struct stat status {};
    if (fstat(file.get(), &status) != 0) return kIOReturnBadArgument;
    const std::lock_guard lock(mutex_);
    const auto found = find({status.st_dev, status.st_ino, bytes.offset, bytes.size, nullptr});
    if (found == mappings_.end()) return kIOReturnBadArgument;
    munmap(found->address, found->size);
    mappings_.erase(found);
    return kIOReturnSuccess;
}

void Mappings::close() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    for (const Mapping& each : mappings_)
        munmap(each.address, each.size);
    mappings_.clear();
}

}  // namespace kivplatform
