// Scans and queries of many cards, against the round trips that they have to make: the calls of the platform
// and the requests are noted as they go, and made again without the library. The simulator with the cards is
// a process of its own.
#include <IOKit/IOKitLib.h>
#include <curl/curl.h>
#include <dlfcn.h>
#include <kiv/kivDriverService.h>
#include <kiv/kiv_api.h>
#include <sys/resource.h>
#include "support/SimulatorProcess.h"
#include "support/machine.h"
#include "support/measure.h"
#include "support/report.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using kivbench::Report;
using kivbench::require;
using kivbench::Times;

/// One call of the platform, or a request.
struct Call {
    enum Kind { List, Next, Open, Struct, Close, Release, Get };
    Kind kind;
    uint32_t object = 0;  ///< The handle that it was given,
    uint32_t result = 0;  ///< and the one that it gave.
    uint32_t number = 0;  ///< Selector, or type of connection.
    std::string text{};   ///< Input, or URL.
    std::size_t capacity = 0;
};

thread_local std::vector<Call>* t_notes = nullptr;  ///< Where this thread's calls are noted.

void note(Call call) {
    if (t_notes != nullptr) t_notes->push_back(std::move(call));
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These stand before the platform's and libcurl's own: the library has to see them.
#pragma GCC visibility push(default)
#define PASS_ON(name, ...)                                 \
    static const auto real = next<decltype(&name)>(#name); \
    const auto result = real(__VA_ARGS__)

extern "C" kern_return_t IOServiceGetMatchingServices(mach_port_t port, CFDictionaryRef matching,
                                                      io_iterator_t* existing) {
    PASS_ON(IOServiceGetMatchingServices, port, matching, existing);
    note({Call::List, 0, result == kIOReturnSuccess ? *existing : 0});
    return result;
}
extern "C" io_object_t IOIteratorNext(io_iterator_t iterator) {
    PASS_ON(IOIteratorNext, iterator);
    note({Call::Next, iterator, result});
    return result;
}
extern "C" kern_return_t IOServiceOpen(io_service_t service, task_port_t task, uint32_t type,
                                       io_connect_t* connect) {
    PASS_ON(IOServiceOpen, service, task, type, connect);
    note({Call::Open, service, result == kIOReturnSuccess ? *connect : 0, type});
    return result;
}
extern "C" kern_return_t IOServiceClose(io_connect_t connect) {
    PASS_ON(IOServiceClose, connect);
    note({Call::Close, connect});
    return result;
}
extern "C" kern_return_t IOObjectRelease(io_object_t object) {
    PASS_ON(IOObjectRelease, object);
    note({Call::Release, object});
    return result;
}
extern "C" kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector,
                                                   const void* input, size_t input_size, void* output,
                                                   size_t* output_size) {
    const std::size_t capacity = output_size == nullptr ? 0 : *output_size;
    PASS_ON(IOConnectCallStructMethod, connection, selector, input, input_size, output, output_size);
    if (t_notes != nullptr)
        note(
            {Call::Struct, connection, 0, selector, {static_cast<const char*>(input), input_size}, capacity});
    return result;
}
extern "C" CURLcode curl_easy_perform(CURL* handle) {
    PASS_ON(curl_easy_perform, handle);
    const char* url = nullptr;
    curl_easy_getinfo(handle, CURLINFO_EFFECTIVE_URL, &url);
    if (url != nullptr) note({Call::Get, 0, 0, 0, url});
    return result;
}
#pragma GCC visibility pop

namespace {

std::size_t append(char* data, std::size_t size, std::size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

void get(const std::string& url) {
    std::string body;
    CURL* const handle = curl_easy_init();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &append);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
    require(curl_easy_perform(handle) == CURLE_OK, "a request fails");
    curl_easy_cleanup(handle);
}

/// Makes noted calls again. Handles that they gave stand for those that they give now, from one replay to the
/// next: a scan closes what the scan before it has opened.
class Replay {
  public:
    void run(const std::vector<Call>& calls) {
        for (const Call& call : calls)
            make(call);
    }

  private:
    void make(const Call& call) {
        const auto known = handles_.find(call.object);
        const uint32_t object = known == handles_.end() ? call.object : known->second;
        uint32_t result = 0;
        switch (call.kind) {
            case Call::List:
                IOServiceGetMatchingServices(kIOMainPortDefault,
                                             IOServiceNameMatching(KIV_DRIVER_SERVICE_NAME), &result);
                break;
            case Call::Next:
                result = IOIteratorNext(object);
                break;
            case Call::Open:
                IOServiceOpen(object, mach_task_self(), call.number, &result);
                break;
            case Call::Struct: {
                char output[4096];
                std::size_t size = std::min(call.capacity, sizeof output);
                IOConnectCallStructMethod(object, call.number, call.text.data(), call.text.size(), output,
                                          &size);
                break;
            }
            case Call::Close:
                IOServiceClose(object);
                break;
            case Call::Release:
                IOObjectRelease(object);
                break;
            case Call::Get:
                get(call.text);
                break;
        }
        if (call.result != 0) handles_[call.result] = result;
    }

    std::map<uint32_t, uint32_t> handles_;
};

/// All queries of one card that ask driver or server.
void query(uint8_t card) {
    kiv_card_info_t info{};
    kiv_net_config_t net{};
    kiv_card_status_t status{};
    kiv_net_status_t net_status{};
    kiv_ptp_config_t ptp{};
    kiv_ptp_status_t ptp_status{};
    kiv_tx_stream_status_t tx{};
    kiv_rx_stream_status_t rx{};
    kiv_flash_status_t flash_status{};
    kiv_flash_config_t flash{};
    uint64_t times[3] = {};
    const kiv_result_t results[] = {kiv_get_card_info(card, &info),
                                    kiv_get_media_net_config(card, &net),
                                    kiv_get_ptp_net_config(card, &net),
                                    kiv_get_card_status(card, &status),
                                    kiv_get_net_status(card, &net_status),
                                    kiv_get_ptp_config(card, &ptp),
                                    kiv_get_ptp_status(card, &ptp_status),
                                    kiv_get_tx_stream_status(card, &tx),
                                    kiv_get_rx_stream_status(card, &rx),
                                    kiv_get_epoch_and_2point(card, times, times + 1, times + 2),
                                    kiv_get_flash_write_status(card, &flash_status),
                                    kiv_get_flash_config(card, &flash)};
    for (const kiv_result_t result : results)
        require(result == KIV_OK, "a query fails");
}

unsigned scan() {
    kiv_scan_t cards{};
    require(kiv_scan(&cards) == KIV_OK, "the scan fails");
    return cards.count;
}

/// Milliseconds.
template <typename Action>
double time_of(Action action) {
    const double start = kivbench::now(kivbench::Clock::Elapsed);
    action();
    return (kivbench::now(kivbench::Clock::Elapsed) - start) / 1e6;
}

void measure_scan(Report& report, unsigned count) {
    std::vector<Call> calls;
    Replay replay;
    Times ours;
    Times floor;
    const int rounds =
        count < 10 ? 60 : 9;  // A scan of a few milliseconds: the system's own pauses are in it.
    for (int round = 0; round < rounds; ++round) {
        calls.clear();
        t_notes = &calls;
        const double took = time_of([&] { require(scan() == count, "cards are missing"); });
        t_notes = nullptr;
        kiv_close();
        const double replayed = time_of([&] { replay.run(calls); });
        if (round < 2) continue;  // Each closes what the one before has opened.
        ours.add(took);
        floor.add(replayed);
    }
    report.add({"scan of " + std::to_string(count) + (count == 1 ? " card" : " cards"),
                "ms",
                ours.median(),
                floor.median(),
                "its round trips, made bare",
                {{1.15, 0}}});
}

/// What the cards of the second simulator add to a process that has scanned one card.
void measure_usage(Report& report, const kivbench::SimulatorProcess& one,
                   const kivbench::SimulatorProcess& most, unsigned count) {
    one.choose();
    scan();
    kiv_close();
    const kivbench::Usage before = kivbench::usage();
    most.choose();
    scan();
    const kivbench::Usage after = kivbench::usage();
    kiv_close();
    report.add(
        {"memory of a card, of " + std::to_string(count), "KiB", (after.memory - before.memory) / count});
    report.add({"threads of all of them", "", after.threads - before.threads, {}, {}, {{0, 5}}});
}

/// Calls `work` for each card from eight threads; milliseconds.
template <typename Action>
double on_eight_threads(unsigned cards, Action work) {
    return time_of([&] {
        std::atomic<unsigned> next{1};
        std::vector<std::thread> threads(8);
        for (std::thread& thread : threads)
            thread = std::thread([&] {
                for (unsigned card = next++; card <= cards; card = next++)
                    work(static_cast<uint8_t>(card));
            });
        for (std::thread& thread : threads)
            thread.join();
    });
}

void measure_queries(Report& report, unsigned count) {
    require(scan() == count, "cards are missing");
    std::vector<std::vector<Call>> calls(count + 1);
    for (unsigned card = 1; card <= count; ++card) {
        t_notes = &calls[card];
        query(static_cast<uint8_t>(card));
    }
    t_notes = nullptr;
    Times ours;
    Times floor;
    for (int round = 0; round < 7; ++round) {
        ours.add(on_eight_threads(count, query));
        floor.add(on_eight_threads(count, [&](uint8_t card) { Replay().run(calls[card]); }));
    }
    kiv_close();
    report.add({"all queries of " + std::to_string(count) + " cards, 8 threads",
                "ms",
                ours.median(),
                floor.median(),
                "their round trips, made bare",
                {{1.15, 0}}});
}

/// On one core: where the system lets client and server run changes a round trip by more than all that the
/// library does.
void measure_scans(Report& report) {
    const auto one_core = kivbench::stay_on_one_core();
    const kivbench::SimulatorProcess one(1), some(8), more(64), most(250);
    measure_usage(report, one, most, 250);
    one.choose();
    measure_scan(report, 1);
    some.choose();
    measure_scan(report, 8);
    more.choose();
    measure_scan(report, 64);
    most.choose();
    measure_scan(report, 250);
}

void measure_all(Report& report) {
    curl_global_init(CURL_GLOBAL_ALL);
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur =
        descriptors.rlim_max;  // Two connections a card, for the library and for the replay.
    setrlimit(RLIMIT_NOFILE, &descriptors);
    report.about("scan");
    measure_scans(report);
    const kivbench::SimulatorProcess all(250);
    all.choose();
    measure_queries(report, 250);
}

}  // namespace

int main(int argc, char** argv) {
    return kivbench::run(argc, argv, measure_all);
}
