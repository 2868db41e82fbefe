/*
 * User-space access to driver services. The driver is a process of its own, found at a Unix-domain socket
 * (see kivplatform/driver_process.h); with no such process there are no services. All calls are thread-safe.
 * Names of objects do not pass to a forked child: a call there on a service or connection of the parent is
 * MACH_SEND_INVALID_DEST and does nothing.
 */
#ifndef IOKIT_IOKITLIB_H
#define IOKIT_IOKITLIB_H

#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFRunLoop.h>
#include <IOKit/IOTypes.h>
#include <IOKit/OSMessageNotification.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

extern const mach_port_t kIOMainPortDefault;

/* A new matching dictionary with one reference, or null when there is no memory. Without a name the process
 * ends. */
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

/* Ends the driver's client and releases the handle; a call under way on it fails. Its mappings go, and no
 * message of it starts a callback any more; one that has begun in another thread may still finish. May be
 * called from inside a callback. Handle values are never reused. */
kern_return_t IOServiceClose(io_connect_t connect);

/* One synchronous call. *output_size: capacity in, produced size out. On failure neither output nor size
 * changes; a reply above the capacity is kIOReturnBadArgument. A driver process that is gone gives
 * MACH_SEND_INVALID_DEST. */
kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector, const void* input,
                                        size_t input_size, void* output, size_t* output_size);

/* Where the messages of asynchronous calls arrive, to be delivered by the run loop that has the port's
 * source. */
typedef struct IONotificationPort* IONotificationPortRef;

/* What a message calls, on the run loop's thread: without arguments (context, result, null, 0); with one
 * argument its value stands in place of `arguments`; with 3 to 16 it is an array, valid during the call. */
typedef void (*IOAsyncCallback)(void* context, IOReturn result, void** arguments, uint32_t argument_count);

IONotificationPortRef IONotificationPortCreate(mach_port_t main_port);

/* Takes the port's source out of its run loops and drops the messages that wait. */
void IONotificationPortDestroy(IONotificationPortRef port);

/* The port's name, for asynchronous calls; 0 for no port. */
mach_port_t IONotificationPortGetMachPort(IONotificationPortRef port);

/* Always the same source, which belongs to the port; null for no port. */
CFRunLoopSourceRef IONotificationPortGetRunLoopSource(IONotificationPortRef port);

/* As IOConnectCallStructMethod; once the driver has accepted, it may send messages to `wake_port` for as long
 * as the connection is open. Words of `reference` (at most 8, copied): kIOAsyncCalloutFuncIndex is the
 * IOAsyncCallback, kIOAsyncCalloutRefconIndex its context. A count without words, words without a count and a
 * port that does not exist are kIOReturnBadArgument. */
kern_return_t IOConnectCallAsyncStructMethod(mach_port_t connection, uint32_t selector, mach_port_t wake_port,
                                             uint64_t* reference, uint32_t reference_count, const void* input,
                                             size_t input_size, void* output, size_t* output_size);

/* Maps the driver's memory of that type, readable, writable and shared with the driver, at an address that
 * the system chooses: kIOMapAnywhere is required. The same memory again has the same address. Address and
 * size are written on success only. Every failure is kIOReturnBadArgument, except that a driver process that
 * is gone gives MACH_SEND_INVALID_DEST. */
kern_return_t IOConnectMapMemory64(io_connect_t connect, uint32_t memory_type, task_port_t into_task,
                                   mach_vm_address_t* address, mach_vm_size_t* size, IOOptionBits options);

/* Undoes this connection's mapping of the driver's memory of that type, as the driver has it at this moment,
 * however often it was mapped; kIOReturnBadArgument when it is not mapped. The address is ignored: what was
 * mapped anywhere is known by its memory only. */
kern_return_t IOConnectUnmapMemory64(io_connect_t connect, uint32_t memory_type, task_port_t from_task,
                                     mach_vm_address_t address);

#ifdef __cplusplus
}
#endif

#endif
