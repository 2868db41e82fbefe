/*
 * What a program and the driver process say to each other. One SOCK_SEQPACKET connection is one conversation:
 * the program sends a request, the driver process answers it. A conversation that has opened a service is
 * that connection; it ends with the socket. Every message is a header followed by its payload.
 */
#ifndef KIVPLATFORM_DRIVER_PROTOCOL_H
#define KIVPLATFORM_DRIVER_PROTOCOL_H

#include <stdint.h>

/* A struct call carries at most this much in either direction, in bytes. */
#define KIVPLATFORM_INBAND_SIZE 4096u

/* Longest message: the list of services. */
#define KIVPLATFORM_MESSAGE_SIZE 65536u

enum kivplatform_request_kind {
    KIVPLATFORM_LIST = 1, /* Payload: service name. Reply: entry ids (u64), in registration order. */
    KIVPLATFORM_OPEN = 2, /* `entry`, `number` = connection type. Reply: status. */
    KIVPLATFORM_CALL = 3, /* `number` = selector, `capacity`; payload: input. Reply: output. */
    KIVPLATFORM_CLOSE = 4 /* Reply: status; then the program hangs up. */
};

struct kivplatform_request {
    uint32_t kind;
    uint32_t number;
    uint64_t entry;    /* Service, as listed; never the same in two driver processes. */
    uint32_t capacity; /* Largest output that the caller takes, bytes. */
    uint32_t reserved;
};

struct kivplatform_reply {
    int32_t status; /* 0, or the driver's error; then there is no payload. */
    uint32_t reserved;
};

#endif
