// What a long life leaves behind: eight threads that call, on a machine where everything fails at some time.
// After each round all is well again, and counts and figures must be as before. KIV_SOAK_MINUTES says how
// long, KIV_SOAK_SEED which life.
#include <gtest/gtest.h>

#include <cmath>
#include <iomanip>
#include <iostream>
#include <thread>

#include "soak/Calls.h"
#include "soak/Machine.h"
#include "soak/Samples.h"
#include "support/ThisProcess.h"
#include "support/Waiting.h"

/// Asked by the leak checker at exit. In a forked child it would take for leaks what only the stacks of
/// threads point at that are not there.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() {
    static const pid_t checked = getpid();
    return getpid() != checked;
}

namespace {

unsigned from_environment(const char* name, unsigned otherwise) {
    const char* const value = std::getenv(name);
    return value != nullptr ? static_cast<unsigned>(std::strtoul(value, nullptr, 10)) : otherwise;
}

/// What the process holds after each round.
struct Figure {
    const char* name;
    double (*now)();
    double most_slope;  ///< A minute.
    Samples samples{};
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double kMostResident = 2048;  // They keep freed memory back, and records of what happened.
#else
constexpr double kMostResident = 128;
#endif
Figure g_figures[] = {
    {"descriptors", [] { return double(open_descriptors()); }, 0.01},
    {"threads", [] { return double(running_threads()); }, 0.01},
    {"KiB resident", [] { return double(resident_kib()); }, kMostResident},
    {"KiB allocated", [] { return double(allocated_bytes()) / 1024; }, 16},
};

/// Everything is well: each query works, and one change of a link is one call for each registration.
void check_calm(Machine& machine) {
    kiv_scan_t scan{};
    ASSERT_EQ(kiv_scan(&scan), KIV_OK);
    ASSERT_EQ(scan.count, kCards);
    Random random(0);
    for (const Call* call : calls())
        for (uint8_t id = 1; call->query && id <= kCards; ++id)
            EXPECT_EQ(call->make(id, random), KIV_OK) << call->name << " of card " << unsigned{id};
    static std::atomic<long> events;
    events = 0;
    const kiv_event_callback_t count = [](auto...) { ++events; };
    for (int twice = 0; twice < 2; ++twice)
        EXPECT_EQ(kiv_register_callback_func(3, count, nullptr), KIV_OK);
    EXPECT_EQ(kiv_enable_event(3, KIV_EVENT_LINK), KIV_OK);
    EXPECT_TRUE(wait_until([] { return events == 2; }));
    machine.set_links(3, false);
    EXPECT_TRUE(wait_until([] { return events == 4; }));
    EXPECT_EQ(kiv_unregister_callback_func(3), KIV_OK);
    machine.set_links(3, true);
    EXPECT_EQ(kiv_close(), KIV_OK);
    EXPECT_EQ(events, 4);
    forget_registrations();
}

void sample(double minutes) {
    for (Figure& figure : g_figures) {
        // The last connections and threads of a round end a moment later.
        if (minutes > 0 && figure.most_slope < 1)
            wait_until([&] { return figure.now() <= figure.samples.first(); }, std::chrono::seconds(5));
        figure.samples.add(minutes, figure.now());
    }
}

void live(Machine& machine, std::chrono::milliseconds length, unsigned seed) {
    kiv_scan_t scan{};
    kiv_scan(&scan);
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    const auto start = [&](auto body) {
        threads.emplace_back(
            [&done, body, random = Random(seed + static_cast<unsigned>(threads.size()))]() mutable {
                while (!done)
                    body(random);
            });
    };
    for (int caller = 0; caller < 7; ++caller)
        start([all = calls()](Random& random) { make_one(all, random); });
    start([all = life_cycle()](Random& random) {
        make_one(all, random);
        kiv_net_status_t status{};  // Cards that answer are left alone for a while.
        if (kiv_get_net_status(1, &status) == KIV_OK)
            std::this_thread::sleep_for(std::chrono::milliseconds(below(4000, random)));
    });
    for (unsigned process = 0; process < 2; ++process)
        start([&machine, process](Random& random) { machine.trouble_a_process(process, random); });
    start([&machine](Random& random) { machine.trouble_a_card(random); });
    start([&machine](Random& random) { machine.end_a_child(random); });
    std::this_thread::sleep_for(length);
    done = true;
    for (std::thread& thread : threads)
        thread.join();
}

void print_table(const Machine& machine) {
    long made = 0;
    for (const auto& list : {calls(), life_cycle()}) {
        for (const Call* call : list) {
            std::cout << std::left << std::setw(24) << call->name << call->made << ", good " << call->good
                      << '\n';
            made += call->made;
        }
    }
    std::cout << std::setw(24) << "calls in all" << made << "\n"
              << std::setw(24) << "events" << g_events << "\n"
              << std::setw(24) << "interrupt messages" << g_messages << "\n\n";
    for (const auto& [kind, count] : machine.troubles())
        std::cout << std::setw(24) << kind << count << '\n';
    std::cout << '\n';
    for (const Figure& figure : g_figures)
        std::cout << std::setw(24) << figure.name << figure.samples.first() << " to " << figure.samples.last()
                  << ", " << figure.samples.slope() << " a minute\n";
}

}  // namespace

TEST(Soak, LeavesEverythingAsItWas) {
    __lsan_is_turned_off();  // Remembers this process.
    const char* const options =
        std::getenv("TSAN_OPTIONS");  // For children, which exit beside their threads.
    setenv("TSAN_OPTIONS",
           (std::string(options != nullptr ? options : "") + ":report_thread_leaks=0").c_str(), 1);
    const unsigned minutes = from_environment("KIV_SOAK_MINUTES", 0);
    unsigned seed = from_environment("KIV_SOAK_SEED", std::random_device()());
    std::cout << "KIV_SOAK_SEED=" << seed << std::endl;
    Machine machine;
    const Stopwatch watch;
    const auto lived = [&] { return std::chrono::duration<double, std::ratio<60>>(watch.elapsed()).count(); };
    int rounds = 0;
    do {
        live(machine, std::chrono::seconds(15), seed += 100);
        machine.recover();
        check_calm(machine);
        sample(rounds++ == 0 ? 0 : lived());
    } while (!testing::Test::HasFailure() && (lived() < minutes || rounds < 3));
    print_table(machine);
    for (const Figure& figure : g_figures) {
        const bool counted = figure.most_slope < 1;
        EXPECT_TRUE(!counted || figure.samples.last() <= figure.samples.first()) << figure.name;
        // Fewer rounds tell no slope.
        EXPECT_TRUE(rounds < 20 || figure.samples.slope() <= figure.most_slope) << figure.name;
    }
}
