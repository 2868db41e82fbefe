// kivctl: looks at the media-network cards of this machine, and changes their settings.
#include <algorithm>
#include <cstdlib>
#include <exception>
#include <optional>

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
        std::optional<Failure> failure;
        try {
            const int status =
                run(kivctl::parse({argv + std::min(argc, 1), argv + argc}, request), request, output);
            kivctl::claim_end();
            kivctl::end_process(status);
        } catch (const kivctl::HelpWanted& help) {
            output.print(help.text);
            kivctl::end_process(kivctl::kDone);
        } catch (const Failure& thrown) {
            failure = thrown;
        } catch (const std::exception& error) {
            failure = Failure(kivctl::Layer::Program, "UNEXPECTED", error.what(),
                              "this is a defect of the program: what it did before is not known");
        }
        kivctl::claim_end();
        output.print_failure(*failure, request.json);
        kivctl::end_process(failure->exit);
    } catch (const std::exception& error) {
        Output::note(error.what());
        return kivctl::kFailed;
    }
}
