#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>

namespace kivctl {

namespace {

/// Letters to change, add or remove to make one word of the other.
std::size_t distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j < row.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t changed = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, changed});
        }
    }
    return row.back();
}

bool same_group(const char* a, const char* b) {
    return a == nullptr ? b == nullptr : b != nullptr && std::string_view(a) == b;
}

bool is_command(const char* group, const std::string& word) {
    return std::any_of(commands().begin(), commands().end(), [&](const Command& command) {
        return same_group(command.group, group) && word == command.name;
    });
}

/// Wrong usage, with the command of the group that is nearest to the word.
Failure unknown_word(const char* group, const std::string& word) {
    constexpr std::size_t kFar = 3;
    const Command* nearest = nullptr;
    std::size_t least = kFar;
    for (const Command& command : commands()) {
        if (!same_group(command.group, group)) continue;
        // A beginning is as near as one wrong letter.
        const bool begun = word.size() > 1 && std::string_view(command.name).starts_with(word);
        const std::size_t far = begun ? 1 : distance(word, command.name);
        if (far < least) {
            least = far;
            nearest = &command;
        }
    }
    const std::string before = group == nullptr ? "" : std::string(group) + " ";
    return usage("there is no command \"" + printable(before + word) + "\"",
                 nearest == nullptr ? "" : "did you mean \"kivctl " + before + nearest->name + "\"?");
}

class CommandLine {
  public:
    explicit CommandLine(Request& request) : request_(request) {
        app_.add_flag("--version", version_, "Show versions, as the command of that name");
        for (const Option& option : common_options(request_).options)
            add(app_, option);
        for (const Command& command : commands())
            add(command);
        // After the commands, which would take it too.
        app_.footer(
            "\"kivctl COMMAND --help\" tells about one command, \"man kivctl\" about all.\n"
            "Exit status: 0 done, 1 failed or done in part, 2 wrong usage, 3 needs attention, 4 the time is "
            "up,\n"
            "5 interrupted. \"kivctl explain CODE\" says more.");
    }

    const Command& parse(std::vector<std::string> words) {
        std::reverse(words.begin(), words.end());  // As CLI11 wants them.
        try {
            app_.parse(std::move(words));
        } catch (const CLI::CallForHelp&) {
            throw HelpWanted{app_.help()};
        }
        if (version_) return row("version");
        const CLI::App* chosen = &app_;
        while (!chosen->get_subcommands().empty())
            chosen = chosen->get_subcommands().front();
        if (chosen == &app_) throw usage("a command is missing");
        const Command& command = *commands_.at(chosen);
        if (command.run == nullptr)
            throw usage(std::string("a word is missing behind \"") + command.name + "\"");
        if (command.card == Takes::NamedCard && !request_.card)
            throw usage(std::string("\"") + command.group + " " + command.name +
                            "\" changes a card, or waits for it: say which one",
                        "\"kivctl scan\" lists the cards");
        return command;
    }

  private:
    static const Command& row(const std::string& name) {
        return *std::find_if(commands().begin(), commands().end(),
                             [&](const Command& command) { return name == command.name; });
    }

    void add(const Command& command) {
        CLI::App* const parent = command.group == nullptr ? &app_ : app_.get_subcommand(command.group);
        CLI::App* const sub = parent->add_subcommand(command.name, command.help);
        sub->fallthrough();
        const bool is_group = std::any_of(commands().begin(), commands().end(), [&](const Command& other) {
            return other.group != nullptr && std::string_view(other.group) == command.name;
        });
        if (command.card != Takes::NoCard) {
            const auto take = [this, name = command.name, is_group](const std::string& text) -> std::string {
                const std::optional<int64_t> id = number_of(text, 0, 255);
                if (id && request_.card)
                    throw usage("two cards are named: " + std::to_string(*request_.card) + " and " + text,
                                "one card, behind the last word of the command");
                if (id) {
                    request_.card = static_cast<uint8_t>(*id);
                    return "";
                }
                if (is_group && !text.empty() && std::isalpha(static_cast<unsigned char>(text[0])) != 0)
                    throw unknown_word(name, text);
                if (text.empty()) return "the card's id is empty: a shell variable that is not set?";
                return quoted(text) + " is no card's id: a decimal number from 0 to 255";
            };
            add(*sub, {"ID", "Card, as listed by scan", " ", take})->required(false);
        }
        if (command.options != nullptr) {
            const Options taken = command.options(request_);
            for (const Option& option : taken.options)
                add(*sub, option);
            sub->footer(taken.footer);
        }
        commands_.emplace(sub, &command);
    }

    static CLI::Option* add(CLI::App& app, const Option& option) {
        if (option.flag != nullptr) return app.add_flag(option.name, *option.flag, option.help);
        const auto take = [option](const std::string& text) {
            const std::string refusal = option.take(text);
            if (!refusal.empty()) throw usage(option.name + ": " + refusal);
        };
        return app.add_option_function<std::string>(option.name, take, option.help)
            ->type_name(option.type)
            ->required(!option.name.starts_with('-'));
    }

    Request& request_;
    bool version_ = false;
    CLI::App app_{
        "Looks at the media-network cards of this machine and changes their settings.\n"
        "Results go to standard output, messages to standard error.",
        "kivctl"};
    std::map<const CLI::App*, const Command*> commands_;
};

/// Where the command stands: behind the options, of which "--timeout" takes a word.
std::size_t command_at(const std::vector<std::string>& words) {
    std::size_t at = 0;
    while (at < words.size() && words[at].starts_with('-'))
        at += words[at] == "--timeout" ? 2 : 1;
    return at;
}

/// Takes "--sim", "--sim FILE" or "--sim=FILE" off the options before the command.
void take_simulation(std::vector<std::string>& words, Request& request) {
    constexpr std::string_view kWithFile = "--sim=";
    const auto is_option = [&](const std::string& word) {
        return word == "--sim" || word.starts_with(kWithFile);
    };
    const auto end = words.begin() + static_cast<std::ptrdiff_t>(std::min(command_at(words), words.size()));
    const auto found = std::find_if(words.begin(), end, is_option);
    if (std::any_of(end, words.end(), is_option)) throw usage("--sim stands before the command");
    if (found == end) return;
    auto behind = found + 1;
    request.simulation = found->starts_with(kWithFile) ? found->substr(kWithFile.size()) : "";
    const bool has_file = *found == "--sim" && behind != words.end() && !behind->starts_with('-') &&
                          !is_command(nullptr, *behind);
    if (has_file) request.simulation = *behind++;
    const bool empty = request.simulation->empty() && (has_file || *found != "--sim");
    words.erase(found, behind);
    if (empty) throw usage("--sim: the name of the cards file is empty: a shell variable that is not set?");
    if (has_file && words.empty())
        throw usage("a command is missing behind \"--sim " + printable(*request.simulation) + "\"");
}

}  // namespace

const Command& parse(std::vector<std::string> words, Request& request) {
    // Also when the line cannot be parsed: a program that asks for JSON is to get it.
    request.json = std::find(words.begin(), words.end(), "--json") != words.end();
    take_simulation(words, request);
    const std::size_t at = command_at(words);
    if (at < words.size() && words[at] == "help") {
        words.erase(words.begin() + static_cast<std::ptrdiff_t>(at));
        words.emplace_back("--help");
    } else if (at < words.size()) {
        if (!is_command(nullptr, words[at])) throw unknown_word(nullptr, words[at]);
        const Command& command = *std::find_if(commands().begin(), commands().end(), [&](const Command& row) {
            return row.group == nullptr && words[at] == row.name;
        });
        if (command.run == nullptr && at + 1 < words.size() && !words[at + 1].starts_with('-') &&
            !is_command(command.name, words[at + 1]))
            throw unknown_word(command.name, words[at + 1]);
    }
    try {
        return CommandLine(request).parse(std::move(words));
    } catch (const CLI::ParseError& error) {
        throw usage(printable(error.what()));
    }
}

}  // namespace kivctl
