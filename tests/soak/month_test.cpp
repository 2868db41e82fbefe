// A long life in a short time: the whole path of the polls, over a transport that only answers, by a clock
// that passes while nobody runs. KIV_MONTH_DAYS says how long; else it is two hours.
#include <kiv/DeviceManager.h>
#include <kiv/LogManager.h>
#include <kiv/RestApiClient.h>
#include <spdlog/spdlog.h>

#include <fstream>
#include <iostream>

#include "card/CardSettings.h"
#include "kivHpsClientKit/LibcurlOptions.h"
#include "kivHpsClientKit/ThreadManagerClientAlive.h"
#include "kivHpsClientKit/ThreadManagerClientPolling.h"
#include "log/kivLogDispatch.h"
#include "soak/Samples.h"
#include "soak/VirtualTime.h"
#include "support/TemporaryDirectory.h"
#include "support/Test.h"
#include "support/ThisProcess.h"

namespace {

using namespace std::chrono_literals;
using Time = std::chrono::nanoseconds;

const std::string g_sensors = kivsim::believable_card(1).hwmon;

Time since_boot() {
    return std::chrono::steady_clock::now().time_since_epoch();
}

/// What happened since the world began.
struct Counts {
    uint64_t short_polls, requests, link_events, ptp_events, hwmon_events, refreshes, readings;
    Time shortest, longest;  ///< Between two short polls of a card.
    bool operator==(const Counts&) const = default;
};
Counts g_counts;
Time g_begin;

uint64_t hours_passed() {
    return static_cast<uint64_t>((since_boot() - g_begin) / 1h);
}

/// A card's registers. Every hour one link goes up or down; PTP goes through its states.
struct Access : kiv::access::IDeviceAccess {
    using IDeviceAccess::IDeviceAccess;
    int32_t readRegister64(uint8_t, uint64_t, uint64_t& value) override {
        ++g_counts.short_polls;
        const Time now = since_boot();
        g_counts.shortest = std::min(g_counts.shortest, now - last);
        g_counts.longest = std::max(g_counts.longest, now - last);
        last = now;
        value = (hours_passed() % 2) << 6 | uint64_t{0x100} << hours_passed() % 3;
        return 0;
    }
    int32_t open() override { return 0; }
    int32_t close() override { return 0; }
    bool isOpen() const override { return true; }
    int32_t readRegister32(uint8_t, uint64_t, uint32_t&) override { return 0; }
    int32_t writeRegister32(uint8_t, uint64_t, uint32_t) override { return 0; }
    int32_t writeRegister64(uint8_t, uint64_t, uint64_t) override { return 0; }
    int32_t getPtpTai(uint64_t&) override { return 0; }
    int32_t getTxUseResourceData(uint8_t&, uint8_t&, uint8_t&) override { return 0; }
    int32_t getRxUseResourceData(uint8_t&, uint8_t&, uint8_t&) override { return 0; }
    int32_t getTunIP(uint32_t&, uint32_t&) override { return 0; }
    int32_t selected_ptp_card() override { return 0; }
    int32_t getEpochAnd2point(uint64_t&, uint64_t&, uint64_t&) override { return 0; }
    int32_t getLinkStatus(uint8_t&, uint8_t&) override { return 0; }
    Time last = since_boot();
};

struct Factory : kiv::device::IDeviceFactory {
    std::unique_ptr<kiv::access::IDeviceAccess> createDeviceAccess(void*, unsigned function) override {
        return std::make_unique<Access>(function);
    }
    std::unique_ptr<kiv::rest::IRestApiClient> createRestApiClient(const std::string& address) override {
        return std::make_unique<kiv::rest::RestApiClient>(address);
    }
};

struct Enumerator : kiv::device::IDeviceEnumerator {
    explicit Enumerator(int count) {
        for (int i = 0; i < count; ++i)
            cards.push_back({"fake", "", static_cast<uint8_t>(i), {{0, 0, 0}, {0, 0, 1}}, "127.0.0.1:1"});
    }
    std::vector<kiv::device::DeviceInfo> enumerate() override { return cards; }
    void* getDeviceAccessPtr(unsigned, unsigned) override { return nullptr; }
    std::vector<kiv::device::DeviceInfo> cards;
};

void on_event(uint8_t, kiv_event_type_t type, const void*, void*) {
    ++(type == KIV_EVENT_LINK  ? g_counts.link_events
       : type == KIV_EVENT_PTP ? g_counts.ptp_events
                               : g_counts.hwmon_events);
}

bool g_servers_hang = false;
std::size_t (*g_receive)(char*, std::size_t, std::size_t, void*);
void* g_receiver;
std::string g_url;

}  // namespace

CURLcode on_option(SetOption real, CURL* handle, unsigned option, void* value) {
    if (option == CURLOPT_URL) g_url = static_cast<const char*>(value);
    if (option == CURLOPT_WRITEFUNCTION) g_receive = reinterpret_cast<decltype(g_receive)>(value);
    if (option == CURLOPT_WRITEDATA) g_receiver = value;
    return real(handle, option, value);
}

/// The transport: every server is well, and each second hour one of its sensors is at its limit. Or all of
/// them hang.
extern "C" CURLcode curl_easy_perform(CURL*) {
    const auto receive = g_receive;
    void* const receiver = g_receiver;
    ++g_counts.requests;
    if (g_servers_hang) return std::this_thread::sleep_for(2s), CURLE_OPERATION_TIMEDOUT;
    std::string body = g_url.ends_with("networks") ? R"({"interfaces": []})" : g_sensors;
    if (hours_passed() % 2 == 1 && body.find("58") != std::string::npos)
        body.replace(body.find("58"), 2, "95");
    return receive(body.data(), 1, body.size(), receiver) == body.size() ? CURLE_OK : CURLE_WRITE_ERROR;
}

extern "C" CURLcode status_of_answer(CURL*, unsigned, long* status) __asm__("curl_easy_getinfo");
CURLcode status_of_answer(CURL*, unsigned, long* status) {
    *status = 200;
    return CURLE_OK;
}

namespace {

struct Plan {
    Time start, length;  ///< Of the steady clock.
    int cards, watched;  ///< Of the latter all events are wanted.
    bool servers_hang = false;
};

Counts wanted(const Plan& plan) {
    const auto runs = [&](Time period) { return static_cast<uint64_t>(plan.length / period); };
    const auto cards = static_cast<uint64_t>(plan.cards), watched = static_cast<uint64_t>(plan.watched);
    const uint64_t changes = runs(1h) * watched, at_limit = runs(1h) / 2 * 60 * watched;
    const uint64_t refreshes = runs(2050ms) + 1, readings = runs(1min) + 1;
    return {runs(1s) * cards, runs(1min) * watched, changes, changes, at_limit, refreshes, readings, 1s, 1s};
}

void PrintTo(const Counts& counts, std::ostream* out) {
    *out << counts.short_polls << " short polls, " << counts.requests << " requests, " << counts.link_events
         << " link, " << counts.ptp_events << " PTP and " << counts.hwmon_events << " sensor events, "
         << counts.refreshes << " refreshes, " << counts.readings << " readings; a card was polled every "
         << counts.shortest.count() << " to " << counts.longest.count() << " ns";
}

/// What happens in that time. No memory stays from its second half.
Counts live(const Plan& plan) {
    Samples memory;
    VirtualTime time(plan.start);
    g_begin = since_boot();
    g_servers_hang = false;
    kiv::device::DeviceFactoryRegistry registry;
    registry["fake"] = std::make_unique<Factory>();
    kiv::device::DeviceManager manager(registry, std::make_unique<Enumerator>(plan.cards));
    manager.loadDevices();
    for (const auto& card : manager.allDevices()) {
        if (card->info().id >= plan.watched) continue;
        EXPECT_EQ(card->rest()->open(), 0);
        card->addCallback(on_event, nullptr);
        for (const auto event : {KIV_EVENT_LINK, KIV_EVENT_PTP, KIV_EVENT_HWMON})
            card->enableEvent(event);
    }
    g_counts = {};
    g_counts.shortest = Time::max();
    g_servers_hang = plan.servers_hang;

    const auto refresh = [](int32_t) {
        ++g_counts.refreshes;
        std::this_thread::sleep_for(50ms);
    };
    uint64_t seconds = 0;
    const auto read = [&seconds](std::string& text) {
        ++g_counts.readings;
        seconds = static_cast<uint64_t>(since_boot() / 1s);
        text = R"({"timeOfNextJump":)" + std::to_string(seconds) + "}";
        return 0;
    };
    ThreadManagerClientAlive alive(
        1, [](int32_t) {}, refresh);
    ThreadManagerClientPolling polling(
        60, [](std::string& text) { return text = "{}", 0; }, read);
    manager.start();
    alive.start_thread();
    polling.start_thread();
    for (Time passed{}, step{}; passed < plan.length; passed += step) {
        step = std::min<Time>(10min, plan.length - passed);
        time.pass(step);
        memory.add(double(passed / 1min) / 1440, double(allocated_bytes()));
    }
    const Counts counts = g_counts;
    hps_ptp_sm digest;
    EXPECT_EQ(polling.get_hps_ptp_sm(digest), 0);
    EXPECT_EQ(digest.timeOfNextJump, seconds);
    alive.join_thread();
    polling.join_thread();
    manager.stop();
    EXPECT_LT(memory.slope() * double(plan.length / 1min) / 1440 / 2, 8192) << "bytes";
    std::cout << plan.length / 1h << " h: " << testing::PrintToString(counts) << "; memory from "
              << memory.first() << " to " << memory.last() << " bytes, " << memory.slope() << " a day\n";
    return counts;
}

/// The library's log goes to a file of the test's own.
struct Month : testing::Test {
    Month() {
        kiv::log::LogConfig config = kiv::log::loadConfigDefault();
        config.sinks = {"file"};
        config.file_path = file(0);
        kiv::log::LogManager::getInstance().init(config);
        const kiv_log_config_t level{KIV_LOG_LEVEL_INFO};
        kivLog_open(&level, KIV_LOG_SINK_DEFAULT, nullptr, nullptr);
    }
    static std::string file(int number) {
        static const TemporaryDirectory directory;  // One for all tests: there is one log in a process.
        return directory / (number == 0 ? "log.txt" : "log." + std::to_string(number) + ".txt");
    }
};

TEST_F(Month, OfTwoHundredAndFiftyCardsGoesByTheRules) {
    const char* const days = std::getenv("KIV_MONTH_DAYS");
    const Plan plan{3h, days != nullptr ? std::strtol(days, nullptr, 10) * 24h : 2h, 250, 25};
    EXPECT_EQ(live(plan), wanted(plan));
}

/// Where milliseconds or seconds fill 31, 32 or 53 bits, and shortly before the clock's own end.
TEST_F(Month, BeginsAtAnyValueOfTheSteadyClock) {
    constexpr auto kBits31 = 1LL << 31, kBits32 = 1LL << 32;
    const Time edges[] = {0s,           kBits31 * 1ms, kBits32 * 1ms,   Time(1LL << 53),
                          kBits31 * 1s, kBits32 * 1s,  Time::max() - 2h};
    for (const Time edge : edges) {
        const Plan plan{edge < 1h ? edge : edge - 1h, 2h, 2, 2};
        EXPECT_EQ(live(plan), wanted(plan)) << edge.count();
    }
}

/// Workers wait for servers, polls for workers: none is lost, and what waited is forgotten.
TEST_F(Month, OfServersThatHangLosesNoPoll) {
    const Plan plan{3h, 4h + 30s, 8, 8, true};
    const Counts counts = live(plan);
    EXPECT_EQ(counts.short_polls, wanted(plan).short_polls);
    EXPECT_EQ(counts.requests, 3 * wanted(plan).requests) << "three attempts each";
    EXPECT_LT(counts.longest, 20s);
}

TEST_F(Month, OfLogLinesLeavesSixFilesOfTenMebibytesAndLosesNone) {
    const std::string filler(1000, 'x');
    constexpr int kLines = 70'000;
    for (int i = 0; i < kLines; ++i)
        kiv::log_error("month", "{} {}", i, filler);
    spdlog::default_logger()->flush();
    long expected = 0;
    for (int number = 5; number >= 0; --number) {
        EXPECT_LE(std::filesystem::file_size(file(number)), 10u << 20);
        std::ifstream lines(file(number));
        for (std::string line; std::getline(lines, line);) {
            const long i = std::strtol(line.c_str() + line.find("] ", line.find("] ") + 1) + 2, nullptr, 10);
            ASSERT_TRUE(expected == 0 || i == expected) << i << " after " << expected - 1;
            expected = i + 1;
        }
    }
    EXPECT_EQ(expected, kLines);
    EXPECT_FALSE(std::filesystem::exists(file(6)));
}

}  // namespace
