#ifndef IOKIT_IOTYPES_H
#define IOKIT_IOTYPES_H

#include <IOKit/IOMapTypes.h>
#include <IOKit/IOReturn.h>
#include <mach/mach_types.h>

typedef mach_port_t io_object_t;
typedef io_object_t io_service_t;
typedef io_object_t io_iterator_t;
typedef io_object_t io_connect_t;
typedef uint32_t IOOptionBits;

#define IO_OBJECT_NULL ((io_object_t)0)

#endif
