// Completion scripts for shells, made from the rows of the commands.
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

#include "commands.h"

namespace kivctl {

namespace {

/// What may stand behind a command, beside the options of every command.
struct Shown {
    std::string path;  ///< Such as "kivctl ptp set".
    std::vector<const Command*> words = {};
    std::vector<Option> operands = {};
    std::vector<Option> options = {};
};

struct Table {
    std::vector<Option> common;
    std::vector<Shown> commands;  ///< First the program itself.
};

std::vector<std::string> split(const std::string& text, char at) {
    std::vector<std::string> parts(1);
    for (const char letter : text)
        letter == at ? parts.emplace_back() : parts.back() += letter;
    return parts;
}

/// The words among what an option takes, as "on" and "off"; not the placeholders, as "N" or "0..255".
std::vector<std::string> words_of(const Option& option) {
    std::vector<std::string> words = split(option.type, '|');
    std::erase_if(words, [](const std::string& word) {
        return word.empty() || !std::all_of(word.begin(), word.end(), [](unsigned char letter) {
                   return std::islower(letter) != 0 || std::isdigit(letter) != 0;
               });
    });
    return words;
}

bool takes_file(const Option& option) {
    return option.name == "FILE" || option.type.find("FILE") != std::string::npos;
}

/// Whether the next word belongs to the option whatever it is.
bool takes_word(const Option& option) {
    return !option.type.empty() && !option.type.starts_with('[');
}

std::vector<const Command*> words_of_group(const std::string& group) {
    std::vector<const Command*> words;
    for (const Command& command : commands()) {
        if (group == (command.group == nullptr ? "" : command.group)) words.push_back(&command);
    }
    return words;
}

Table make_table() {
    Request unused;
    Table table{{{"-h,--help", "Show the help", ""}}, {{"kivctl", words_of_group("")}}};
    table.commands[0].options.push_back({"--version", "Show the versions", ""});
    for (const Option& option : common_options(unused).options) {
        // One whose word may be left out stands before the command.
        const bool before = !option.type.empty() && !takes_word(option);
        (before ? table.commands[0].options : table.common).push_back(option);
    }
    for (const Command& command : commands()) {
        const bool grouped = command.group != nullptr;
        Shown shown{
            fmt::format("kivctl {}{}{}", grouped ? command.group : "", grouped ? " " : "", command.name)};
        if (!grouped) shown.words = words_of_group(command.name);
        if (command.card != Takes::NoCard) shown.operands.push_back({"ID", "", " "});
        if (command.options != nullptr) {
            for (const Option& option : command.options(unused).options)
                (option.name.starts_with('-') ? shown.options : shown.operands).push_back(option);
        }
        table.commands.push_back(std::move(shown));
    }
    return table;
}

/// The options of the whole table, each once.
std::vector<Option> options_of(const Table& table) {
    std::vector<Option> options = table.common;
    for (const Shown& shown : table.commands)
        options.insert(options.end(), shown.options.begin(), shown.options.end());
    const auto by_name = [](const Option& a, const Option& b) { return a.name < b.name; };
    const auto same_name = [](const Option& a, const Option& b) { return a.name == b.name; };
    std::stable_sort(options.begin(), options.end(), by_name);
    options.erase(std::unique(options.begin(), options.end(), same_name), options.end());
    return options;
}

std::string names_of(const std::vector<Option>& options, const char* separator) {
    std::vector<std::string> names;
    for (const Option& option : options) {
        for (std::string& name : split(option.name, ','))
            names.push_back(std::move(name));
    }
    return fmt::format("{}", fmt::join(names, separator));
}

/// Patterns of "case" for the words before the one to complete: options that take the next word, and commands
/// with what stands before them.
std::string options_with_word(const Table& table) {
    std::vector<Option> options = options_of(table);
    std::erase_if(options, [](const Option& option) { return !takes_word(option); });
    return names_of(options, "|");
}

std::string commands_with_path(const Table& table) {
    std::string patterns;
    for (const Shown& shown : table.commands) {
        if (shown.path != "kivctl") patterns += (patterns.empty() ? "'" : "|'") + shown.path + "'";
    }
    return patterns;
}

// ---- bash ----

/// A row for what stands behind `place`, an option or a command.
std::string bash_row(const std::string& place, const Option& option) {
    const std::string words = fmt::format("{}", fmt::join(words_of(option), " "));
    if (takes_file(option)) return fmt::format("        {}) files=yes ;;\n", place);
    return words.empty() ? "" : fmt::format("        {}) words='{}' ;;\n", place, words);
}

/// By command, a space and the number of its operands so far.
std::string bash_operands(const Table& table) {
    std::string rows;
    for (const Shown& shown : table.commands) {
        std::vector<std::string> names;
        for (const Command* word : shown.words)
            names.emplace_back(word->name);
        if (!names.empty())
            rows += fmt::format("        '{} {}) words='{}' ;;\n", shown.path,
                                shown.operands.empty() ? "'[0-9]" : "0'", fmt::join(names, " "));
        for (std::size_t i = 0; i < shown.operands.size(); ++i)
            rows += bash_row(fmt::format("'{} {}'", shown.path, i), shown.operands[i]);
    }
    return rows;
}

std::string bash_options(const Table& table) {
    std::string rows;
    for (const Shown& shown : table.commands) {
        if (!shown.options.empty())
            rows +=
                fmt::format("        '{}') options+=' {}' ;;\n", shown.path, names_of(shown.options, " "));
    }
    return rows;
}

std::string bash_values(const Table& table) {
    std::string rows;
    for (const Option& option : options_of(table))
        rows += bash_row(names_of({option}, "|"), option);
    return rows;
}

std::string bash_script(const Table& table) {
    return fmt::format(
        R"(# Completion of kivctl for bash, made by "kivctl completion bash".
_kivctl() {{
    local current=${{COMP_WORDS[COMP_CWORD]}} before=${{COMP_WORDS[COMP_CWORD - 1]}}
    local command=kivctl operands=0 words='' options='{}' files='' i word
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${{COMP_WORDS[i]}} in
        {}) ((++i)); continue ;;
        -*) continue ;;
        esac
        case "$command ${{COMP_WORDS[i]}}" in
        {})
            command="$command ${{COMP_WORDS[i]}}" operands=0 ;;
        *) ((++operands)) ;;
        esac
    done
    case $command in
{}    esac
    case "$command $operands" in
{}    esac
    case $before in
        {}) words='' options='' files='' ;;
    esac
    case $before in
{}    esac
    [[ -n $files && $current != -* ]] && options=''
    COMPREPLY=()
    while IFS= read -r word; do
        [[ -n $word ]] && COMPREPLY+=("$word")
    done < <(compgen -W "$words $options" -- "$current"; [[ -n $files ]] && compgen -f -- "$current")
    # An older bash has no compopt: there a name with a space stands unquoted.
    [[ -n $files ]] && compopt -o filenames 2>/dev/null
    return 0
}}
complete -F _kivctl kivctl
)",
        names_of(table.common, " "), options_with_word(table), commands_with_path(table), bash_options(table),
        bash_operands(table), options_with_word(table), bash_values(table));
}

// ---- zsh ----

/// In single quotes, with what _arguments and _describe take for their own escaped.
std::string zsh_text(const std::string& text) {
    std::string escaped;
    for (const char letter : text) {
        if (letter == '\'') {
            escaped += "'\\''";
            continue;
        }
        if (std::string_view("[]:\\").find(letter) != std::string_view::npos) escaped += '\\';
        escaped += letter;
    }
    return escaped;
}

/// What completes an operand, or the word of an option: behind the message's colon.
std::string zsh_action(const Option& option) {
    if (takes_file(option)) return "_files";
    const std::vector<std::string> words = words_of(option);
    return words.empty() ? " " : fmt::format("({})", fmt::join(words, " "));
}

std::string zsh_option(const Option& option) {
    std::string value;
    if (!option.type.empty())
        value =
            fmt::format("{}:{}:{}", takes_word(option) ? "" : ":", zsh_text(option.type), zsh_action(option));
    const std::string help = fmt::format("'[{}]{}'", zsh_text(option.help), value);
    if (option.name.find(',') == std::string::npos) return option.name + help;
    return fmt::format("'({})'{{{}}}{}", names_of({option}, " "), option.name, help);
}

std::string zsh_options(const std::vector<Option>& options) {
    std::string arguments;
    for (const Option& option : options)
        arguments += "\n            " + zsh_option(option);
    return arguments;
}

std::string zsh_commands(const Table& table) {
    std::string rows;
    for (const Shown& shown : table.commands) {
        rows += fmt::format("    ('{}')\n        arguments+=({}", shown.path, zsh_options(shown.options));
        std::string names;
        for (const Command* word : shown.words)
            names += fmt::format("\n            '{}:{}'", word->name, zsh_text(word->help));
        // In the place of ID, where there is one.
        if (!names.empty()) rows += "\n            '1:command:{_describe -t commands command names}'";
        for (std::size_t i = names.empty() ? 0 : 1; i < shown.operands.size(); ++i)
            rows += fmt::format("\n            '{}:{}:{}'", i + 1, shown.operands[i].name,
                                zsh_action(shown.operands[i]));
        rows += fmt::format(")\n        names=({}) ;;\n", names);
    }
    return rows;
}

std::string zsh_script(const Table& table) {
    return fmt::format(
        R"(#compdef kivctl
# Completion of kivctl for zsh, made by "kivctl completion zsh".
_kivctl() {{
    local command=kivctl
    local -a names arguments
    local -i i start=1
    for (( i = 2; i < CURRENT; ++i )); do
        case $words[i] in
        ({}) (( ++i )); continue ;;
        esac
        case "$command $words[i]" in
        ({})
            command="$command $words[i]" start=i ;;
        esac
    done
    # Operands count from the command.
    words=("${{(@)words[start,-1]}}")
    (( CURRENT -= start - 1 ))
    arguments=({})
    case $command in
{}    esac
    _arguments $arguments
}}
if [[ $funcstack[1] == _kivctl ]]; then
    _kivctl "$@"
else
    compdef _kivctl kivctl
fi
)",
        options_with_word(table), commands_with_path(table), zsh_options(table.common), zsh_commands(table));
}

}  // namespace

Options completion_options(Request& request) {
    const auto take = [&request](const std::string& text) -> std::string {
        request.word = text;
        return text == "bash" || text == "zsh" ? "" : quoted(text) + " is neither bash nor zsh";
    };
    return {{{"SHELL", "The shell that reads the script", "bash|zsh", take}}};
}

Exit completion(const Request& request, Output& output) {
    const Table table = make_table();
    const std::string script = request.word == "bash" ? bash_script(table) : zsh_script(table);
    if (request.json) {
        Json json = document("completion");
        json["shell"] = request.word;
        json["script"] = script;
        output.print_json(json);
    } else {
        output.print(script);
    }
    return kDone;
}

}  // namespace kivctl
