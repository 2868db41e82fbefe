/// Memory that the driver process lends to programs.
#ifndef KIVSIM_SHARED_MEMORY_H
#define KIVSIM_SHARED_MEMORY_H

#include <cstddef>
#include <cstdint>

#include "common/LocalSocket.h"

namespace kivsim {

/// Zero until written, pages taken as they are touched. Programs map its descriptor. Not synchronised.
class SharedMemory {
  public:
    /// None.
    SharedMemory() = default;

    /// `size` in bytes. None when the system has no more.
    explicit SharedMemory(uint64_t size);

    SharedMemory(SharedMemory&& other) noexcept;
    SharedMemory& operator=(SharedMemory other) noexcept;
    ~SharedMemory();

    explicit operator bool() const { return static_cast<bool>(file_); }
    int descriptor() const { return file_.get(); }

    /// Never the same for two memories of this process.
    uint64_t number() const { return number_; }

    /// Where the first page at or after `offset`, a multiple of the page size, begins that may have been
    /// written; the size or more when there is none. All other pages are zero.
    uint64_t next_written(uint64_t offset) const;

    /// The caller stays inside. Without room to map it, it reads as zero and takes nothing.
    void read(uint64_t offset, void* to, std::size_t size) const;
    void write(uint64_t offset, const void* from, std::size_t size);

  private:
    char* mapped() const;

    Descriptor file_;
    uint64_t number_ = 0;
    uint64_t size_ = 0;
    mutable char* address_ = nullptr;  ///< Mapped at its first use: most memories are never looked at here.
};

}  // namespace kivsim

#endif
