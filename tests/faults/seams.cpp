#include "faults/seams.h"

#include <curl/curl.h>

#include <cstdint>
#include <ctime>

#include "kivHpsClientKit/LibcurlOptions.h"
#include "support/LoopbackServer.h"
#include "support/Test.h"

namespace {

const long kClosedPort = closed_port();  // Bound before the tests count descriptors.

}  // namespace

RequestSeam g_seam;

CURLcode on_option(SetOption real, CURL* handle, unsigned option, void* value) {
    thread_local bool meant = false;  // The library gives the URL before the limit.
    if (option == CURLOPT_URL) {
        meant = !g_seam.path.empty() &&
                std::string(static_cast<const char*>(value)).find(g_seam.path) != std::string::npos;
        if (meant) ++g_seam.attempts;
        if (meant && g_seam.way == Way::ToClosedPort) real(handle, CURLOPT_PORT, kClosedPort);
    }
    if (option == CURLOPT_TIMEOUT) {
        const long seconds = static_cast<long>(reinterpret_cast<intptr_t>(value));
        g_seam.waiting_ms += seconds * 1000;
        if (meant && seconds > 0) ++g_seam.limited;
        if (meant && g_seam.way == Way::InHaste) return real(handle, CURLOPT_TIMEOUT_MS, 10L);
    }
    return real(handle, option, value);
}

/// Cuts long pauses short: those between attempts, and those of the scheduler, which nothing wakes at a scan.
extern "C" int nanosleep(const timespec* length, timespec* left) {
    constexpr long kMillisecond = 1'000'000, kBetweenAttempts = 100 * kMillisecond;
    static const auto real = original<int(const timespec*, timespec*)>("nanosleep");
    if (length->tv_sec == 0 && length->tv_nsec == kBetweenAttempts) g_seam.waiting_ms += 100;
    const timespec shorter{0, 2 * kMillisecond};
    return real(length->tv_sec > 0 || length->tv_nsec > 50 * kMillisecond ? &shorter : length, left);
}
