#include "common/SharedMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kivsim {

SharedMemory::SharedMemory(uint64_t size)
    : file_(kivplatform::above_standard(memfd_create("kivsim", MFD_CLOEXEC | MFD_ALLOW_SEALING))) {
    if (file_ && ftruncate(file_.get(), static_cast<off_t>(size)) != 0) file_.reset();
    // A program that mapped it may rely on its size.
    if (file_) fcntl(file_.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW);
}

uint64_t SharedMemory::next_written(uint64_t offset) const {
    const off_t found = lseek(file_.get(), static_cast<off_t>(offset), SEEK_DATA);
    return found >= 0 ? static_cast<uint64_t>(found) : errno == ENXIO ? ~uint64_t{0} : offset;
}

void SharedMemory::read(uint64_t offset, void* to, std::size_t size) const {
    const ssize_t got = pread(file_.get(), to, size, static_cast<off_t>(offset));
    const std::size_t filled = got < 0 ? 0 : static_cast<std::size_t>(got);
    std::memset(static_cast<char*>(to) + filled, 0, size - filled);
}

void SharedMemory::write(uint64_t offset, const void* from, std::size_t size) {
    [[maybe_unused]] const ssize_t put = pwrite(file_.get(), from, size, static_cast<off_t>(offset));
}

}  // namespace kivsim
