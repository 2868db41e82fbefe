// kivctl: looks at the media-network cards of this machine.
#include <CLI/CLI.hpp>

#include "commands.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

/// kiv_open throws for a configuration file that cannot be used.
void open_library() {
    const kiv_log_config_t log{KIV_LOG_LEVEL_INFO};
    try {
        kivctl::check(kiv_open(&log), "open");
    } catch (const std::runtime_error& error) {
        throw kivctl::Failure(std::string(error.what()) +
                              "\n        see examples/hps_boot.json for a card configuration");
    }
}

void run(const kivctl::Command& command, const kivctl::Request& request) {
    kivctl::Output output;
    open_library();
    command.run(request, output);
    kiv_close();
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app(
        "Looks at the media-network cards of this machine. Results go to standard output, messages to "
        "standard error.",
        "kivctl");
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 done, 1 the operation failed, 2 wrong usage.\n"
        "OS_ACTIVITY_DT_MODE=1 in the environment shows the library's log on standard error.");

    kivctl::Request request;
    const kivctl::Command* chosen = nullptr;
    for (const kivctl::Command& command : kivctl::commands()) {
        CLI::App* const sub = app.add_subcommand(command.name, command.help);
        sub->add_flag("--json", request.json, "Print JSON");
        if (command.takes_id) sub->add_option("ID", request.id, "Card, as listed by scan")->required();
        sub->callback([&chosen, &command] { chosen = &command; });
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    try {
        run(*chosen, request);
    } catch (const std::exception& error) {
        kivctl::Output::note(error.what());
        return kFailed;
    }
    return kDone;
}
