// A screen of all cards, drawn anew every second.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <thread>

#include "cards_document.h"
#include "collector.h"
#include "guard.h"
#include "time_text.h"
#include "watch_status.h"

namespace kivctl {

namespace {

constexpr std::chrono::seconds kRedraw{1};
constexpr std::chrono::milliseconds kWait{500};  ///< For fresh samples: what is late shows its age.

bool is_stale(const Json& card, const char* part) {
    return card["ages"][part]["stale"] == true;
}

std::string age_text(const Json& card, const char* part) {
    const Json& age = card["ages"][part]["age_s"];
    return age.is_null() ? "-" : short_time(age.get<double>()) + (is_stale(card, part) ? " !" : "");
}

std::string state_text(const Json& card) {
    if (card["state"] != "ok") return text_of(card["state"]);
    if (is_stale(card, "sensors") && !card["sources"]["server"]["reason"].is_null()) return "no server";
    return card["attention"] == true ? "attention" : "ok";
}

std::string load_text(const Json& load) {
    return load.is_null() ? "-" : fmt::format("{:.1f}", load.get<double>());
}

std::string port_text(const Json& card, std::size_t number) {
    const Json& ports = card["ports"];
    if (!ports.is_array() || number >= ports.size()) return "-";
    const Json& port = ports[number];
    return fmt::format("{} {}/{}", text_of(port["link"]), load_text(port["load_a_percent"]),
                       load_text(port["load_b_percent"]));
}

std::string offset_text(const Json& card) {
    const Json& offset = card["ptp"]["offset_to_host_ns"];
    return offset.is_null() ? "-" : fmt::format("{:+.3f}", std::stod(offset.get<std::string>()) / 1e6);
}

/// The sensor that is nearest to its limit, or above it.
std::string hottest_text(const Json& card) {
    const Json* hottest = nullptr;
    const auto left = [](const Json& sensor) {
        return sensor["max"].get<double>() - sensor["input"].get<double>();
    };
    for (const Json& sensor : card["sensors"]) {
        if (sensor["input"].is_null() || sensor["max"].is_null()) continue;
        if (hottest == nullptr || left(sensor) < left(*hottest)) hottest = &sensor;
    }
    if (hottest == nullptr) return "-";
    return fmt::format("{} {}/{}", text_of((*hottest)["name"]), text_of((*hottest)["input"]),
                       text_of((*hottest)["max"]));
}

struct Column {
    const char* title;
    std::string (*text)(const Json& card);
};

constexpr Column kColumns[] = {
    {"CARD", [](const Json& card) { return text_of(card["card"]); }},
    {"STATE", state_text},
    {"PORT 0, LOADS %", [](const Json& card) { return port_text(card, 0); }},
    {"PORT 1, LOADS %", [](const Json& card) { return port_text(card, 1); }},
    {"AGE", [](const Json& card) { return age_text(card, "ports"); }},
    {"PTP", [](const Json& card) { return text_of(card["ptp"]["master_locking"]); }},
    {"OFFSET ms", offset_text},
    {"AGE", [](const Json& card) { return age_text(card, "ptp"); }},
    {"NEAREST TO LIMIT", hottest_text},
    {"POWER", [](const Json& card) { return text_of(card["board_power"]); }},
    {"AGE", [](const Json& card) { return age_text(card, "sensors"); }},
    {"FLASH", [](const Json& card) { return text_of(card["flash"]["state"]); }},
    {"AGE", [](const Json& card) { return age_text(card, "flash"); }},
};

/// "2026-11-22 05:38:23  2 cards: 1 ok, 1 lost"
std::string heading(const Json& cards) {
    std::map<std::string, std::size_t> counts;
    for (const Json& card : cards)
        ++counts[state_text(card)];
    std::string text = fmt::format("{}  {} card{}", time_now(false).substr(0, 19), cards.size(),
                                   cards.size() == 1 ? "" : "s");
    for (const char* separator = ": "; const auto& [state, count] : counts) {
        text += fmt::format("{}{} {}", separator, count, state);
        separator = ", ";
    }
    return text;
}

void add_reason(std::vector<std::string>& lines, const std::string& who, const Json& source) {
    if (source["ok"] != true && !source["reason"].is_null())
        lines.push_back(fmt::format("{}: {}", who, text_of(source["reason"])));
}

/// Why values are missing or old, a line for each source.
std::vector<std::string> reasons(const Json& document) {
    std::vector<std::string> lines;
    add_reason(lines, "driver", document["sources"]["driver"]);
    for (const Json& card : document["cards"]) {
        for (const char* const source : {"driver", "server"})
            add_reason(lines, fmt::format("card {}, {}", text_of(card["card"]), source),
                       card["sources"][source]);
    }
    return lines;
}

std::vector<std::string> lines_of(const Json& document, std::size_t most_cards) {
    const Json& cards = document["cards"];
    std::vector<std::vector<std::string>> rows(1);
    for (const Column& column : kColumns)
        rows[0].emplace_back(column.title);
    for (std::size_t i = 0; i < std::min(cards.size(), most_cards); ++i) {
        rows.emplace_back();
        for (const Column& column : kColumns)
            rows.back().push_back(column.text(cards[i]));
    }
    std::vector<std::string> lines{heading(cards), ""};
    for (std::string& line : table_lines(rows))
        lines.push_back(std::move(line));
    if (cards.size() > most_cards)
        lines.push_back(
            fmt::format("... and {} more: a higher terminal shows them, or \"watch --status ID\" one",
                        cards.size() - most_cards));
    lines.emplace_back();
    for (std::string& line : reasons(document))
        lines.push_back(std::move(line));
    const auto any_stale = [](const Json& card) {
        return std::any_of(card["ages"].begin(), card["ages"].end(),
                           [](const Json& age) { return age["stale"] == true && !age["age_s"].is_null(); });
    };
    if (std::any_of(cards.begin(), cards.end(), any_stale))
        lines.emplace_back("! the last value that was read, so long ago");
    return lines;
}

void draw(const Json& document, Output& output) {
    constexpr std::size_t kAround = 5;  // Heading, titles and lines between them.
    const bool live = output.is_terminal();
    const TerminalSize size = live ? output.terminal_size() : TerminalSize{SIZE_MAX, SIZE_MAX};
    const std::vector<std::string> lines = lines_of(document, size.rows > kAround ? size.rows - kAround : 1);
    std::string text = live ? "\x1b[H" : "";
    for (std::size_t i = 0; i < std::min(lines.size(), size.rows - 1); ++i)
        text += lines[i].substr(0, size.columns) + (live ? "\x1b[K\n" : "\n");
    output.print(text + (live ? "\x1b[J" : "\n"));
}

}  // namespace

void show_status(const Request& request, std::optional<LogFile> log, Output& output) {
    Collector& collector = *new Collector;
    for (Clock::time_point next = Clock::now();; std::this_thread::sleep_until(next)) {
        // What was left out while the process was stopped is not made up for.
        next = std::max(next, Clock::now()) + kRedraw;
        collector.refresh(kWait);
        Json document = cards_document(collector.snapshot());
        if (request.card) {
            Json& cards = document["cards"];
            cards.erase(std::remove_if(cards.begin(), cards.end(),
                                       [&](const Json& card) { return card["card"] != *request.card; }),
                        cards.end());
        }
        if (log) log->add(document);
        if (request.json)
            output.print_json(document, -1);
        else
            draw(document, output);
    }
}

}  // namespace kivctl
