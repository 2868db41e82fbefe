/// What this process holds of the system.
#ifndef KIV_TEST_THIS_PROCESS_H
#define KIV_TEST_THIS_PROCESS_H

#include <cstddef>

/// Open descriptors, with the one that looking takes.
std::ptrdiff_t open_descriptors();

std::ptrdiff_t running_threads();

long resident_kib();  ///< Memory in use.

/// Bytes of the allocator in use; 0 where it counts none.
std::size_t allocated_bytes();

/// Mappings that are shared with other processes.
int shared_mappings();

#endif
