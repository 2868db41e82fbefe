#include "common/SharedMemory.h"

#include <kivos/shared_memory.h>
#include <sys/mman.h>

#include <atomic>
#include <cstring>
#include <utility>

namespace kivsim {

namespace {

uint64_t next_number() {
    static std::atomic<uint64_t> last = 0;
    return ++last;
}

}  // namespace

SharedMemory::SharedMemory(uint64_t size)
    : file_(kivos::shared_memory(size)), number_(next_number()), size_(size) {}

SharedMemory::SharedMemory(SharedMemory&& other) noexcept
    : file_(std::move(other.file_)),
      number_(other.number_),
      size_(other.size_),
      address_(std::exchange(other.address_, nullptr)) {}

SharedMemory& SharedMemory::operator=(SharedMemory other) noexcept {
    std::swap(file_, other.file_);
    std::swap(number_, other.number_);
    std::swap(size_, other.size_);
    std::swap(address_, other.address_);
    return *this;
}

SharedMemory::~SharedMemory() {
    if (address_ != nullptr) munmap(address_, size_);
}

/// Null when there is no room. Not read() and write(): not every system has them for shared memory.
char* SharedMemory::mapped() const {
    if (address_ != nullptr || !file_) return address_;
    void* const place = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
    if (place != MAP_FAILED) address_ = static_cast<char*>(place);
    return address_;
}

uint64_t SharedMemory::next_written(uint64_t offset) const {
    char* const memory = mapped();
    return memory == nullptr ? size_ : kivos::next_written(file_.get(), memory, offset, size_);
}

void SharedMemory::read(uint64_t offset, void* to, std::size_t size) const {
    const char* const memory = mapped();
    if (memory == nullptr) {
        std::memset(to, 0, size);
    } else {
        std::memcpy(to, memory + offset, size);
    }
}

void SharedMemory::write(uint64_t offset, const void* from, std::size_t size) {
    if (char* const memory = mapped(); memory != nullptr) std::memcpy(memory + offset, from, size);
}

}  // namespace kivsim
