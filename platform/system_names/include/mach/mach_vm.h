#ifndef MACH_MACH_VM_H
#define MACH_MACH_VM_H

#include <mach/mach_types.h>
#include <mach/vm_region.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The mapped region that holds *address, else the next higher one: its start, size and protection. None is
 * KERN_INVALID_ADDRESS; a count below VM_REGION_BASIC_INFO_COUNT_64 or another flavor KERN_INVALID_ARGUMENT.
 */
kern_return_t mach_vm_region(vm_map_read_t task, mach_vm_address_t* address, mach_vm_size_t* size,
                             vm_region_flavor_t flavor, vm_region_info_t info,
                             mach_msg_type_number_t* info_count, mach_port_t* object_name);

#ifdef __cplusplus
}
#endif

#endif
