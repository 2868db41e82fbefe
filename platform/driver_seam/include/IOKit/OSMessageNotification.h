/* The words of an asynchronous call's reference. */
#ifndef IOKIT_OSMESSAGENOTIFICATION_H
#define IOKIT_OSMESSAGENOTIFICATION_H

#include <device/device_types.h>

enum {
    kIOAsyncReservedIndex = 0, /* The wake port, written by the system into its copy. */
    kIOAsyncCalloutFuncIndex = 1,
    kIOAsyncCalloutRefconIndex = 2,
    kIOAsyncCalloutCount = 3
};

/* At most so many words. */
enum { kOSAsyncRef64Count = 8 };

#endif
