/*
 * What a program and the driver process say to each other. One connection of a Unix-domain stream socket is
 * one conversation: the program sends a request, the driver process answers it. A conversation that has
 * opened a service is that connection; it ends with the socket. Every message is a frame, a header and its
 * payload. A frame that announces too much, or more descriptors than come with it, ends the conversation; a
 * descriptor that no frame announces is closed.
 */
#ifndef KIVPLATFORM_DRIVER_PROTOCOL_H
#define KIVPLATFORM_DRIVER_PROTOCOL_H

#include <stdint.h>

/* A struct call carries at most this much in either direction, in bytes. */
#define KIVPLATFORM_INBAND_SIZE 4096u

/* Longest payload: the list of services. */
#define KIVPLATFORM_MESSAGE_SIZE 65536u

/* Goes before every message. The descriptors travel with its first byte. */
struct kivplatform_frame {
    uint32_t size;        /* Bytes that follow. */
    uint32_t descriptors; /* How many come along. */
};

enum kivplatform_request_kind {
    KIVPLATFORM_LIST = 1,       /* Payload: service name. Reply: entry ids (u64), in registration order. */
    KIVPLATFORM_OPEN = 2,       /* `entry`, `number` = connection type. Reply: status. */
    KIVPLATFORM_CALL = 3,       /* `number` = selector, `capacity`; payload: input. Reply: output. */
    KIVPLATFORM_CLOSE = 4,      /* Reply: status; then the program hangs up. */
    KIVPLATFORM_CALL_ASYNC = 5, /* As CALL, with a descriptor: the end of a pair of stream sockets on which
                                   the driver process sends messages from now on. */
    KIVPLATFORM_MAP = 6 /* `number` = memory type. Reply: kivplatform_mapping, with the descriptor of a
                           shared memory. */
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

/*
 * A memory of the driver: bytes of what the descriptor that comes along stands for, in whole pages. Where the
 * system can seal memory it is sealed against shrinking. The same bytes of the same memory are mapped once:
 * its number tells, since not every system tells two shared memories apart by their descriptors.
 */
struct kivplatform_mapping {
    uint64_t memory; /* Never the same for two memories of one driver process. */
    uint64_t offset;
    uint64_t size;
};

#endif
