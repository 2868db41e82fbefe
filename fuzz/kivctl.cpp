// kivctl: command lines, on a card whose server answers what the input says.
//
// Input: texts between lines of two dashes: the words of the command, one a line; the card configuration
// (without this part there is none); answers of the card's server in their order (without them its own).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include <kiv/kiv_api.h>
#include "card/VirtualCard.h"
#include "cards.h"
#include "command_line.h"
#include "configuration.h"
#include "driver/DriverProcess.h"
#include "guard.h"
#include "input.h"
#include "requests.h"
#include "server/endpoints.h"
#include "support/TemporaryDirectory.h"

namespace {

using fuzz::expect;
using kivctl::Failure;
using kivctl::Json;
using kivctl::Request;

const TemporaryDirectory& directory() {
    static const TemporaryDirectory folder;
    return folder;
}

std::string configuration() {
    return directory() / "hps_boot.json";
}

/// The card, its driver process, and what goes to standard output. For the whole process.
struct Machine {
    Machine() {
        expect(kivctl::configuration_path() == configuration(),
               "no input reaches this machine's configuration");
        setenv("KIVSIM_SOCKET", (directory() / "driver.sock").c_str(), 1);
        dup2(results, STDOUT_FILENO);
        output.emplace();
        guard.emplace(*output, false, 0);
    }

    /// What was printed since the last call.
    std::string take_results() {
        const off_t size = lseek(results, 0, SEEK_CUR);
        std::string text(static_cast<std::size_t>(size), '\0');
        expect(pread(results, text.data(), text.size(), 0) == size, "the results can be read");
        expect(ftruncate(results, 0) == 0 && lseek(results, 0, SEEK_SET) == 0,
               "the results can be forgotten");
        return text;
    }

    const int results = open((directory() / "results").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    std::vector<std::shared_ptr<kivsim::VirtualCard>> cards{
        std::make_shared<kivsim::VirtualCard>(kivsim::believable_card(1))};
    kivsim::DriverProcess driver{cards, directory() / "driver.sock", ""};
    std::optional<kivctl::Output> output;
    std::optional<kivctl::Guard> guard;
};

fuzz::Answer own_answer(kivsim::VirtualCard& card, const fuzz::Sent& sent) {
    const std::size_t path = sent.url.find('/', 7);
    const kivsim::Answer answer = answer_request(
        card, {sent.method.empty() ? "GET" : sent.method, sent.url.substr(path), sent.body, {}});
    return {answer.status, answer.body};
}

/// What waits for ever, or starts programs.
bool is_left_out(const kivctl::Command& command) {
    const std::string name = command.name;
    return name == "watch" || name == "serve" || name == "support" || name == "write" || name == "wait";
}

int run(Machine& machine, const std::string& line, Request& request) {
    std::istringstream lines(line);
    std::vector<std::string> words;
    for (std::string word; std::getline(lines, word);)
        words.push_back(word);
    try {
        const kivctl::Command& command = kivctl::parse(words, request);
        if (is_left_out(command)) return 0;
        kivctl::open_library(command.timeout);
        return command.run(request, *machine.output);
    } catch (const kivctl::HelpWanted& help) {
        expect(!help.text.empty(), "there is help");
        request.json = false;
        return 0;
    } catch (const Failure& failure) {
        expect(!failure.message.empty() && !failure.name.empty(), "a failure says what");
        machine.output->print_failure(failure, request.json);
        return failure.exit;
    }
}

/// A program can read it; a terminal obeys nothing of it.
void check_results(const std::string& text, bool json) {
    if (json) return expect(text.empty() || Json::parse(text).contains("schema"), "the result is a document");
    expect(std::none_of(text.begin(), text.end(),
                        [](unsigned char each) { return (each < ' ' && each != '\n') || each == 0x7F; }),
           "results have no control characters");
}

}  // namespace

/// Linked in the place of CardConfig::getPath(): the configuration of this machine stays as it is.
std::string path_in_its_place() __asm__("__wrap__ZN3kiv6config10CardConfig7getPathB5cxx11Ev");
std::string path_in_its_place() {
    return configuration();
}

/// The doctor keeps what it finds until the process ends: a thread of it may hang in a driver for ever. The
/// simulator's thread lives, with its list: once the system gives numbers of threads a second time, the
/// checker of clang 14 may look at the stack of the one that had its number before.
// Not hidden: the leak checker may be a library of its own.
extern "C" [[gnu::visibility("default")]] const char* __lsan_default_suppressions();
const char* __lsan_default_suppressions() {
    return "leak:tools/kivctl/doctor\nleak:kivsim::PollSet::serve_silent_ones";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::be_quiet();
    static Machine& machine = *new Machine;
    const std::vector<std::string> parts = fuzz::parts_of(fuzz::text_of(data, size));
    unlink(configuration().c_str());
    if (parts.size() > 1) write_file(configuration(), parts[1]);
    std::size_t asked = 0;
    fuzz::set_server([&](const fuzz::Sent& sent) -> fuzz::Answer {
        if (parts.size() <= 2) return own_answer(*machine.cards[0], sent);
        return {200, parts[std::min(2 + asked++, parts.size() - 1)]};
    });
    Request request;
    const int status = run(machine, parts[0], request);
    expect(status >= kivctl::kDone && status <= kivctl::kInterrupted, "an exit status is one of six");
    kiv_close();
    check_results(machine.take_results(), request.json);
    return 0;
}
