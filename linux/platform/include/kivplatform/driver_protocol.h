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
    KIVPLATFORM_LIST = 1,       /* Payload: service name. Reply: entry ids (u64), in registration order. */
    KIVPLATFORM_OPEN = 2,       /* `entry`, `number` = connection type. Reply: status. */
    KIVPLATFORM_CALL = 3,       /* `number` = selector, `capacity`; payload: input. Reply: output. */
    KIVPLATFORM_CLOSE = 4,      /* Reply: status; then the program hangs up. */
    KIVPLATFORM_CALL_ASYNC = 5, /* As CALL, with a descriptor: the end of a SOCK_SEQPACKET pair on which the
                                   driver process sends messages from now on. */
    KIVPLATFORM_MAP = 6 /* `number` = memory type. Reply: kivplatform_mapping, with the descriptor of a shared
                           file. */
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

/* Arguments of a message. */
#define KIVPLATFORM_MESSAGE_ARGUMENTS 16u

/* A message of an asynchronous call; only its first `count` arguments travel. */
struct kivplatform_message {
    int32_t result;
    uint32_t count; /* At most 16, and never 2: no callback takes two. */
    uint64_t argument[KIVPLATFORM_MESSAGE_ARGUMENTS];
};

/* A memory of the driver: bytes of the file whose descriptor comes along, which is sealed against
 * shrinking. Whole pages. The same place in the same
 * file is the same memory. */
struct kivplatform_mapping {
    uint64_t offset;
    uint64_t size;
};

#endif
