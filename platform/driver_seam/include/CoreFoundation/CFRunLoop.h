/* Run loops: a thread waits in its loop for the sources that were added to it and calls what they call. */
#ifndef COREFOUNDATION_CFRUNLOOP_H
#define COREFOUNDATION_CFRUNLOOP_H

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFDate.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct __CFRunLoop* CFRunLoopRef;
typedef struct __CFRunLoopSource* CFRunLoopSourceRef;
typedef CFStringRef CFRunLoopMode;

extern const CFRunLoopMode kCFRunLoopDefaultMode;

typedef enum CFRunLoopRunResult {
    kCFRunLoopRunFinished = 1, /* The mode has no source. */
    kCFRunLoopRunStopped = 2,
    kCFRunLoopRunTimedOut = 3,
    kCFRunLoopRunHandledSource = 4
} CFRunLoopRunResult;

/* The calling thread's loop, made at the first call; it ends with the thread unless it is retained. */
CFRunLoopRef CFRunLoopGetCurrent(void);

/* Retains the source; from any thread, also while the loop runs. */
void CFRunLoopAddSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode mode);

/* Runs the calling thread's loop in the default mode until it is stopped or has no source: without one it
 * returns at once. What arrived before the run is delivered by it. */
void CFRunLoopRun(void);

/* As CFRunLoopRun, for at most so many seconds; 0 or less is one look without waiting. With
 * `return_after_source_handled`, until the first callback has returned. */
CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds,
                                      Boolean return_after_source_handled);

/* Ends the innermost run after the current callback; from any thread. Without a run it does nothing: a run
 * that starts later is not stopped. */
void CFRunLoopStop(CFRunLoopRef loop);

#ifdef __cplusplus
}
#endif

#endif
