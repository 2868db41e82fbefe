#ifndef COREFOUNDATION_CFBASE_H
#define COREFOUNDATION_CFBASE_H

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned char Boolean;

typedef const void* CFTypeRef;
typedef const struct __CFString* CFStringRef;

/* Reference counts of any object; null ends the process, as it does on the platform itself. */
CFTypeRef CFRetain(CFTypeRef object);
void CFRelease(CFTypeRef object);

#ifdef __cplusplus
}
#endif

#endif
