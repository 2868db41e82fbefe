// Not built with sanitizers: their own beginnings ask for memory here.
#include "torture/seams.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <new>

std::string g_configuration;

namespace {

struct {
    std::atomic<bool> on{false}, dry{false};
    std::atomic<long> counts[std::size(kResources)];
    Resource resource;
    long nth;
    bool for_good;
    int report;
} g;

thread_local int t_uncounted = 0;

/// A line of those that are on the stack: library and place in it.
void tell_who_asked(const char* what) {
    void* frames[48];
    const int count = backtrace(frames, static_cast<int>(std::size(frames)));
    char line[4096];
    int size = std::snprintf(line, sizeof line, "%s", what);
    for (int i = 0; i < count; ++i) {
        Dl_info found{};
        if (dladdr(frames[i], &found) == 0 || found.dli_fname == nullptr) continue;
        const char* const slash = std::strrchr(found.dli_fname, '/');
        const auto offset =
            static_cast<std::size_t>(static_cast<char*>(frames[i]) - static_cast<char*>(found.dli_fbase));
        const int left = static_cast<int>(sizeof line) - size;
        const int added = std::snprintf(line + size, static_cast<std::size_t>(left), " %s+%zx",
                                        slash != nullptr ? slash + 1 : found.dli_fname, offset);
        if (added >= left - 1) break;
        size += added;
    }
    line[size++] = '\n';
    if (write(g.report, line, static_cast<std::size_t>(size)) < 0) std::abort();
}

bool refused(Resource resource, int error) {
    if (!g.on || t_uncounted > 0) return false;
    const bool is_it = ++g.counts[static_cast<int>(resource)] == g.nth && resource == g.resource;
    if (is_it) {
        const Uncounted own;
        tell_who_asked("refused");
        g.dry = g.for_good;
    }
    if (!is_it && !g.dry) return false;
    errno = error;
    return true;
}

/// The definition behind this one.
template <typename Function>
Function* behind(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void begin_to_count(Resource resource, long nth, bool for_good, int report) {
    void* frame = nullptr;
    backtrace(&frame, 1);  // Loads what it needs.
    for (auto& count : g.counts)
        count = 0;
    g.resource = resource;
    g.nth = nth;
    g.for_good = for_good;
    g.report = report;
    std::set_terminate([] {
        end_to_count();
        tell_who_asked("terminated");
        std::abort();
    });
    g.dry = false;
    g.on = true;
}

void end_to_count() {
    g.on = false;
}

long counted(Resource resource) {
    return g.counts[static_cast<int>(resource)];
}

Uncounted::Uncounted(int change) : change_(change) {
    t_uncounted += change_;
}

Uncounted::~Uncounted() {
    t_uncounted -= change_;
}

// The definitions end where the real ones do: a name, and what it gives when it is refused.
// NOLINTBEGIN(bugprone-macro-parentheses): a type and a list of parameters bear none.
#define KIV_STANDS_BEFORE(resource, error, nothing, result, name, parameters, arguments)    \
    extern "C" result name parameters {                                                     \
        static const auto real = behind<std::remove_reference_t<result> parameters>(#name); \
        return refused(Resource::resource, error) ? (nothing) : real arguments;             \
    }
// NOLINTEND(bugprone-macro-parentheses)

// clang-format off
#ifndef KIV_SANITIZED  // A sanitizer asks for memory itself, and ends the process when it gets none.
KIV_STANDS_BEFORE(Memory, ENOMEM, nullptr, void*, malloc, (std::size_t size) noexcept, (size))
KIV_STANDS_BEFORE(Memory, ENOMEM, nullptr, void*, calloc, (std::size_t count, std::size_t size) noexcept, (count, size))
KIV_STANDS_BEFORE(Memory, ENOMEM, nullptr, void*, realloc, (void* old, std::size_t size) noexcept, (old, size))
KIV_STANDS_BEFORE(Memory, ENOMEM, MAP_FAILED, void*, mmap, (void* at, std::size_t size, int rights, int flags, int file, off_t offset) noexcept, (at, size, rights, flags, file, offset))
// And one asks by way of a pipe whether memory can be read: without the pipe it reports an object there as invalid.
KIV_STANDS_BEFORE(Descriptors, EMFILE, -1, int, pipe, (int ends[2]) noexcept, (ends))
#endif
KIV_STANDS_BEFORE(Descriptors, EMFILE, -1, int, socket, (int domain, int type, int protocol) noexcept, (domain, type, protocol))
KIV_STANDS_BEFORE(Descriptors, EMFILE, -1, int, socketpair, (int domain, int type, int protocol, int ends[2]) noexcept, (domain, type, protocol, ends))
KIV_STANDS_BEFORE(Descriptors, EMFILE, -1, int, pipe2, (int ends[2], int flags) noexcept, (ends, flags))
KIV_STANDS_BEFORE(Descriptors, EMFILE, -1, int, eventfd, (unsigned value, int flags) noexcept, (value, flags))
KIV_STANDS_BEFORE(Descriptors, EMFILE, -1, int, memfd_create, (const char* name, unsigned flags) noexcept, (name, flags))
KIV_STANDS_BEFORE(Descriptors, EMFILE, -1, int, accept, (int listener, sockaddr* from, socklen_t* size), (listener, from, size))
KIV_STANDS_BEFORE(Descriptors, EMFILE, -1, int, dup, (int number) noexcept, (number))
KIV_STANDS_BEFORE(Threads, EAGAIN, EAGAIN, int, pthread_create, (pthread_t* made, const pthread_attr_t* how, void* (*body)(void*), void* argument) noexcept, (made, how, body, argument))
// clang-format on

extern "C" FILE* fopen(const char* path, const char* mode) {
    static const auto real = behind<FILE*(const char*, const char*)>("fopen");
    if (refused(Resource::Descriptors, EMFILE)) return nullptr;
    const bool configuration = std::strncmp(path, "/Library/", 9) == 0;
    return real(configuration ? g_configuration.c_str() : path, mode);
}
extern "C" FILE* fopen64(const char* path, const char* mode) {
    return fopen(path, mode);
}
extern "C" int open(const char* path, int flags, ...) {
    static const auto real = behind<int(const char*, int, mode_t)>("open");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return refused(Resource::Descriptors, EMFILE) ? -1 : real(path, flags, mode);
}

/// A system that has no number left for a descriptor drops it, and says that the message was cut.
extern "C" ssize_t recvmsg(int socket, msghdr* message, int flags) {
    static const auto real = behind<ssize_t(int, msghdr*, int)>("recvmsg");
    const ssize_t size = real(socket, message, flags);
    const cmsghdr* const beside = size > 0 ? CMSG_FIRSTHDR(message) : nullptr;
    if (beside == nullptr || beside->cmsg_type != SCM_RIGHTS || !refused(Resource::Descriptors, 0))
        return size;
    for (std::size_t at = 0; CMSG_LEN(at + sizeof(int)) <= beside->cmsg_len; at += sizeof(int)) {
        int number = -1;
        std::memcpy(&number, CMSG_DATA(beside) + at, sizeof number);
        close(number);
    }
    message->msg_controllen = 0;
    message->msg_flags |= MSG_CTRUNC;
    return size;
}

/// Long pauses are cut short: those of the scheduler, which nothing wakes, and those between attempts.
extern "C" int nanosleep(const timespec* length, timespec* left) {
    static const auto real = behind<int(const timespec*, timespec*)>("nanosleep");
    const timespec shorter{0, 2'000'000};
    return real(length->tv_sec > 0 || length->tv_nsec > shorter.tv_nsec ? &shorter : length, left);
}

/// A value of the JSON library that is made of a list, and gets no memory in the midst of it, leaves what it
/// has.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:>::basic_json(std::initializer_list\n";
}

// Those of sanitizers do not come by malloc.
void* operator new(std::size_t size) {
#ifdef KIV_SANITIZED
    if (refused(Resource::Memory, ENOMEM)) throw std::bad_alloc();
#endif
    if (void* const memory = malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
