/// The driver's memories in this process.
#ifndef KIVPLATFORM_MEMORY_H
#define KIVPLATFORM_MEMORY_H

#include <IOKit/IOTypes.h>
#include <kivos/descriptor.h>
#include <kivplatform/driver_protocol.h>

#include <mutex>
#include <vector>

namespace kivplatform {

/// What one connection has mapped.
class Mappings {
  public:
    Mappings() = default;
    ~Mappings() { close(); }
    Mappings(const Mappings&) = delete;
    Mappings& operator=(const Mappings&) = delete;

    /// The address of these bytes of the file: mapped now, or earlier. Bytes that are not whole pages, or not
    /// all within the file, are kIOReturnBadArgument.
    kern_return_t map(const kivos::Descriptor& file, const kivplatform_mapping& bytes,
                      mach_vm_address_t& address);

    /// Undoes the mapping of these bytes; kIOReturnBadArgument when they have none.
    kern_return_t unmap(const kivplatform_mapping& bytes);

    /// Unmaps all; from now on nothing can be mapped.
    void close();

  private:
    struct Mapping {
        kivplatform_mapping bytes;
        void* address;
    };

    /// The entry of these bytes, or the end.
    std::vector<Mapping>::iterator find(const kivplatform_mapping& bytes);

    std::mutex mutex_;  ///< Guards all below.
    std::vector<Mapping> mappings_;
    bool closed_ = false;
};

}  // namespace kivplatform

#endif
