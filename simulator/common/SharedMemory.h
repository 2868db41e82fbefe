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

    /// Where the first page at or after `offset`, a multiple of the page size, begins that may have been
    /// written; the size or more when there is none. All other pages are zero.
    uint64_t next_written(uint64_t offset) const;

    /// The caller stays inside.
    void read(uint64_t offset, void* to, std::size_t size) const;
    void write(uint64_t offset, const void* from, std::size_t size);

  private:
    Descriptor file_;
};

}  // namespace kivsim

#endif
