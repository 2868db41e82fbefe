// kivsim: the driver process and the management servers of virtual cards.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>

#include "Simulator.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

void say_ready(const kivsim::Simulator& simulator) {
    const std::vector<std::string> addresses = simulator.server_addresses();
    std::printf("%zu cards, socket %s, servers", addresses.size(), simulator.socket_path().c_str());
    for (const std::string& address : addresses)
        std::printf(" %s", address.c_str());
    std::printf(", control %s\n", simulator.control_address().c_str());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape): out of memory, it ends.
    CLI::App app("Simulates media-network cards and their driver.", "kivsim");
    std::string config;
    std::string socket;
    std::string trace;
    std::string requests;
    app.add_option("--config", config, "Cards to simulate (default: two with believable values)")
        ->type_name("FILE");
    app.add_option("--socket", socket, "Driver socket (default: the one that programs of this user look at)")
        ->type_name("PATH");
    app.add_option("--trace", trace, "Write every driver event to this file, a JSON object a line")
        ->type_name("FILE");
    app.add_option("--requests", requests,
                   "Write every request to a management server to this file, likewise")
        ->type_name("FILE");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }

    // Blocked before any thread starts, so that only the wait below sees them.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    try {
        const kivsim::Simulator simulator(
            config.empty() ? kivsim::default_cards() : kivsim::load_cards(config), socket, trace, requests);
        say_ready(simulator);
        int signal = 0;
        sigwait(&ends, &signal);
    } catch (const kivsim::BadConfig& error) {
        std::fprintf(stderr, "kivsim: %s\n", error.what());
        return kUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kivsim: %s\n", error.what());
        return kFailed;
    }
    return kDone;
}
