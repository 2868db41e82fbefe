/// File descriptors with an owner.
#ifndef KIVOS_DESCRIPTOR_H
#define KIVOS_DESCRIPTOR_H

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace kivos {

class Descriptor {
  public:
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }

    /// -1 when there is none.
    int get() const { return number_; }
    explicit operator bool() const { return number_ >= 0; }
    void reset() { *this = Descriptor(); }

  private:
    int number_;
};

/// Owns `number`, which may be -1, under a number of 3 or above: a process may have closed its standard
/// streams, and what it then writes to them must not reach a descriptor of ours. None, with errno, when there
/// is no number left.
inline Descriptor above_standard(int number) {
    Descriptor owner(number);
    if (number < 0 || number > STDERR_FILENO) return owner;
    return Descriptor(fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

}  // namespace kivos

#endif
