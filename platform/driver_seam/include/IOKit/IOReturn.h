#ifndef IOKIT_IORETURN_H
#define IOKIT_IORETURN_H

#include <mach/mach_types.h>

typedef kern_return_t IOReturn;

#define kIOReturnSuccess KERN_SUCCESS
#define kIOReturnCode(number) ((IOReturn)(0xE0000000u | (number)))
#define kIOReturnError kIOReturnCode(0x2BC)
#define kIOReturnNoMemory kIOReturnCode(0x2BD)
#define kIOReturnNoResources kIOReturnCode(0x2BE)
#define kIOReturnNoDevice kIOReturnCode(0x2C0)
#define kIOReturnBadArgument kIOReturnCode(0x2C2)
#define kIOReturnExclusiveAccess kIOReturnCode(0x2C5)
#define kIOReturnUnsupported kIOReturnCode(0x2C7)
#define kIOReturnVMError kIOReturnCode(0x2C8)
#define kIOReturnNotOpen kIOReturnCode(0x2CD)
#define kIOReturnBusy kIOReturnCode(0x2D5)
#define kIOReturnNotReady kIOReturnCode(0x2D8)
#define kIOReturnNotAttached kIOReturnCode(0x2D9)
#define kIOReturnMessageTooLarge kIOReturnCode(0x2E1)
#define kIOReturnNotPermitted kIOReturnCode(0x2E2)
#define kIOReturnNotFound kIOReturnCode(0x2F0)

#endif
