/* Port names, result codes and addresses of the platform, as far as this stand-in has them. */
#ifndef MACH_MACH_TYPES_H
#define MACH_MACH_TYPES_H

#include <mach/vm_types.h>
#include <stdint.h>

typedef uint32_t mach_port_t;
typedef mach_port_t task_port_t;
typedef mach_port_t vm_map_read_t;
typedef int kern_return_t;
typedef uint32_t mach_msg_type_number_t;

#define MACH_PORT_NULL ((mach_port_t)0)

#define KERN_SUCCESS 0
#define KERN_INVALID_ADDRESS 1
#define KERN_INVALID_ARGUMENT 4
#define KERN_INVALID_NAME 15
#define MACH_SEND_INVALID_DEST 0x10000003

/* The calling task: any name but null. */
#define mach_task_self() ((mach_port_t)0x103)

#endif
