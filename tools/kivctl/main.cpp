// kivctl: looks at the media-network cards of this machine, and changes their settings.
#include <algorithm>
#include <cstdlib>
#include <exception>

#include "cards.h"
#include "command_line.h"
#include "guard.h"
#include "host.h"

namespace {

using kivctl::Command;
using kivctl::Failure;
using kivctl::Output;
using kivctl::Request;

/// The library writes its log there before it is asked for anything.
void show_log() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the guard's thread, the only other one, reads no environment.
    setenv("OS_ACTIVITY_DT_MODE", "1", 1);
}

int run(const Command& command, const Request& request, Output& output) {
    const int limit = request.timeout ? static_cast<int>(*request.timeout) : command.timeout;
    kivctl::Guard guard(output, request.json, limit);
    if (request.simulation) {
        guard.end_on_signals(
            Failure(kivctl::Layer::Argument, "INTERRUPTED", "interrupted").ends_with(kivctl::kInterrupted));
        kivctl::start_simulation(*request.simulation);
    }
    if (request.verbose) show_log();
    kivctl::open_library(limit);
    return command.run(request, output);
}

}  // namespace

int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape): out of memory, it ends.
    Request request;
    try {
        Output output;
        try {
            kivctl::end_process(
                run(kivctl::parse({argv + std::min(argc, 1), argv + argc}, request), request, output));
        } catch (const kivctl::HelpWanted& help) {
            output.print(help.text);
            kivctl::end_process(kivctl::kDone);
        } catch (const Failure& failure) {
            output.print_failure(failure, request.json);
            kivctl::end_process(failure.exit);
        } catch (const std::exception& error) {
            output.print_failure(Failure(kivctl::Layer::Card, "UNEXPECTED", error.what()), request.json);
            kivctl::end_process(kivctl::kFailed);
        }
    } catch (const std::exception& error) {
        Output::note(error.what());
        return kivctl::kFailed;
    }
}
