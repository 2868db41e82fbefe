/// A file descriptor with an owner.
#ifndef KIVPLATFORM_DESCRIPTOR_H
#define KIVPLATFORM_DESCRIPTOR_H

#include <unistd.h>

#include <utility>

namespace kivplatform {

class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }

    /// -1 when there is none.
    int number() const { return number_; }

  private:
    int number_ = -1;
};

}  // namespace kivplatform

#endif
