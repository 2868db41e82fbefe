#ifndef DEVICE_DEVICE_TYPES_H
#define DEVICE_DEVICE_TYPES_H

#include <stdint.h>

/* A word that the caller of an asynchronous call chooses. */
typedef uint64_t io_user_reference_t;

#endif
