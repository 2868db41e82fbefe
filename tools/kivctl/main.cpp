// kivctl: looks at the media-network cards of this machine, and changes their settings.
#include <CLI/CLI.hpp>
#include <map>
#include <type_traits>
#include <variant>

#include "commands.h"

namespace {

using kivctl::Command;
using kivctl::Request;
using kivctl::Takes;

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

/// The open library, until the end of the scope.
class Library {
  public:
    /// kiv_open throws for a configuration file that cannot be used.
    Library() {
        const kiv_log_config_t log{KIV_LOG_LEVEL_INFO};
        try {
            kivctl::check(kiv_open(&log), "open");
        } catch (const std::runtime_error& error) {
            throw kivctl::Failure(std::string(error.what()) +
                                  "\n        see examples/hps_boot.json for a card configuration");
        }
    }
    ~Library() { kiv_close(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

/// The command line, made from the rows of commands().
class CommandLine {
  public:
    explicit CommandLine(Request& request) : request_(request) {
        app_.require_subcommand(1);
        for (const Command& command : kivctl::commands())
            add(command);
        // After the commands, which would take it too.
        app_.footer(
            "\"kivctl COMMAND --help\" tells about one command, \"man kivctl\" about all.\n"
            "Exit status: 0 done, 1 the operation failed, 2 wrong usage.\n"
            "OS_ACTIVITY_DT_MODE=1 in the environment shows the library's log on standard error.");
    }

    /// The command to run. Throws CLI::ParseError.
    const Command& parse(int argc, char** argv) {
        app_.parse(argc, argv);
        const CLI::App* chosen = &app_;
        while (!chosen->get_subcommands().empty())
            chosen = chosen->get_subcommands().front();
        const Entry& entry = entries_.at(chosen);
        request_.has_id = entry.id != nullptr && entry.id->count() > 0;
        if (entry.command->card == Takes::OneCard && !request_.has_id) throw CLI::RequiredError("ID");
        return *entry.command;
    }

    int exit(const CLI::ParseError& error) { return app_.exit(error); }

  private:
    struct Entry {
        const Command* command;
        CLI::Option* id;
    };

    void add(const Command& command) {
        CLI::App* const parent = command.group == nullptr ? &app_ : app_.get_subcommand(command.group);
        CLI::App* const sub = parent->add_subcommand(command.name, command.help);
        Entry entry{&command, nullptr};
        if (command.card != Takes::NoCard)
            entry.id = sub->add_option("ID", request_.id, "Card, as listed by scan")->type_name("");
        if (command.options != nullptr) {
            const kivctl::Options taken = command.options(request_);
            for (const kivctl::Option& option : taken.options)
                add(*sub, option);
            sub->footer(taken.footer);
        }
        if (command.run != nullptr) {
            sub->add_flag("--json", request_.json, "Print JSON");
        } else {
            sub->require_subcommand(1);
        }
        if (command.card == Takes::OneCard) entry.id->required();
        if (command.group != nullptr && entries_.at(parent).id != nullptr) {
            // The card stands behind the last word of the command: "ptp 1", "ptp set 1".
            entries_.at(parent).id->required(false);
            sub->excludes(entries_.at(parent).id);
        }
        entries_.emplace(sub, entry);
    }

    static void add(CLI::App& app, const kivctl::Option& option) {
        const auto add_value = [&](auto* value) {
            if constexpr (std::is_same_v<decltype(value), bool*>) {
                return app.add_flag(option.name, *value, option.help);
            } else {
                return app.add_option(option.name, *value, option.help)
                    ->type_name(option.type)
                    ->required(!option.name.starts_with('-'));
            }
        };
        CLI::Option* const added = std::visit(add_value, option.value);
        if (option.check) added->check(option.check);
        if (option.range) added->check(CLI::Range((*option.range)[0], (*option.range)[1]).description(""));
    }

    Request& request_;
    CLI::App app_{
        "Looks at the media-network cards of this machine and changes their settings.\n"
        "Results go to standard output, messages to standard error.",
        "kivctl"};
    std::map<const CLI::App*, Entry> entries_;
};

}  // namespace

int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape): out of memory, it ends.
    Request request;
    CommandLine line(request);
    const Command* command = nullptr;
    try {
        command = &line.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return line.exit(error) == 0 ? kDone : kUsage;
    }
    try {
        kivctl::Output output;
        const Library library;
        command->run(request, output);
    } catch (const std::exception& error) {
        kivctl::Output::note(error.what());
        return kFailed;
    }
    return kDone;
}
