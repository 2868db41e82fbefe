#ifndef MACH_MACH_H
#define MACH_MACH_H

#include <mach/mach_types.h>

#endif
