#include "support/report.h"

#include <cstdio>
#include <exception>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "support/machine.h"
#include "support/measure.h"

namespace kivbench {

namespace {

using Json = nlohmann::ordered_json;

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, value < 10 ? "%.2f" : value < 1000 ? "%.1f" : "%.0f", value);
    return text;
}

std::string text_of(const Row& row) {
    if (!row.budget) return "";
    const auto [times, more] = *row.budget;
    const std::string extra = number(more) + " " + row.unit;
    if (times == 0) return "at most " + extra;
    if (times == 1) return more == 0 ? "at most the floor" : "at most " + extra + " more";
    return "at most " + number(times) + "x" + (more == 0 ? "" : " + " + extra);
}

void print(const Report::Entry& entry) {
    const Row& row = entry.row;
    if (!entry.skipped.empty()) {
        std::printf("  %-46s skipped: %s\n", row.name.c_str(), entry.skipped.c_str());
        return;
    }
    std::printf("  %-46s %9s %-4s", row.name.c_str(), number(row.ours).c_str(), row.unit.c_str());
    if (row.floor)
        std::printf(" %9s  %-34s %6s", number(*row.floor).c_str(), row.what_the_floor_is.c_str(),
                    row.ratio() ? (number(*row.ratio()) + "x").c_str() : "");
    if (row.budget) std::printf("  %s: %s", text_of(row).c_str(), row.met() ? "met" : "MISSED");
    std::printf("\n");
    std::fflush(stdout);
}

Json json_of(const Report::Entry& entry) {
    const Row& row = entry.row;
    Json json = {{"group", entry.group}, {"name", row.name}};
    if (!entry.skipped.empty()) {
        json["skipped"] = entry.skipped;
        return json;
    }
    json["unit"] = row.unit;
    json["ours"] = row.ours;
    if (row.floor) {
        json["floor"] = *row.floor;
        json["what_the_floor_is"] = row.what_the_floor_is;
    }
    if (row.ratio()) json["ratio"] = *row.ratio();
    if (row.budget) {
        json["budget"] = text_of(row);
        json["most"] = row.budget->times * row.floor.value_or(0) + row.budget->more;
        json["met"] = row.met();
    }
    return json;
}

bool all_met(const Report& report) {
    bool met = true;
    for (const Report::Entry& entry : report.entries())
        met = met && entry.row.met();
    return met;
}

void write(const Report& report, const std::string& path) {
    Json rows = Json::array();
    for (const Report::Entry& entry : report.entries())
        rows.push_back(json_of(entry));
    std::ofstream file(path);
    file << Json{{"machine", machine()}, {"rows", rows}}.dump(2) << "\n";
    require(static_cast<bool>(file.flush()), path + " cannot be written");
}

}  // namespace

std::optional<double> Row::ratio() const {
    if (!floor || *floor <= 0) return {};
    return ours / *floor;
}

bool Row::met() const {
    return !budget || ours <= budget->times * floor.value_or(0) + budget->more;
}

void Report::add(Row row) {
    keep({group_, std::move(row), {}});
}

void Report::skip(const std::string& name, const std::string& reason) {
    Row row;
    row.name = name;
    keep({group_, std::move(row), reason});
}

void Report::keep(Entry entry) {
    if (entries_.empty() || entries_.back().group != entry.group) std::printf("%s\n", entry.group.c_str());
    print(entry);
    entries_.push_back(std::move(entry));
}

int run(int argc, char** argv, const std::function<void(Report&)>& benchmark) try {
    std::string json;
    bool budgets_count = true;
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--no-budget") {
            budgets_count = false;
        } else if (option == "--json" && i + 1 < argc) {
            json = argv[++i];
        } else {
            std::fprintf(stderr, "usage: %s [--json FILE] [--no-budget]\n", argv[0]);
            return 2;
        }
    }
    Report report;
    benchmark(report);
    if (!json.empty()) write(report, json);
    return budgets_count && !all_met(report) ? 1 : 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 2;
}

}  // namespace kivbench
