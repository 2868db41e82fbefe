#include "output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

namespace kivctl {

namespace {

struct Advice {
    kiv_result_t code;
    const char* text;
};

// clang-format off
constexpr Advice kAdvice[] = {
    {KIV_ERR_NOT_OPENED,    "scan the cards first"},
    {KIV_ERR_NO_DEVICE,     "see \"kivctl scan\" for the ids of the cards"},
    {KIV_ERR_BUSY,          "wait until the card's flash is idle"},
    {KIV_ERR_INVALID_PARAM, "flash slots are 0 and 1"},
    {KIV_ERR_NULL_ARGUMENT, "this is a defect of the program"},
    {KIV_ERR_REST,          "the card's management server did not answer, or refused"},
    {KIV_ERR_FAILED,        "see the system log, or run again with OS_ACTIVITY_DT_MODE=1"},
    {KIV_ERR_LOG_BUSY,      "try again"},
};
// clang-format on

}  // namespace

void check(kiv_result_t result, const std::string& operation) {
    if (result == KIV_OK) return;
    const auto known = std::find_if(std::begin(kAdvice), std::end(kAdvice),
                                    [&](const Advice& advice) { return advice.code == result; });
    const bool found = known != std::end(kAdvice);
    throw Failure(fmt::format("{} failed: 0x{:08X} {}: {}", operation, result,
                              found ? kiv_result_name(result) : "(driver status)",
                              found ? known->text : "see whether the driver is running"));
}

Output::Output() {
    const int results = dup(STDOUT_FILENO);
    results_.reset(results < 0 ? nullptr : fdopen(results, "w"));
    if (!results_) throw Failure("standard output is not open");
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

void Output::print(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), results_.get());
    if (std::fflush(results_.get()) != 0) throw Failure("standard output cannot be written");
}

void Output::print_json(const Json& json, int indent) {
    // What a card sends as text need not be text.
    print(json.dump(indent, ' ', false, Json::error_handler_t::replace) + "\n");
}

void Output::print_table(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i)
            line += fmt::format("{:<{}}  ", row[i], widths[i]);
        line.erase(line.find_last_not_of(' ') + 1);
        print(line + "\n");
    }
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

bool Output::is_terminal() const {
    return isatty(fileno(results_.get())) != 0;
}

void Output::note(const std::string& text) {
    std::fprintf(stderr, "kivctl: %s\n", text.c_str());
}

std::string text_of(const Json& value) {
    if (value.is_null()) return "-";
    if (value.is_string()) return value.get<std::string>();
    if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
    if (value.is_number_float()) return fmt::format("{:.2f}", value.get<double>());
    if (!value.is_array()) return value.dump();
    std::string text;
    for (const Json& member : value)
        text += (text.empty() ? "" : ", ") + text_of(member);
    return text;
}

std::string dotted(uint32_t address) {
    return fmt::format("{}.{}.{}.{}", address >> 24, address >> 16 & 255, address >> 8 & 255, address & 255);
}

std::string hex64(uint64_t value) {
    return fmt::format("0x{:016X}", value);
}

}  // namespace kivctl
