/*
 * User-space access to driver services. The driver is a process of its own, found at a Unix-domain socket
 * (see kivplatform/driver_process.h); with no such process there are no services. All calls are thread-safe.
 */
#ifndef IOKIT_IOKITLIB_H
#define IOKIT_IOKITLIB_H

#include <CoreFoundation/CFDictionary.h>
#include <IOKit/IOTypes.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

extern const mach_port_t kIOMainPortDefault;

/* A new matching dictionary with one reference, or null. */
CFMutableDictionaryRef IOServiceNameMatching(const char* name);

/* Services that match, in registration order; success with iterator 0 means none. Consumes one reference of
 * `matching`, also on failure. */
kern_return_t IOServiceGetMatchingServices(mach_port_t main_port, CFDictionaryRef matching,
                                           io_iterator_t* existing);

/* The next object with one reference, or 0 at the end. */
io_object_t IOIteratorNext(io_iterator_t iterator);

/* Drops one reference; an unknown name is KERN_INVALID_NAME. */
kern_return_t IOObjectRelease(io_object_t object);

/* Opens a connection of `type`, which the driver may refuse. It outlives the service object. */
kern_return_t IOServiceOpen(io_service_t service, task_port_t owning_task, uint32_t type,
                            io_connect_t* connect);

/* Ends the driver's client and releases the handle; a call under way on it fails. Handle values are never
 * reused. */
kern_return_t IOServiceClose(io_connect_t connect);

/* One synchronous call. *output_size: capacity in, produced size out. On failure neither output nor size
 * changes; a reply above the capacity is kIOReturnBadArgument. A driver process that is gone gives
 * MACH_SEND_INVALID_DEST. */
kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector, const void* input,
                                        size_t input_size, void* output, size_t* output_size);

#ifdef __cplusplus
}
#endif

#endif
