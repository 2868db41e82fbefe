// Message digests.
#ifndef KIVPLATFORM_COMMON_DIGEST_H
#define KIVPLATFORM_COMMON_DIGEST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t CC_LONG;

#define CC_MD5_DIGEST_LENGTH 16

typedef struct CC_MD5state_st {
    CC_LONG state[32];  // Private.
} CC_MD5_CTX;

// Each returns 1.
int CC_MD5_Init(CC_MD5_CTX* context);
int CC_MD5_Update(CC_MD5_CTX* context, const void* data, CC_LONG size);
int CC_MD5_Final(unsigned char* digest, CC_MD5_CTX* context);

#ifdef __cplusplus
}
#endif

#endif
