// kivsim: the driver process and the management servers of virtual cards.
#include <kivplatform/waker.h>
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Simulator.h"
#include "scenario/Scenario.h"
#include "scenario/Timeline.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct Options {
    std::string config;
    std::string socket;
    std::string trace;
    std::string requests;
    double speed = 0;  ///< 0: the scenario's.
    uint16_t control = 0;
    bool ready_json = false;
    bool with_stdin = false;
};

void add_options(CLI::App& app, Options& options) {
    app.add_option("--config,--scenario", options.config,
                   "Cards to simulate, and what happens to them (default: two with believable values)")
        ->type_name("FILE");
    app.add_option("--speed", options.speed,
                   "How many seconds of the timeline run in one (default: the file's)")
        ->type_name("FACTOR")
        ->check([](const std::string& text) {
            double speed = 0;
            const bool fits = CLI::detail::lexical_cast(text, speed) && speed >= kivsim::kLeastSpeed &&
                              speed <= kivsim::kGreatestSpeed;
            return fits ? "" : "must be from 0.001 to 1000: " + text;
        });
    app.add_option("--socket", options.socket,
                   "Driver socket (default: the one that programs of this user look at)")
        ->type_name("PATH");
    app.add_option("--control", options.control, "Port of the control address (default: a free one)")
        ->type_name("PORT")
        ->check([](const std::string& text) {
            const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
            const bool decimal = digits && (text == "0" || text[0] != '0');
            return decimal && text.size() <= 5 && std::stoul(text) <= 65535 ? "" : "is no port: " + text;
        });
    app.add_option("--trace", options.trace, "Write every driver event to this file, a JSON object a line")
        ->type_name("FILE");
    app.add_option("--requests", options.requests,
                   "Write every request to a management server to this file, likewise")
        ->type_name("FILE");
    app.add_flag("--ready-json", options.ready_json, "Print the line that it is ready as a JSON object");
    app.add_flag("--with-stdin", options.with_stdin, "End when the standard input ends");
}

void say_ready(const kivsim::Simulator& simulator) {
    const std::vector<std::string> addresses = simulator.server_addresses();
    std::printf("%zu cards, socket %s, servers", addresses.size(), simulator.socket_path().c_str());
    for (const std::string& address : addresses)
        std::printf(" %s", address.c_str());
    std::printf(", control %s\n", simulator.control_address().c_str());
}

void say_ready_json(const kivsim::Simulator& simulator, const std::vector<kivsim::CardSettings>& cards) {
    const std::vector<std::string> addresses = simulator.server_addresses();
    kivsim::Json list = kivsim::Json::array();
    for (std::size_t i = 0; i < cards.size(); ++i)
        list.push_back({{"card", cards[i].id}, {"server", addresses[i]}});
    const kivsim::Json ready{{"schema", "kivsim.ready/1"},
                             {"cards", list},
                             {"socket", simulator.socket_path()},
                             {"control", simulator.control_address()}};
    std::printf("%s\n", kivsim::text_of(ready).c_str());
}

/// Woken by a signal. Lives until the process ends: a second signal may come at any time.
const kivplatform::Waker& end_of_process() {
    static const auto* const waker = new kivplatform::Waker;
    return *waker;
}

void end_on_signals() {
    end_of_process();
    struct sigaction action {};
    action.sa_handler = [](int) {
        const int error = errno;
        end_of_process().wake();
        errno = error;
    };
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

/// Waits for a signal, or for the end of the standard input.
void wait_for_end(bool with_stdin) {
    pollfd entries[] = {{end_of_process().descriptor(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    for (;;) {
        if (poll(entries, with_stdin ? 2 : 1, -1) < 0) continue;
        if (entries[0].revents != 0) return;
        char ignored[4096];
        if (read(STDIN_FILENO, ignored, sizeof ignored) <= 0) return;
    }
}

void run(const Options& options) {
    const kivsim::Scenario scenario = options.config.empty() ? kivsim::Scenario{kivsim::default_cards()}
                                                             : kivsim::load_scenario(options.config);
    end_on_signals();  // Not before: reading takes its time, or waits for a pipe, and a signal ends it.
    const kivsim::Simulator simulator(scenario.cards, options.socket, options.trace, options.requests,
                                      options.control);
    options.ready_json ? say_ready_json(simulator, scenario.cards) : say_ready(simulator);
    std::fflush(stdout);
    const auto say = [](const std::string& line) { std::fprintf(stderr, "kivsim: %s\n", line.c_str()); };
    kivsim::Timeline timeline(scenario, simulator.cards(), say);
    const kivsim::TimelineThread running(timeline, options.speed > 0 ? options.speed : scenario.speed, say);
    wait_for_end(options.with_stdin);
}

}  // namespace

int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape): out of memory, it ends.
    CLI::App app("Simulates media-network cards and their driver.", "kivsim");
    Options options;
    add_options(app, options);
    std::string checked;
    CLI::App* const check =
        app.add_subcommand("check", "Read a scenario or a cards file and say what is wrong with it");
    check->add_option("FILE", checked, "Scenario or cards file")->required();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    try {
        if (*check) {
            const kivsim::Scenario scenario = kivsim::load_scenario(checked);
            std::printf("%s: %zu cards", checked.c_str(), scenario.cards.size());
            if (const std::size_t steps = scenario.timeline.size(); steps != 0)
                std::printf(", %zu step%s", steps, steps == 1 ? "" : "s");
            std::printf("\n");
        } else {
            run(options);
        }
    } catch (const kivsim::BadConfig& error) {
        std::fprintf(stderr, "kivsim: %s\n", error.what());
        return kUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kivsim: %s\n", error.what());
        return kFailed;
    }
    return kDone;
}
