// What a long life leaves behind.
#include <gtest/gtest.h>
#include <kiv/kiv_api.h>

#include "support/RunningSimulator.h"
#include "support/ThisProcess.h"
#include "support/Waiting.h"

namespace {

struct Footprint {
    long descriptors;
    long threads;
    long resident_kib;
};

Footprint footprint() {
    return {open_descriptors(), running_threads(), resident_kib()};
}

void scan_and_ask(int rounds) {
    for (int i = 0; i < rounds; ++i) {
        kiv_scan_internal_t scan{};
        ASSERT_EQ(kiv_scan_internal(&scan), KIV_OK);
        kiv_card_info_t info{};
        ASSERT_EQ(kiv_get_card_info(scan.devices[0].device_id, &info), KIV_OK);
    }
}

}  // namespace

TEST(Soak, TwoHundredScansLeaveDescriptorsThreadsAndMemoryWhereTheyWere) {
    RunningSimulator simulator;
    scan_and_ask(10);
    const Footprint before = footprint();
    scan_and_ask(200);
    // The simulator, in the same process, may have a connection or two yet to close, and a thread to end, at
    // either end.
    EXPECT_TRUE(wait_until([&] { return footprint().descriptors <= before.descriptors; }))
        << footprint().descriptors << " after " << before.descriptors;
    EXPECT_TRUE(wait_until([&] { return footprint().threads <= before.threads; }))
        << footprint().threads << " after " << before.threads;
    // Allocators keep some pages; 200 leaked managers, clients or replies would be far more. Sanitizers keep
    // freed memory back on purpose.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(footprint().resident_kib - before.resident_kib, 2048);
#endif
    kiv_close();
}
