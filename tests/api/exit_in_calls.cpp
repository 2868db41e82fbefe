// A program that exits while eight of its threads are in calls. Status 42 when nothing else ends it. The
// cards are another process's: this one is to hold nothing but the library.
#include <kiv/kiv_api.h>

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

int main() {
    scan();
    for (int i = 0; i < 8; ++i) {
        std::thread([i] {
            for (;; ++g_calls)
                i == 0 ? scan() : ask();
        }).detach();
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (g_calls < 20 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::exit(g_calls < 20 ? 1 : 42);
}
