#include "support/ThisProcess.h"

#include <mach/mach.h>
#include <mach/mach_vm.h>
#ifdef __APPLE__
#include <malloc/malloc.h>
#else
#include <malloc.h>
#endif

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#ifndef __APPLE__
// The sanitizers have allocators of their own.
extern "C" __attribute__((weak)) void __sanitizer_purge_allocator();
extern "C" __attribute__((weak)) std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

std::ptrdiff_t entries(const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
}

}  // namespace

std::ptrdiff_t open_descriptors() {
    return entries("/dev/fd/");
}

int shared_mappings() {
    int count = 0;
    mach_vm_address_t address = 0;
    for (mach_vm_size_t size = 0;; address += size) {
        vm_region_basic_info_data_64_t info{};
        mach_msg_type_number_t words = VM_REGION_BASIC_INFO_COUNT_64;
        mach_port_t object = MACH_PORT_NULL;
        if (mach_vm_region(mach_task_self(), &address, &size, VM_REGION_BASIC_INFO_64,
                           reinterpret_cast<vm_region_info_t>(&info), &words, &object) != KERN_SUCCESS)
            return count;
        count += info.shared != 0 ? 1 : 0;
    }
}

#ifdef __APPLE__

std::ptrdiff_t running_threads() {
    thread_act_array_t list = nullptr;
    mach_msg_type_number_t count = 0;
    if (task_threads(mach_task_self(), &list, &count) != KERN_SUCCESS) return 0;
    for (mach_msg_type_number_t i = 0; i < count; ++i)
        mach_port_deallocate(mach_task_self(), list[i]);
    vm_deallocate(mach_task_self(), reinterpret_cast<vm_address_t>(list), count * sizeof *list);
    return count;
}

long resident_kib() {
    mach_task_basic_info_data_t info{};
    mach_msg_type_number_t count = MACH_TASK_BASIC_INFO_COUNT;
    task_info(mach_task_self(), MACH_TASK_BASIC_INFO, reinterpret_cast<task_info_t>(&info), &count);
    return static_cast<long>(info.resident_size / 1024);
}

std::size_t allocated_bytes() {
    return mstats().bytes_used;
}

#else

std::ptrdiff_t running_threads() {
    return entries("/proc/self/task");
}

long resident_kib() {
    if (__sanitizer_purge_allocator != nullptr) __sanitizer_purge_allocator();
    malloc_trim(0);
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;  // All that is mapped, then what is in memory.
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

std::size_t allocated_bytes() {
    if (__sanitizer_get_current_allocated_bytes != nullptr) return __sanitizer_get_current_allocated_bytes();
    return mallinfo2().uordblks + mallinfo2().hblkhd;
}

#endif
