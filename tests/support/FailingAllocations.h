/// A program that is linked with FailingAllocations.cpp runs out of memory when a test says so.
#ifndef KIV_TEST_FAILING_ALLOCATIONS_H
#define KIV_TEST_FAILING_ALLOCATIONS_H

/// The nth allocation of the calling thread from now on fails, once; 0: none. Gives what was left of the
/// count before: 0 when that allocation has failed.
long fail_allocation(long nth);

#endif
