// A program that exits while eight of its threads are in calls: after 20 of these, or the milliseconds of its
// argument. Status 42 when nothing else ends it, 3 when libcrypto ends first. The cards are another
// process's: this one is to hold nothing but the library.
#include <dlfcn.h>
#include <kiv/kiv_api.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace {

std::atomic<int> g_calls{0};

void scan() {
    kiv_scan_t found{};
    kiv_scan(&found);
}

void ask() {
    kiv_card_info_t info{};
    kiv_card_status_t status{};
    kiv_get_card_info(1, &info);
    kiv_get_card_status(2, &status);
}

}  // namespace

int main(int count, char** arguments) {
    // Runs after all that libraries leave to be done at the exit. Calls may go on until here, and use
    // libcrypto.
    std::atexit([] {
        const auto is_up =
            reinterpret_cast<int (*)(uint64_t, const void*)>(dlsym(RTLD_DEFAULT, "OPENSSL_init_crypto"));
        if (is_up != nullptr && is_up(0, nullptr) != 1) _exit(3);
    });
    if (count < 2) scan();
    for (int i = 0; i < 8; ++i) {
        std::thread([i] {
            for (;; ++g_calls)
                i == 0 ? scan() : ask();
        }).detach();
    }
    if (count > 1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(std::strtol(arguments[1], nullptr, 10)));
        std::exit(42);
    }
    for (int waited = 0; g_calls < 20 && waited < 20'000; ++waited)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::exit(g_calls < 20 ? 1 : 42);
}
