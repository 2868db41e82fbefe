#include "output.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string_view>
#include <system_error>

namespace kivctl {

namespace {

/// What a card sends as text need not be text, and may hold codes that a terminal obeys.
std::string dump(const Json& json, int indent) {
    return json.dump(indent, ' ', true, Json::error_handler_t::replace) + "\n";
}

[[noreturn]] void throw_not_written() {
    throw Failure(Layer::Argument, "OUTPUT",
                  "standard output cannot be written: " + std::generic_category().message(errno));
}

/// Writes to a reader who may have stopped reading: pieces that fit into a pipe which has room.
void write_patiently(int file, std::string_view text) noexcept {
    constexpr std::size_t kPiece = 512;
    constexpr int kPatience = 1000;  // Milliseconds.
    while (!text.empty()) {
        pollfd entry{file, POLLOUT, 0};
        if (poll(&entry, 1, kPatience) <= 0) return;
        const ssize_t count = write(file, text.data(), std::min(text.size(), kPiece));
        if (count <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

}  // namespace

Output::Output() {
    // A standard stream that is closed would give its number to the next file that is opened.
    const bool closed = fcntl(STDOUT_FILENO, F_GETFD) < 0;
    for (int number = open("/dev/null", O_RDWR); number >= 0 && number <= STDERR_FILENO;)
        number = dup(number);
    results_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);  // Whoever reads them waits for no child.
    if (closed || results_ < 0) throw Failure(Layer::Argument, "OUTPUT", "standard output is not open");
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

void Output::print(const std::string& text) {
    const std::lock_guard lock(mutex_);
    for (std::size_t written = 0; written < text.size();) {
        const ssize_t count = write(results_, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) throw_not_written();
        written += static_cast<std::size_t>(count);
    }
}

void Output::print_json(const Json& json, int indent) {
    print(dump(json, indent));
}

void Output::print_table(const std::vector<std::vector<std::string>>& rows) {
    std::string text;
    for (const std::string& line : table_lines(rows))
        text += line + "\n";
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
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!json || !lock) return;
    Json object = document("error");
    object.update(failure.json());
    write_patiently(results_, dump(object, -1));  // One line: it may stand below those of watch.
} catch (...) {
    // Without memory the status has to say it.
}

bool Output::is_terminal() const {
    const char* const kind = std::getenv("TERM");
    return isatty(results_) != 0 && kind != nullptr && *kind != '\0' && std::strcmp(kind, "dumb") != 0;
}

TerminalSize Output::terminal_size() const {
    winsize size{};
    if (ioctl(results_, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) return {24, 80};
    return {size.ws_row, size.ws_col};
}

void Output::note(const std::string& text) noexcept try {
    write_patiently(STDERR_FILENO, "kivctl: " + text + "\n");
} catch (...) {
    // Without memory the status has to say it.
}

std::vector<std::string> table_lines(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    std::vector<std::string> lines;
    for (const auto& row : rows) {
        std::string& line = lines.emplace_back();
        for (std::size_t i = 0; i < row.size(); ++i)
            line += fmt::format("{:<{}}  ", row[i], widths[i]);
        line.erase(line.find_last_not_of(' ') + 1);
    }
    return lines;
}

std::string json_line(const Json& json) {
    return dump(json, -1);
}

Json document(const std::string& command) {
    return {{"schema", "kivctl." + command + "/1"}};
}

std::string printable(const std::string& text) {
    constexpr std::size_t kLong = 1000;
    if (text.size() > kLong)
        return printable(text.substr(0, kLong)) + fmt::format("... ({} bytes in all)", text.size());
    // The JSON library's words for it, without the quotation marks: bytes that are no text become U+FFFD.
    const std::string dumped = Json(text).dump(-1, ' ', true, Json::error_handler_t::replace);
    std::string shown;
    for (std::size_t i = 1; i + 1 < dumped.size(); ++i) {
        const bool plain = dumped[i] == '\\' && (dumped[i + 1] == '"' || dumped[i + 1] == '\\');
        shown += dumped[plain ? ++i : i];
    }
    return shown;
}

std::string quoted(const std::string& text) {
    return fmt::format("\"{}\"", printable(text));
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
