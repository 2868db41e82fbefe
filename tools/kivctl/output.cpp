#include "output.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <system_error>

namespace kivctl {

namespace {

/// What a card sends as text need not be text, and may hold codes that a terminal obeys.
std::string dump(const Json& json, int indent) {
    return json.dump(indent, ' ', true, Json::error_handler_t::replace) + "\n";
}

[[noreturn]] void throw_not_written() {
    throw Failure(Layer::Argument, "OUTPUT",
                  std::string("standard output cannot be written: ") + std::generic_category().message(errno),
                  "what was asked of the card is done, its result is not all printed");
}

}  // namespace

Output::Output() {
    const int results = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);  // Whoever reads them waits for no child.
    results_.reset(results < 0 ? nullptr : fdopen(results, "w"));
    if (!results_) throw Failure(Layer::Argument, "OUTPUT", "standard output is not open");
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

void Output::print(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), results_.get());
    if (std::fflush(results_.get()) != 0) throw_not_written();
}

void Output::print_json(const Json& json, int indent) {
    print(dump(json, indent));
}

void Output::print_table(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i)
            line += fmt::format("{:<{}}  ", row[i], widths[i]);
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    print(text);
}

void Output::print_table(const std::vector<Name>& columns, const Json& objects) {
    std::vector<std::vector<std::string>> rows(1);
    for (const Name& column : columns)
        rows[0].emplace_back(column.text);
    for (const Json& object : objects) {
        rows.emplace_back();
        for (const Name& column : columns)
            rows.back().push_back(text_of(object.at(column.key)));
    }
    print_table(rows);
}

void Output::print_record(const std::vector<Name>& lines, const Json& object) {
    std::vector<std::vector<std::string>> rows;
    rows.reserve(lines.size());
    for (const Name& line : lines)
        rows.push_back({line.text, text_of(object.at(line.key))});
    print_table(rows);
}

void Output::print_failure(const Failure& failure, bool json) noexcept try {
    note(failure.text());
    if (!json || ftrylockfile(results_.get()) != 0) return;
    Json object = document("error");
    object.update(failure.json());
    const std::string text = dump(object, -1);  // One line: it may stand below those of watch.
    std::fwrite(text.data(), 1, text.size(), results_.get());
    std::fflush(results_.get());
    funlockfile(results_.get());
} catch (...) {
    // Without memory the status has to say it.
}

bool Output::is_terminal() const {
    const char* const kind = std::getenv("TERM");
    return isatty(fileno(results_.get())) != 0 && kind != nullptr && *kind != '\0' &&
           std::strcmp(kind, "dumb") != 0;
}

void Output::note(const std::string& text) noexcept {
    std::fprintf(stderr, "kivctl: %s\n", text.c_str());
}

Json document(const std::string& command) {
    return {{"schema", "kivctl." + command + "/1"}};
}

std::string printable(const std::string& text) {
    // The JSON library's words for it, without the quotation marks: bytes that are no text become U+FFFD.
    const std::string quoted = Json(text).dump(-1, ' ', true, Json::error_handler_t::replace);
    std::string shown = quoted.substr(1, quoted.size() - 2);
    for (const char plain : {'"', '\\', '/'}) {
        const std::string escaped = std::string("\\") + plain;
        for (std::size_t at = 0; (at = shown.find(escaped, at)) != std::string::npos; ++at)
            shown.erase(at, 1);
    }
    return shown;
}

std::string text_of(const Json& value) {
    if (value.is_null()) return "-";
    if (value.is_string()) return printable(value.get<std::string>());
    if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
    if (value.is_number_float()) return fmt::format("{:.2f}", value.get<double>());
    if (value.is_object()) return text_of(value.at("text"));
    if (!value.is_array()) return value.dump();
    std::string text;
    for (const Json& member : value)
        text += (text.empty() ? "" : ", ") + text_of(member);
    return text;
}

}  // namespace kivctl
