/// Owner of a file descriptor.
#ifndef KIVSIM_DESCRIPTOR_H
#define KIVSIM_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace kivsim {

class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset() {
        if (fd_ >= 0) close(std::exchange(fd_, -1));
    }

  private:
    int fd_;
};

}  // namespace kivsim

#endif
