// A program that loads the library by itself, and lets it go again.
#include <kiv/kiv_api.h>

#include "support/RunningSimulator.h"
#include "support/Test.h"

namespace {

template <typename Function>
Function* entry_point(void* library, const char* name) {
    if (void* const found = dlsym(library, name)) return reinterpret_cast<Function*>(found);
    std::_Exit(1);
}

[[noreturn]] void load_use_unload_and_exit() {
    RunningSimulator simulator;
    void* const library = dlopen(KIV_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    const kiv_log_config_t config{KIV_LOG_LEVEL_INFO};
    entry_point<decltype(kivLog_open)>(library, "kivLog_open")(&config, KIV_LOG_SINK_DEFAULT, nullptr,
                                                               nullptr);
    kiv_scan_t found{};
    if (entry_point<decltype(kiv_scan)>(library, "kiv_scan")(&found) != KIV_OK || found.count != 2)
        std::_Exit(2);
    if (dlclose(library) != 0) std::_Exit(3);
    std::exit(42);
}

}  // namespace

/// Log, cards, threads and the exit handler are of the library that goes.
TEST(Unloading, LeavesAProcessThatRunsAndExits) {
    EXPECT_EXIT(load_use_unload_and_exit(), testing::ExitedWithCode(42), "");
}
