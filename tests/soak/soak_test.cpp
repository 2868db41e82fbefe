// What a long life leaves behind: eight threads that call, on a machine where everything fails at some time.
// After each round all is well again, and counts and figures must be as before. KIV_SOAK_MINUTES says how
// long, KIV_SOAK_SEED which life.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <iomanip>
#include <iostream>

#include "soak/Calls.h"
#include "soak/Machine.h"
#include "soak/Samples.h"
#include "support/ConfigurationFile.h"
#include "support/TemporaryDirectory.h"
#include "support/Test.h"
#include "support/ThisProcess.h"

/// These stand before the system's: here the card configuration is a file of the test's own. On a Mac the
/// library does not see this, and reads the machine's, which is not written.
static std::string g_configuration;
static FILE* open_file(const char* path, const char* mode) {
    static const auto real = reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"));
    if (std::strncmp(path, "/Library/", 9) != 0) return real(path, mode);
    g_own_configuration = true;
    return real(g_configuration.c_str(), mode);
}
extern "C" __attribute__((visibility("default"))) FILE* fopen(const char* path, const char* mode) {
    return open_file(path, mode);
}
extern "C" __attribute__((visibility("default"))) FILE* fopen64(const char* path, const char* mode) {
    return open_file(path, mode);
}

/// Asked by the leak checker at exit. In a forked child it would take for leaks what only the stacks of
/// threads point at that are not there.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off() {
    static const pid_t checked = getpid();
    return getpid() != checked;
}

namespace {

std::string from_environment(const char* name, const std::string& otherwise) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : otherwise;
}

/// What the process holds after each round.
struct Figure {
    const char* name;
    double (*now)();
    double most_slope;  ///< A minute.
    Samples samples{};
    bool is_counted() const { return most_slope < 1; }
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
    {"KiB allocated", [] { return double(allocated_bytes()) / 1024 - 0.35 * double(g_ports); }, 4},
};

/// Everything is well: each query works, and one change of a link is one call for each registration.
void check_calm(Machine& machine) {
    kiv_scan_t scan{};
    ASSERT_EQ(kiv_scan(&scan), KIV_OK);
    ASSERT_EQ(scan.count, kCards);
    Random random(0);
    for (const Call& call : g_calls)
        for (uint8_t id = 1; call.kind == kQuery && id <= kCards; ++id)
            EXPECT_EQ(call.make(id, random), KIV_OK) << call.name << " of card " << +id;
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
    g_registrations.clear();  // The close has ended them, and nobody calls now.
}

void sample(double minutes) {
    for (Figure& figure : g_figures) {
        // The last connections and threads of a round end a moment later.
        if (minutes > 0 && figure.is_counted())
            wait_until([&] { return figure.now() <= figure.samples.first(); }, std::chrono::seconds(5));
        figure.samples.add(minutes, figure.now());
    }
}

void live(Machine& machine, std::chrono::milliseconds length, unsigned seed) {
    kiv_scan_t scan{};
    kiv_scan(&scan);
    std::vector<std::function<void(Random&)>> bodies(7, [](Random& random) { make_one(false, random); });
    bodies.emplace_back([](Random& random) {
        make_one(true, random);
        kiv_net_status_t status{};  // Cards that answer are left alone for a while.
        if (kiv_get_net_status(1, &status) == KIV_OK) pause_ms(below(4000, random));
    });
    for (const bool driver : {true, false})
        bodies.emplace_back([&, driver](Random& random) { machine.trouble_a_process(driver, random); });
    bodies.emplace_back([&](Random& random) { machine.trouble_a_card(random); });
    bodies.emplace_back([&](Random& random) { machine.end_a_child(random); });
    std::atomic<bool> done{false};
    const Threads threads(static_cast<int>(bodies.size()), [&](int i) {
        Random random(seed + static_cast<unsigned>(i));
        while (!done)
            bodies[static_cast<std::size_t>(i)](random);
    });
    std::this_thread::sleep_for(length);
    done = true;
}

void print_table() {
    long made = 0, good = 0;
    std::cout << std::left;
    for (const Call& call : g_calls) {
        std::cout << std::setw(24) << call.name << call.made << ", good " << call.good << '\n';
        made += call.made;
        good += call.good;
    }
    std::cout << std::setw(24) << "calls in all" << made << ", good " << good << "\n\n";
    for (const auto& [kind, number] : g_counts)
        std::cout << std::setw(24) << kind << number << '\n';
    std::cout << '\n';
    for (const Figure& figure : g_figures)
        std::cout << std::setw(24) << figure.name << figure.samples.first() << " to " << figure.samples.last()
                  << ", " << figure.samples.slope() << " a minute\n";
}

}  // namespace

TEST(Soak, LeavesEverythingAsItWas) {
    __lsan_is_turned_off();  // Remembers this process.
    // For children, which exit beside their threads.
    setenv("TSAN_OPTIONS", (from_environment("TSAN_OPTIONS", "") + ":report_thread_leaks=0").c_str(), 1);
    const double minutes = std::stod(from_environment("KIV_SOAK_MINUTES", "0"));
    auto seed = static_cast<unsigned>(
        std::stoul(from_environment("KIV_SOAK_SEED", std::to_string(std::random_device()()))));
    std::cout << "KIV_SOAK_SEED=" << seed << std::endl;
    const TemporaryDirectory directory;
    g_configuration = directory / "configuration";
    write_file(g_configuration, ConfigurationFile::sample());
    Machine machine(KIVSIM_PROGRAM, EXIT_IN_CALLS_PROGRAM);
    const Stopwatch watch;
    const auto lived = [&] { return std::chrono::duration<double, std::ratio<60>>(watch.elapsed()).count(); };
    int rounds = 0;
    do {
        live(machine, std::chrono::seconds(15), seed += 100);
        machine.recover();
        check_calm(machine);
        sample(rounds++ == 0 ? 0 : lived());
    } while (!testing::Test::HasFailure() && (lived() < minutes || rounds < 3));
    print_table();
    for (const Call& call : g_calls)
        EXPECT_TRUE(rounds < 20 || call.good > 0 || !call.codes.contains(KIV_OK)) << call.name;
    for (const Figure& figure : g_figures) {
        EXPECT_TRUE(!figure.is_counted() || figure.samples.last() <= figure.samples.first()) << figure.name;
        // Fewer rounds tell no slope.
        EXPECT_TRUE(rounds < 20 || figure.samples.slope() <= figure.most_slope) << figure.name;
    }
}
