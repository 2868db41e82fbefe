// The log without memory: an open that fails leaves nothing behind.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include <kiv/kivLog.h>
#include "support/FailingAllocations.h"

TEST(LogWithoutMemory, OpensWhenThereIsMemoryAgain) {
    const kiv_log_config_t config{KIV_LOG_LEVEL_INFO};
    int failed = 0;
    for (kiv_result_t result = KIV_ERR_FAILED; result != KIV_OK; failed += result != KIV_OK) {
        ASSERT_LT(failed, 500);
        fail_allocation(failed + 1);
        result = kivLog_open(&config, KIV_LOG_SINK_DEFAULT, nullptr, nullptr);
        fail_allocation(0);
    }
    EXPECT_GT(failed, 10) << "allocations of the open";
    setenv("OS_ACTIVITY_DT_MODE", "1", 1);
    testing::internal::CaptureStderr();
    kivLog_print(KIV_LOG_LEVEL_ERROR, "the log is alive");
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(has(line, "[error] [] the log is alive\n"));
}
