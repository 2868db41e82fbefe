#include "metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <string_view>
#include <utility>

#include "output.h"
#include "records.h"

namespace kivctl {

namespace {

using Labels = std::vector<std::pair<const char*, std::string>>;

/// What a card or a server sends as text is escaped twice: it need not be text.
std::string label_value(const std::string& text) {
    std::string escaped;
    for (const char letter : printable(text)) {
        if (letter == '\\' || letter == '"') escaped += '\\';
        escaped += letter;
    }
    return escaped;
}

/// Writes the series of one family.
class Family {
  public:
    Family(std::string& text, const char* name, const char* type, const char* help)
        : text_(text), name_(name) {
        text_ += fmt::format("# HELP {0} {2}\n# TYPE {0} {1}\n", name, type, help);
    }

    void add(const Labels& labels, double value) {
        std::string list;
        for (const auto& [name, of] : labels)
            list += fmt::format("{}{}=\"{}\"", list.empty() ? "" : ",", name, label_value(of));
        text_ += name_ + (list.empty() ? "" : "{" + list + "}") + fmt::format(" {}\n", value);
    }

  private:
    std::string& text_;
    std::string name_;
};

/// Adds a series of a card; null adds none.
class Adder {
  public:
    Adder(Family& family, uint8_t card) : family_(family), card_(std::to_string(card)) {}

    void operator()(const Json& value, Labels labels = {}, double parts = 1) {
        if (value.is_null()) return;
        labels.insert(labels.begin(), {"card", card_});
        family_.add(labels, (value.is_boolean() ? value.get<bool>() : value.get<double>()) / parts);
    }

  private:
    Family& family_;
    std::string card_;
};

constexpr double kPercent = 100;  ///< Parts of a unit.
constexpr double kNanoseconds = 1e9;

/// A family that is made of one part.
struct Metric {
    const char* name;
    const char* help;
    Part part;
    void (*add)(const Json& value, Adder& add);
};

template <int member>
void add_temperatures(const Json& report, Adder& add) {
    constexpr const char* kMembers[] = {"input", "max", "critical"};
    for (const Json& sensor : report["sensors"])
        add(sensor[kMembers[member]], {{"sensor", sensor["name"]}});
}

void add_links(const Json& ports, Adder& add) {
    for (const Json& port : ports)
        add(port["link"] == "up", {{"port", text_of(port["port"])}});
}

void add_loads(const Json& ports, Adder& add) {
    for (const Json& port : ports) {
        add(port["load_a_percent"], {{"port", text_of(port["port"])}, {"path", "a"}}, kPercent);
        add(port["load_b_percent"], {{"port", text_of(port["port"])}, {"path", "b"}}, kPercent);
    }
}

void add_slots(const Json& slots, Adder& add) {
    for (std::size_t i = 0; i < 2; ++i) {
        add(1, {{"slot", std::to_string(i)},
                {"image", slots["slots"][i]},
                {"next_boot", slots["next_boot_slot"] == i ? "yes" : "no"}});
    }
}

void add_resources(const Json& streams, Adder& add) {
    for (const auto& [direction, use] : streams.items()) {
        for (std::size_t i = 0; i < 3; ++i)
            add(use["resources"][i], {{"direction", direction}, {"resource", std::to_string(i)}});
    }
}

void add_controls(const Json& streams, Adder& add) {
    for (const auto& [direction, use] : streams.items()) {
        for (const char* const item : {"control", "control_bit_25", "control_bit_26", "reg_404", "reg_804"})
            add(use[item], {{"direction", direction}, {"item", item}});
    }
}

// clang-format off
constexpr Metric kMetrics[] = {
    {"kiv_port_up", "Whether the media port has link.", kPorts, add_links},
    {"kiv_port_load_ratio", "Load of the media port, by path; 1 is full.", kPorts, add_loads},
    {"kiv_temperature_celsius", "Temperature.", kSensorsOf, add_temperatures<0>},
    {"kiv_temperature_max_celsius", "Temperature from which on the card needs attention.", kSensorsOf, add_temperatures<1>},
    {"kiv_temperature_critical_celsius", "Temperature from which on the card is in danger.", kSensorsOf, add_temperatures<2>},
    {"kiv_board_power", "Power of the board, in the unit that the card reports.", kSensorsOf,
     [](const Json& report, Adder& add) { add(report["board_power"]); }},
    {"kiv_pci_link_lanes", "Lanes of the PCI Express link.", kPciLink,
     [](const Json& link, Adder& add) { add(link["width"]); }},
    {"kiv_pci_link_generation", "Generation of the PCI Express link.", kPciLink,
     [](const Json& link, Adder& add) { add(link["generation"]); }},
    {"kiv_ptp_state", "PTP state in the status register: 0, 1 or 3.", kClock,
     [](const Json& clock, Adder& add) { add(clock["register_state"]); }},
    {"kiv_ptp_time_seconds", "PTP time of the card, since 1970 TAI.", kClock,
     [](const Json& clock, Adder& add) { add(clock["tai_ns"], {}, kNanoseconds); }},
    {"kiv_ptp_locking_status", "How the master is locked: 0 not in use, 1 free run, 2 cold locking, 3 warm locking, 4 locked.", kLocking,
     [](const Json& locking, Adder& add) { add(locking["value"]); }},
    {"kiv_ptp_utc_offset_seconds", "TAI less UTC, as the PTP master tells it.", kMaster,
     [](const Json& master, Adder& add) { add(master["utc_offset"]); }},
    {"kiv_ptp_utc_offset_valid", "Whether the PTP master says that this is valid.", kMaster,
     [](const Json& master, Adder& add) { add(master["utc_offset_valid"]); }},
    {"kiv_ptp_grandmaster_info", "Identity of the grandmaster clock.", kMaster,
     [](const Json& master, Adder& add) {
         if (master["grandmaster"].is_string()) add(1, {{"identity", master["grandmaster"]}});
     }},
    {"kiv_flash_busy", "Whether the flash is being written.", kFlashState,
     [](const Json& flash, Adder& add) { add(flash["state"] == "busy"); }},
    {"kiv_flash_state_info", "What the flash does, in the card's words.", kFlashState,
     [](const Json& flash, Adder& add) { add(1, {{"state", flash["phase"]}}); }},
    {"kiv_flash_slot_info", "Image in each slot of the flash, and whether the card boots it next.", kSlots, add_slots},
    {"kiv_stream_resources", "Resources of the streams in use, as the driver counts them.", kStreams, add_resources},
    {"kiv_stream_register", "What the registers of the streams say.", kStreams, add_controls},
};
// clang-format on

/// Whether a part is good at this moment. Some are not asked for with every sample.
bool is_good(const Reading& reading, Part part, Clock::time_point fresh) {
    const auto reads = server_reads();
    const bool has_period = std::any_of(reads.begin(), reads.end(), [&](const ServerRead& read) {
        return read.part == part && read.period > std::chrono::seconds(0);
    });
    return !reading.stale && (has_period || reading.read->steady >= fresh);
}

/// A family of all sources: of the machine and of the cards.
void add_of_sources(std::string& text, const Snapshot& snapshot, const char* name, const char* type,
                    const char* help, const std::function<void(Family&, const Labels&, const Source&)>& add) {
    Family family(text, name, type, help);
    add(family, {{"source", "driver"}}, snapshot.driver);
    add(family, {{"source", "configuration"}}, snapshot.configuration);
    for (const CardValues& card : snapshot.cards) {
        add(family, {{"card", std::to_string(card.id)}, {"source", "driver"}}, card.driver);
        add(family, {{"card", std::to_string(card.id)}, {"source", "server"}}, card.server);
    }
}

void add_sources(std::string& text, const Snapshot& snapshot) {
    add_of_sources(text, snapshot, "kiv_source_up", "gauge", "Whether the source answers.",
                   [](Family& family, const Labels& labels, const Source& source) {
                       const bool asked = source.success || !source.reason.empty();
                       if (asked) family.add(labels, source.ok ? 1 : 0);
                   });
    add_of_sources(text, snapshot, "kiv_source_last_success_timestamp_seconds", "gauge",
                   "When the source answered last, since 1970 UTC.",
                   [](Family& family, const Labels& labels, const Source& source) {
                       if (!source.success) return;
                       const std::chrono::duration<double> time = source.success->wall.time_since_epoch();
                       family.add(labels, time.count());
                   });
    add_of_sources(text, snapshot, "kiv_source_age_seconds", "gauge", "Time since the source answered last.",
                   [&](Family& family, const Labels& labels, const Source& source) {
                       if (!source.success) return;
                       const std::chrono::duration<double> age =
                           snapshot.time.steady - source.success->steady;
                       family.add(labels, age.count());
                   });
    add_of_sources(text, snapshot, "kiv_source_sample_duration_seconds", "gauge",
                   "What the last sample of the source took.",
                   [](Family& family, const Labels& labels, const Source& source) {
                       family.add(labels, source.took.count());
                   });
    add_of_sources(text, snapshot, "kiv_errors_total", "counter",
                   "Questions that failed since the start, by where it went wrong.",
                   [](Family& family, Labels labels, const Source& source) {
                       labels.emplace_back("layer", "");
                       for (const auto& [layer, count] : source.errors) {
                           labels.back().second = name_of(layer);
                           family.add(labels, static_cast<double>(count));
                       }
                   });
}

}  // namespace

std::string metrics_text(const Snapshot& snapshot, Clock::time_point fresh) {
    std::string text;
    {
        Family family(text, "kiv_scan_duration_seconds", "gauge", "What the last search for cards took.");
        if (snapshot.driver.ok) family.add({}, snapshot.driver.took.count());
    }
    {
        Family family(text, "kiv_card_up", "gauge", "Whether the driver can read the card's registers.");
        for (const CardValues& card : snapshot.cards)
            Adder(family, card.id)(is_good(card.parts[kPorts], kPorts, fresh));
    }
    for (const Metric& metric : kMetrics) {
        Family family(text, metric.name, "gauge", metric.help);
        for (const CardValues& card : snapshot.cards) {
            const Reading& reading = card.parts[metric.part];
            Adder adder(family, card.id);
            if (is_good(reading, metric.part, fresh)) metric.add(reading.value, adder);
        }
    }
    {
        Family family(text, "kiv_ptp_offset_seconds", "gauge",
                      "PTP time of the card less the time of the host.");
        for (const CardValues& card : snapshot.cards) {
            const std::optional<int64_t> offset = card.offset_to_host();
            if (offset && is_good(card.parts[kClock], kClock, fresh) &&
                is_good(card.parts[kMaster], kMaster, fresh))
                Adder(family, card.id)(*offset, {}, kNanoseconds);
        }
    }
    add_sources(text, snapshot);
    return text;
}

}  // namespace kivctl
