#ifndef MACH_VM_REGION_H
#define MACH_VM_REGION_H

#include <mach/mach_types.h>

typedef int* vm_region_info_t;
typedef int vm_region_flavor_t;
typedef int vm_prot_t;

#define VM_PROT_READ 1
#define VM_PROT_WRITE 2
#define VM_PROT_EXECUTE 4

#define VM_REGION_BASIC_INFO_64 9

#pragma pack(push, 4)
typedef struct vm_region_basic_info_64 {
    vm_prot_t protection;
    vm_prot_t max_protection;
    uint32_t inheritance;
    uint32_t shared;
    uint32_t reserved;
    uint64_t offset;
    int32_t behavior;
    uint16_t user_wired_count;
} vm_region_basic_info_data_64_t;
#pragma pack(pop)

#define VM_REGION_BASIC_INFO_COUNT_64 \
    ((mach_msg_type_number_t)(sizeof(vm_region_basic_info_data_64_t) / sizeof(int)))

#endif
