#include <mach/mach.h>
#include <mach/mach_vm.h>
#include <sys/mman.h>

#include "support/Test.h"

namespace {

TEST(PlatformMemoryRegions, AreFoundByAddressOrAboveIt) {
    // A hole, then a page that is readable; what differs above keeps it a region of its own.
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    void* const block = mmap(nullptr, 3 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(block, MAP_FAILED);
    const uint64_t readable = reinterpret_cast<uint64_t>(block) + page;
    ASSERT_EQ(mprotect(static_cast<char*>(block) + page, page, PROT_READ), 0);
    ASSERT_EQ(munmap(block, page), 0);
    for (const uint64_t asked : {readable - 1, readable, readable + page - 1, ~uint64_t{0}}) {
        mach_vm_address_t address = asked;
        mach_vm_size_t size = 0;
        vm_region_basic_info_data_64_t info{};
        mach_msg_type_number_t count = VM_REGION_BASIC_INFO_COUNT_64;
        mach_port_t object = MACH_PORT_NULL;
        const bool found = asked != ~uint64_t{0};
        EXPECT_EQ(mach_vm_region(mach_task_self(), &address, &size, VM_REGION_BASIC_INFO_64,
                                 reinterpret_cast<vm_region_info_t>(&info), &count, &object),
                  found ? KERN_SUCCESS : KERN_INVALID_ADDRESS);
        EXPECT_EQ(address, found ? readable : asked);
        EXPECT_EQ(size, found ? page : 0);
        EXPECT_EQ(info.protection, found ? VM_PROT_READ : 0);
    }
    munmap(static_cast<char*>(block) + page, 2 * page);
}

}  // namespace
