#include <mach/mach_vm.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};

/// Pages that the kernel lends to every process ([vvar] may be several); the platform's own query does not
/// show such.
bool lent_by_kernel(const char* line) {
    const char* const name = std::strrchr(line, ' ');  // The last column.
    return name != nullptr &&
           (std::strncmp(name, " [vsyscall]", 11) == 0 || std::strncmp(name, " [vvar", 6) == 0);
}

}  // namespace

kern_return_t mach_vm_region(vm_map_read_t, mach_vm_address_t* address, mach_vm_size_t* size,
                             vm_region_flavor_t flavor, vm_region_info_t info,
                             mach_msg_type_number_t* info_count, mach_port_t* object_name) {
    if (address == nullptr || size == nullptr || info == nullptr || info_count == nullptr)
        return KERN_INVALID_ARGUMENT;
    if (flavor != VM_REGION_BASIC_INFO_64 || *info_count < VM_REGION_BASIC_INFO_COUNT_64)
        return KERN_INVALID_ARGUMENT;

    const std::unique_ptr<FILE, CloseFile> map(std::fopen("/proc/self/maps", "re"));
    if (!map) return KERN_INVALID_ADDRESS;
    char line[4096 + 128];  // A path of the greatest length and the columns before it.
    while (std::fgets(line, sizeof line, map.get()) != nullptr) {
        uint64_t start = 0;
        uint64_t end = 0;
        char rights[5] = {};
        // NOLINTNEXTLINE(cert-err34-c): the kernel writes no number that is too great.
        if (std::sscanf(line, "%" SCNx64 "-%" SCNx64 " %4s", &start, &end, rights) != 3) continue;
        if (end <= *address || lent_by_kernel(line)) continue;

        vm_region_basic_info_data_64_t found{};
        found.protection = (rights[0] == 'r' ? VM_PROT_READ : 0) | (rights[1] == 'w' ? VM_PROT_WRITE : 0) |
                           (rights[2] == 'x' ? VM_PROT_EXECUTE : 0);
        found.max_protection = VM_PROT_READ | VM_PROT_WRITE | VM_PROT_EXECUTE;
        found.shared = rights[3] == 's' ? 1 : 0;
        std::memcpy(info, &found, sizeof found);
        *info_count = VM_REGION_BASIC_INFO_COUNT_64;
        *address = start;
        *size = end - start;
        if (object_name != nullptr) *object_name = MACH_PORT_NULL;
        return KERN_SUCCESS;
    }
    return KERN_INVALID_ADDRESS;
}
