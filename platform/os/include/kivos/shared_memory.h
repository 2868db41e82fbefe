/// Memory that processes share by a descriptor.
#ifndef KIVOS_SHARED_MEMORY_H
#define KIVOS_SHARED_MEMORY_H

#include <kivos/descriptor.h>

#include <cstddef>
#include <cstdint>

namespace kivos {

#if defined(__linux__) && !defined(KIV_PLAIN_POSIX)
inline constexpr bool kMemoryIsSealed = true;
#else
inline constexpr bool kMemoryIsSealed = false;
#endif

/// Bytes of a page.
uint64_t page_size();

/// A file in memory that nobody finds by a name: `size` bytes, zero until written. None, with errno, when the
/// system has no more. Where kMemoryIsSealed nobody can change its size.
Descriptor shared_memory(uint64_t size);

/// Whether a page of that memory might cease to exist while it is mapped, which would end the process that
/// touches it. Only where kMemoryIsSealed this can be told: elsewhere always false.
bool may_shrink(int descriptor);

/// Where the first page at or after `offset`, a multiple of the page size, begins that may have been written;
/// `size` or more when there is none. All other pages are zero. The memory is mapped at `address`.
uint64_t next_written(int descriptor, void* address, uint64_t offset, uint64_t size);

}  // namespace kivos

#endif
