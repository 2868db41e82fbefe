// The library and the life of its process: forks, exits, callers who break the rule of one scan at a time.
#include <kiv/kivDext.h>
#include "api/FoundCards.h"
#include "platform/Child.h"
#include "support/Program.h"

/// Asked by the leak checker at exit. In a forked child it would take for leaks what only the stacks of
/// threads point at that are not there.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() {
    static const pid_t checked = getpid();
    return getpid() != checked;
}

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Results = std::vector<kiv_result_t>;

/// Every kind of call, of all layers: driver, server, configuration, events.
Results ask_everything(uint8_t id) {
    const kiv_net_config_t net{};
    const kiv_ptp_config_t ptp{};
    uint8_t selected = 0;
    return {info_of(id),
            ask<kiv_get_card_status, kiv_card_status_t>(id),
            net_of(id),
            ask<kiv_get_net_status, kiv_net_status_t>(id),
            ask<kiv_get_ptp_config, kiv_ptp_config_t>(id),
            ask<kiv_get_ptp_status, kiv_ptp_status_t>(id),
            ask<kiv_get_tx_stream_status, kiv_stream_status_t>(id),
            ask<kiv_get_flash_config, kiv_flash_config_t>(id),
            kiv_set_ptp_config(id, &net, &ptp),
            kiv_enable_event(id, KIV_EVENT_LINK),
            kiv_get_id_selected_ptp_card(&selected)};
}

/// Threads of the application that call `body` until the object goes.
class Callers {
  public:
    template <typename Body>
    Callers(int count, Body body)
        : threads_(count, [this, body](int number) {
              while (!done_)
                  body(number);
          }) {}
    ~Callers() { done_ = true; }

  private:
    std::atomic<bool> done_{false};
    Threads threads_;
};

}  // namespace

TEST(ForkedChild, GetsErrorsAndEndsAtOnceWhileItsParentGoesOn) {
    __lsan_is_turned_off();  // Remembers this process.
    FoundCards cards;
    ASSERT_EQ(kivDext_new(), 0);
    std::atomic<int> wrong{0};
    {
        const Callers callers(4, [&](int) {
            kiv_card_info_t info{};
            if (kiv_get_card_info(1, &info) != KIV_OK || info.reg_10 != 0x5354323131300001) ++wrong;
            uint64_t tai = 0, a = 0, b = 0;
            if (kiv_get_epoch_and_2point(1, &tai, &a, &b) != KIV_OK) ++wrong;
        });
        for (int round = 0; round < 20; ++round) {
            const bool executes = round % 2 == 0;
            const int status = in_child([&]() -> int {
                if (executes) std::exit(execl("/nonexistent/program", "program", nullptr) == -1 ? 127 : 0);
                Results results = ask_everything(1);
                results.insert(results.end(), {scan(), kiv_close(), kiv_open(nullptr), kiv_configure_save(),
                                               kiv_log_print(KIV_LOG_LEVEL_NONE, "not dropped, but refused"),
                                               kiv_log_print(KIV_LOG_LEVEL_NONE, nullptr)});
                const bool refused = results == Results(results.size(), KIV_ERR_NOT_OPENED);
                std::exit(refused && kivDext_new() == 1 && kivDext_get_selected_ptp_card() == 0 ? 42 : 1);
            });
            ASSERT_EQ(status, executes ? 127 : 42) << round;
        }
    }
    EXPECT_EQ(wrong, 0) << "answers of the parent";
}

namespace {

std::atomic<int> g_events{0};
std::atomic<int> g_failed{0};

/// Asks the card for a while: whatever ends the manager must wait for it.
void ask_for_a_while(uint8_t id, kiv_event_type_t, const void*, void*) {
    ++g_events;
    const Stopwatch watch;
    while (watch.elapsed() < milliseconds(300))
        g_failed += info_of(id) != KIV_OK;
    ++g_events;
}

/// Returns in the midst of a callback of ask_for_a_while().
void wait_for_callback() {
    EXPECT_EQ(kiv_register_callback_func(1, ask_for_a_while, nullptr), KIV_OK);
    EXPECT_EQ(kiv_enable_event(1, KIV_EVENT_LINK), KIV_OK);
    EXPECT_TRUE(wait_until([] { return g_events == 1; }));
}

[[noreturn]] void end_with(bool good) {
    std::_Exit(good ? 42 : 1);
}

/// A process that has not looked for cards, and a child of it that does.
[[noreturn]] void fork_then_scan() {
    const bool closed = kiv_close() == KIV_OK && kivDext_get_selected_ptp_card() == 0;
    const int status = in_child([]() -> int {
        RunningSimulator simulator;
        std::exit(scan() == KIV_OK && info_of(1) == KIV_OK ? 42 : 1);
    });
    end_with(closed && status == 42);
}

/// In the midst of a callback. A handler that runs after the library's sees that it has ended.
[[noreturn]] void exit_in_the_midst_of_a_callback() {
    std::atexit([] {
        const Results late = ask_everything(1);
        end_with(g_events == 2 && g_failed == 0 && late == Results(late.size(), KIV_ERR_NOT_OPENED) &&
                 scan() == KIV_ERR_NOT_OPENED && kiv_close() == KIV_OK && kivDext_new() == 1);
    });
    RunningSimulator simulator;
    if (scan() != KIV_OK) end_with(false);
    wait_for_callback();
    std::exit(1);
}

/// On a thread of the library, where the exit handler would wait for its own thread.
[[noreturn]] void exit_on_a_worker() {
    RunningSimulator simulator;
    if (scan() != KIV_OK) end_with(false);
    const kiv_event_callback_t ends = [](auto...) { std::exit(42); };
    kiv_register_callback_func(1, ends, nullptr);
    kiv_enable_event(1, KIV_EVENT_LINK);
    std::this_thread::sleep_for(seconds(20));
    end_with(false);
}

/// A poll waits for a driver process that hangs.
[[noreturn]] void exit_beside_a_hung_poll() {
    // The scan reads five registers, the first poll the sixth.
    RunningSimulator simulator({card_with_fault(1, fault(wire::kReadPci64).nth(6).delay_ms(60000))});
    if (scan() != KIV_OK) end_with(false);
    if (!wait_until([&] { return simulator.calls(wire::kReadPci64).size() == 6; })) end_with(false);
    std::exit(42);
}

/// On a thread that has the turn of scans.
[[noreturn]] void exit_in_a_scan() {
    const kiv_log_config_t config{KIV_LOG_LEVEL_ERROR};
    const kiv_log_callback_t ends = [](auto...) { std::exit(42); };
    kivLog_open(&config, KIV_LOG_SINK_CALLBACK, ends, nullptr);
    RunningSimulator simulator({card_with_fault(1, fault(wire::kInit).status(-1))});
    scan();  // Logs that the card does not open.
    end_with(false);
}

}  // namespace

TEST(RunningCallback, EndsBeforeTheManagerThatItAsks) {
    FoundCards cards;
    for (const auto ends : {+[] { return scan(); }, +[] { return kiv_close(); }}) {
        g_events = 0;
        wait_for_callback();
        EXPECT_EQ(ends(), KIV_OK);
        EXPECT_EQ(g_events, 2) << "it had not ended";
        EXPECT_EQ(g_failed, 0) << "it asked and found no manager";
    }
    EXPECT_EQ(kiv_close(), KIV_OK) << "once more";
}

/// Each in a process of its own, started anew: in a forked child of this one the library refuses its service.
struct Exit : testing::Test {
    Exit() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        // Threads that wait for what hangs, or for the exit itself, are left: no news for the race checker.
        const char* const options = std::getenv("TSAN_OPTIONS");
        setenv("TSAN_OPTIONS",
               (std::string(options != nullptr ? options : "") + ":report_thread_leaks=0").c_str(), 1);
    }
};

TEST_F(Exit, OfAChildThatScannedAloneIsAsAnyOther) {
    EXPECT_EXIT(fork_then_scan(), testing::ExitedWithCode(42), "");
}

TEST_F(Exit, CountsAsACloseAlsoForCallsThatComeTooLate) {
    EXPECT_EXIT(exit_in_the_midst_of_a_callback(), testing::ExitedWithCode(42), "");
}

TEST_F(Exit, NeitherCrashesNorHangsWhileOtherThreadsAreInCalls) {
    RunningSimulator simulator;
    for (int round = 0; round < 5; ++round) {
        const Ended ended = run_program({EXIT_IN_CALLS_PROGRAM});
        EXPECT_EQ(ended.status, 42) << ended.err;
    }
}

TEST_F(Exit, IsNotHeldUpByADriverThatHangs) {
    const Stopwatch watch;
    EXPECT_EXIT(exit_beside_a_hung_poll(), testing::ExitedWithCode(42), "");
    EXPECT_LT(watch.elapsed(), seconds(30));
}

TEST_F(Exit, MayComeInACallback) {
    EXPECT_EXIT(exit_on_a_worker(), testing::ExitedWithCode(42), "");
    EXPECT_EXIT(exit_in_a_scan(), testing::ExitedWithCode(42), "");
}

/// The rule says that scans and closes run alone. Breaking it must not break the library.
TEST(BrokenRule, OfScansBesideCallsIsSurvived) {
    FoundCards cards(kivsim::default_cards());
    std::atomic<int> scans{0};
    {
        const Callers callers(8, [&](int number) {
            if (number > 2) {
                ask_everything(static_cast<uint8_t>(1 + number % 2));
                kiv_register_callback_func(
                    1, [](auto...) {}, nullptr);
                kiv_unregister_callback_func(1);
                return;
            }
            kiv_scan_internal_t record{};
            const kiv_result_t result = number == 0 ? kiv_close() : kiv_scan_internal(&record);
            if (number != 0 && result == KIV_OK) ++scans;
            std::this_thread::sleep_for(milliseconds(number == 0 ? 100 : 1));
        });
        EXPECT_TRUE(wait_until([&] { return scans >= 6; }, seconds(50)));
    }
    EXPECT_EQ(scan(), KIV_OK);
    EXPECT_EQ(info_of(2), KIV_OK);
}
