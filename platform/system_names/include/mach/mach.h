#ifndef MACH_MACH_H
#define MACH_MACH_H

#include <mach/mach_types.h>
#include <mach/mach_vm.h>

#endif
