#include "requests.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <cstdarg>
#include <ctime>
#include <mutex>
#include <utility>

#include "kivHpsClientKit/LibcurlOptions.h"

namespace {

/// The request that a thread is about to make.
struct Transfer {
    fuzz::Sent sent;
    const char* body = nullptr;
    std::size_t (*take)(char*, std::size_t, std::size_t, void*) = nullptr;
    void* taker = nullptr;
    long status = 0;
};
thread_local Transfer t_transfer;

std::mutex g_mutex;
fuzz::Server g_server;  ///< Guarded by it.

}  // namespace

void fuzz::set_server(Server server) {
    const std::lock_guard lock(g_mutex);
    g_server = std::move(server);
}

CURLcode on_option(SetOption, CURL*, unsigned option, void* value) {
    const char* const text = static_cast<const char*>(value);
    switch (option) {
        case CURLOPT_URL:  // The first of all options.
            t_transfer = {{text, {}, {}}};
            break;
        case CURLOPT_CUSTOMREQUEST:
            t_transfer.sent.method = text;
            break;
        case CURLOPT_POSTFIELDS:
            t_transfer.body = text;
            break;
        case CURLOPT_POSTFIELDSIZE:
            t_transfer.sent.body.assign(t_transfer.body, reinterpret_cast<std::size_t>(value));
            break;
        case CURLOPT_WRITEFUNCTION:
            t_transfer.take = reinterpret_cast<decltype(t_transfer.take)>(value);
            break;
        case CURLOPT_WRITEDATA:
            t_transfer.taker = value;
            break;
        default:
            break;
    }
    return CURLE_OK;
}

/// The answer comes in two blocks.
extern "C" CURLcode curl_easy_perform(CURL*) {
    fuzz::Answer answer;
    {
        const std::lock_guard lock(g_mutex);
        if (g_server) answer = g_server(t_transfer.sent);
    }
    t_transfer.status = answer.status;
    if (answer.status == 0) return CURLE_COULDNT_CONNECT;
    const std::size_t half = answer.body.size() / 2;
    for (std::size_t at = 0; at < answer.body.size();) {
        const std::size_t size = at < half ? half : answer.body.size() - at;
        if (t_transfer.take(answer.body.data() + at, 1, size, t_transfer.taker) != size)
            return CURLE_WRITE_ERROR;
        at += size;
    }
    return CURLE_OK;
}

#define KIV_TEXT_OF(text) #text
#define KIV_PREFIX_OF(prefix) KIV_TEXT_OF(prefix)

/// Under libcurl's name: see LibcurlOptions.cpp.
extern "C" CURLcode told_info(CURL* handle, unsigned info,
                              ...) __asm__(KIV_PREFIX_OF(__USER_LABEL_PREFIX__) "curl_easy_getinfo");

CURLcode told_info(CURL*, unsigned info, ...) {
    va_list arguments;
    va_start(arguments, info);
    if (info == CURLINFO_RESPONSE_CODE) *va_arg(arguments, long*) = t_transfer.status;
    va_end(arguments);
    return CURLE_OK;
}

/// Pauses between attempts, and those of the scheduler, which nothing wakes, are cut short.
extern "C" int nanosleep(const timespec* length, timespec* left) {
    constexpr long kMillisecond = 1'000'000;
    static const auto real =
        reinterpret_cast<int (*)(const timespec*, timespec*)>(dlsym(RTLD_NEXT, "nanosleep"));
    const timespec shorter{0, kMillisecond / 10};
    return real(length->tv_sec > 0 || length->tv_nsec > kMillisecond ? &shorter : length, left);
}
