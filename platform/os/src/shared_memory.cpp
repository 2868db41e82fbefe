#include <fcntl.h>
#include <kivos/shared_memory.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

namespace kivos {

namespace {

#if defined(__linux__) && !defined(KIV_PLAIN_POSIX)

Descriptor memory_file() {
    return above_standard(memfd_create("kivsim", MFD_CLOEXEC | MFD_ALLOW_SEALING));
}

bool seal(int descriptor) {
    return fcntl(descriptor, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) == 0;
}

#else

/// The name lives for a moment: long enough for nobody to guess it, or the next number is tried.
Descriptor memory_file() {
    static std::atomic<unsigned> count = 0;
    constexpr int kTries = 100;
    for (int i = 0; i < kTries; ++i) {
        char name[32];  // As long as macOS takes them.
        std::snprintf(name, sizeof name, "/kivsim-%d-%u", static_cast<int>(getpid()), count++);
        const int made = shm_open(name, O_RDWR | O_CREAT | O_EXCL, 0600);
        if (made < 0 && errno == EEXIST) continue;
        if (made >= 0) shm_unlink(name);
        return above_standard(made);
    }
    return Descriptor();
}

bool seal(int) {
    return true;
}

#endif

}  // namespace

uint64_t page_size() {
    static const auto size = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return size;
}

Descriptor shared_memory(uint64_t size) {
    Descriptor file = memory_file();
    // A size of 0, which it has, is refused by some systems.
    const bool sized = file && (size == 0 || ftruncate(file.get(), static_cast<off_t>(size)) == 0);
    if (!sized || !seal(file.get())) file.reset();
    return file;
}

#if defined(__linux__) && !defined(KIV_PLAIN_POSIX)

bool may_shrink(int descriptor) {
    const int seals = fcntl(descriptor, F_GET_SEALS);
    return seals < 0 || (seals & F_SEAL_SHRINK) == 0;
}

uint64_t next_written(int descriptor, void*, uint64_t offset, uint64_t) {
    const off_t found = lseek(descriptor, static_cast<off_t>(offset), SEEK_DATA);
    return found >= 0 ? static_cast<uint64_t>(found) : errno == ENXIO ? ~uint64_t{0} : offset;
}

#else

bool may_shrink(int) {
    return false;
}

/// A page that no process has touched is in no memory.
uint64_t next_written(int, void* address, uint64_t offset, uint64_t size) {
#ifdef __linux__
    using State = unsigned char;
#else
    using State = char;
#endif
    for (; offset < size; offset += page_size()) {
        State state = 0;
        if (mincore(static_cast<char*>(address) + offset, page_size(), &state) != 0 || state != 0) break;
    }
    return offset;
}

#endif

}  // namespace kivos
