// Events as they come.
#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <iterator>
#include <nlohmann/json.hpp>
#include <thread>

#include "cards.h"
#include "commands.h"

namespace kivctl {

namespace {

constexpr kiv_event_type_t kEvents[] = {KIV_EVENT_LINK, KIV_EVENT_HWMON, KIV_EVENT_PTP};
constexpr std::chrono::milliseconds kLook{100};

std::atomic<bool> g_ended{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

void end_on_signals() {
    struct sigaction action {};
    action.sa_handler = [](int) { g_ended = true; };
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGINT, SIGTERM})
        sigaction(signal, &action, nullptr);
}

/// Local time for a person, UTC for a program; both with milliseconds.
std::string time_now(bool utc) {
    const auto now = std::chrono::system_clock::now();
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm parts{};
    utc ? gmtime_r(&seconds, &parts) : localtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof text, utc ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &parts);
    return fmt::format("{}.{:03}{}", text, milliseconds, utc ? "Z" : "");
}

/// An event for a program, and for a person.
struct Described {
    Json json;
    std::string text;

    void add(const std::string& part) { text += (text.empty() ? "" : ", ") + part; }
};

Described describe(const kiv_event_link_t& link) {
    const uint8_t ports[][2] = {{link.port_0_changed, link.port_0_link},
                                {link.port_1_changed, link.port_1_link}};
    Described event{{{"event", "link"}, {"ports", Json::array()}}, ""};
    for (unsigned i = 0; i < std::size(ports); ++i) {
        const auto [changed, up] = ports[i];
        const char* const state = up != 0 ? "up" : "down";
        event.json["ports"].push_back({{"port", i}, {"changed", changed != 0}, {"link", state}});
        if (changed != 0) event.add(fmt::format("port {} {}", i, state));
    }
    return event;
}

Described describe(const kiv_event_hwmon_t& report) {
    Described event{{{"event", "hwmon"}, {"sensors", Json::array()}}, ""};
    for (unsigned i = 0; i < std::size(report.entry); ++i) {
        const auto& [alarm, sensor] = report.entry[i];
        event.json["sensors"].push_back({{"name", kSensorNames[i]},
                                         {"alarm", alarm != 0},
                                         {"input", sensor.input},
                                         {"max", sensor.max},
                                         {"critical", sensor.critical}});
        if (alarm != 0)
            event.add(fmt::format("{} {} (max {}, critical {})", kSensorNames[i], sensor.input, sensor.max,
                                  sensor.critical));
    }
    return event;
}

Described describe(uint32_t ptp_state) {
    return {{{"event", "ptp"}, {"state", ptp_state}}, fmt::format("state {}", ptp_state)};
}

Described describe(kiv_event_type_t event, const void* data) {
    if (event == KIV_EVENT_LINK) return describe(*static_cast<const kiv_event_link_t*>(data));
    if (event == KIV_EVENT_HWMON) return describe(*static_cast<const kiv_event_hwmon_t*>(data));
    return describe(*static_cast<const uint32_t*>(data));
}

/// Prints the events of its cards while it lives, on threads of the library.
class Watch {
  public:
    Watch(Output& output, bool json) : output_(output), json_(json) {}
    ~Watch() {
        for (const uint8_t id : ids_)
            kiv_unregister_callback_func(id);
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    void add(uint8_t id) {
        check(kiv_register_callback_func(id, receive, this), "watch");
        ids_.push_back(id);
        for (const kiv_event_type_t event : kEvents)
            check(kiv_enable_event(id, event), "watch");
    }

    bool failed() const { return failed_; }

  private:
    static void receive(uint8_t id, kiv_event_type_t event, const void* data, void* user) {
        Watch& self = *static_cast<Watch*>(user);
        try {
            self.print(id, describe(event, data));
        } catch (...) {
            self.failed_ = true;  // Nobody reads the results any more.
        }
    }

    void print(uint8_t id, const Described& event) {
        if (json_) {
            Json line{{"time", time_now(true)}, {"card", id}};
            line.update(event.json);
            output_.print_json(line, -1);
        } else {
            output_.print(fmt::format("{}  card {:<3}  {:<5}  {}\n", time_now(false), id,
                                      event.json["event"].get_ref<const std::string&>(), event.text));
        }
    }

    Output& output_;
    const bool json_;
    std::vector<uint8_t> ids_;
    std::atomic<bool> failed_{false};
};

}  // namespace

void watch(const Request& request, Output& output) {
    end_on_signals();
    const std::vector<Found> cards = scan_cards();
    Watch watch(output, request.json);
    if (request.has_id) {
        watch.add(request.id);
    } else {
        for (const Found& found : cards)
            watch.add(found.card.device_id);
        if (cards.empty()) throw Failure("there is nothing to watch");
    }
    Output::note("watching; Ctrl-C ends it");
    while (!g_ended && !watch.failed())
        std::this_thread::sleep_for(kLook);
    if (watch.failed()) throw Failure("standard output cannot be written");
}

}  // namespace kivctl
