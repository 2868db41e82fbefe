// The log without memory: an open that fails leaves nothing behind.
#include <gtest/gtest.h>
#include <kiv/kivLog.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

namespace {

std::atomic<long> g_left{-1};  ///< Allocations until one fails; below 0 none does.

void* allocate(std::size_t size) {
    if (g_left >= 0 && g_left-- == 0) throw std::bad_alloc();
    if (void* const memory = std::malloc(size != 0 ? size : 1)) return memory;
    throw std::bad_alloc();
}

}  // namespace

// In place of the standard library's, for all that this process has loaded.
void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

TEST(LogWithoutMemory, OpensWhenThereIsMemoryAgain) {
    const kiv_log_config_t config{KIV_LOG_LEVEL_INFO};
    int failed = 0;
    for (kiv_result_t result = KIV_ERR_FAILED; result != KIV_OK; failed += result != KIV_OK) {
        ASSERT_LT(failed, 500);
        g_left = failed;
        result = kivLog_open(&config, KIV_LOG_SINK_DEFAULT, nullptr, nullptr);
        g_left = -1;
    }
    EXPECT_GT(failed, 10) << "allocations of the open";
    setenv("OS_ACTIVITY_DT_MODE", "1", 1);
    testing::internal::CaptureStderr();
    kivLog_print(KIV_LOG_LEVEL_ERROR, "the log is alive");
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_NE(line.find("[error] [] the log is alive\n"), std::string::npos) << line;
}
