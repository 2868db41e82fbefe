/// Memory that the driver process lends to programs.
#ifndef KIVSIM_SHARED_MEMORY_H
#define KIVSIM_SHARED_MEMORY_H

#include <cstddef>
#include <cstdint>

#include "common/LocalSocket.h"

namespace kivsim {

/// A file in memory: zero until written, pages taken as they are touched. Programs map its descriptor.
class SharedMemory {
  public:
    static constexpr uint64_t kPageSize = 4096;

    /// `size` in bytes. Without a descriptor when the system has no more.
    explicit SharedMemory(uint64_t size);

    explicit operator bool() const { return static_cast<bool>(file_); }
    int descriptor() const { return file_.get(); }

    /// The caller stays inside.
    void read(uint64_t offset, void* to, std::size_t size) const;
    void write(uint64_t offset, const void* from, std::size_t size);

  private:
    Descriptor file_;
};

}  // namespace kivsim

#endif
