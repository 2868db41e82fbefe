// The state of cards, and then events as they come.
#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "cards.h"
#include "commands.h"
#include "driver_process.h"
#include "guard.h"
#include "time_text.h"

namespace kivctl {

namespace {

constexpr kiv_event_type_t kEvents[] = {KIV_EVENT_LINK, KIV_EVENT_HWMON, KIV_EVENT_PTP};
constexpr std::chrono::seconds kLook{1};    ///< How often card, server and driver are looked at.
constexpr std::chrono::seconds kSearch{3};  ///< How often what is lost is looked for.

/// An event for a program, and for a person.
struct Described {
    Json json;
    std::string text;

    void add(const std::string& part) { text += (text.empty() ? "" : ", ") + part; }
};

/// What has been printed of a card.
struct Known {
    std::optional<bool> link[2];
    std::optional<uint32_t> ptp_state;
    bool card_lost = false;
    bool server_lost = false;
};

/// Nothing when both links are as they are known.
std::optional<Described> describe(const bool (&up)[2], Known& known) {
    Described event{{{"event", "link"}, {"ports", Json::array()}}, ""};
    for (unsigned i = 0; i < 2; ++i) {
        const bool changed = known.link[i] != up[i];
        const char* const state = up[i] ? "up" : "down";
        event.json["ports"].push_back({{"port", i}, {"changed", changed}, {"link", state}});
        if (changed) event.add(fmt::format("port {} {}", i, state));
        known.link[i] = up[i];
    }
    return event.text.empty() ? std::nullopt : std::optional(event);
}

/// Nothing when no sensor that the card reports is at its limit.
std::optional<Described> describe(const kiv_event_hwmon_t& report) {
    Described event{{{"event", "hwmon"}, {"sensors", Json::array()}}, ""};
    for (unsigned i = 0; i < std::size(report.entry); ++i) {
        const Json sensor = sensor_json(i, report.entry[i].sensor);
        if (sensor["input"].is_null()) continue;
        event.json["sensors"].push_back(sensor);
        if (is_alarm(sensor))
            event.add(fmt::format("{} {} (max {}, critical {})", text_of(sensor["name"]),
                                  text_of(sensor["input"]), text_of(sensor["max"]),
                                  text_of(sensor["critical"])));
    }
    return event.text.empty() ? std::nullopt : std::optional(event);
}

std::optional<Described> describe(uint32_t ptp_state, Known& known) {
    if (known.ptp_state == ptp_state) return std::nullopt;
    known.ptp_state = ptp_state;
    return Described{{{"event", "ptp"}, {"ptp_state", ptp_state}}, fmt::format("state {}", ptp_state)};
}

/// From the register; the rest of the record is the server's, which is asked after it.
std::optional<uint32_t> ptp_state_of(uint8_t id) {
    constexpr uint32_t kUntouched = UINT32_MAX;
    kiv_ptp_status_t status{};
    status.state = kUntouched;
    kiv_get_ptp_status(id, &status);
    return status.state == kUntouched ? std::nullopt : std::optional(status.state);
}

/// All that can be asked of a card now, and what of it is known from now on.
Described describe_state(uint8_t id, bool with_server, Known& known) {
    kiv_net_status_t net{};
    kiv_card_status_t status{};
    Described event{
        {{"event", "state"}, {"ports", Json::array()}, {"ptp_state", nullptr}, {"sensors", nullptr}}, ""};
    if (kiv_get_net_status(id, &net) == KIV_OK) {
        if (const auto links = describe({net.link_up_0 != 0, net.link_up_1 != 0}, known)) {
            event.json["ports"] = links->json["ports"];
            event.add(links->text);
        }
    }
    if (!with_server) return event;
    known.ptp_state = ptp_state_of(id);
    if (known.ptp_state) {
        event.json["ptp_state"] = *known.ptp_state;
        event.add(fmt::format("PTP state {}", *known.ptp_state));
    }
    if (kiv_get_card_status(id, &status) != KIV_OK) return event;
    kiv_event_hwmon_t report{};
    event.json["sensors"] = Json::array();
    for (unsigned i = 0; i < std::size(status.sensor); ++i) {
        report.entry[i].sensor = status.sensor[i];
        Json sensor = sensor_json(i, status.sensor[i]);
        if (!sensor["input"].is_null()) event.json["sensors"].push_back(std::move(sensor));
    }
    const auto alarms = describe(report);
    event.add(alarms ? alarms->text : "sensors ok");
    return event;
}

/// "lost" or "found", of a card, its server or the driver.
Described turn(const char* what, bool lost, const std::string& reason) {
    const char* const event = lost ? "lost" : "found";
    return {{{"event", event}, {"what", what}, {"reason", reason.empty() ? Json() : Json(reason)}},
            what + (reason.empty() ? "" : ": " + printable(reason))};
}

/// Prints the events of its cards while it lives, on threads of the library and of its own.
class Watch {
  public:
    Watch(Output& output, const Request& request) : output_(output), request_(request) {}
    ~Watch() { end_looks(); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    /// Until standard output cannot be written.
    void run() {
        begin(find_cards());
        for (;;) {
            wait_for_loss();
            // A scan ends the registrations, and must not run beside the looks.
            end_looks();
            begin(search());
        }
    }

  private:
    std::vector<Found> find_cards() {
        if (request_.card) {
            // The first time a card that is not there is wrong usage, not a loss.
            return {open_or_report(*request_.card)};
        }
        std::vector<Found> cards = scan_cards();
        if (cards.empty()) throw Failure(Layer::Driver, "NO_CARD", "there is nothing to watch");
        return cards;
    }

    static Found open_or_report(uint8_t id) {
        for (const Found& card : scan_cards()) {
            if (card.device.device_id == id) return card;
        }
        throw_no_such_card(id);
    }

    /// Looks for what is lost until there is something to watch again.
    std::vector<Found> search() {
        for (;;) {
            std::this_thread::sleep_for(kSearch);
            try {
                const bool was_lost = driver_lost_;
                std::vector<Found> cards = scan_cards();
                std::erase_if(cards, [&](const Found& card) {
                    return request_.card && card.device.device_id != *request_.card;
                });
                if (was_lost) print({}, turn("driver", false, ""));
                driver_lost_ = false;
                if (!cards.empty()) return cards;
            } catch (const Failure& failure) {
                if (failure.name == "OUTPUT") throw;
                lose_driver(failure.message);
            }
        }
    }

    void lose_driver(const std::string& reason) {
        if (driver_lost_) return;
        driver_lost_ = true;
        print({}, turn("driver", true, reason));
    }

    void begin(const std::vector<Found>& cards) {
        for (const Found& card : cards) {
            print_present(card.device.device_id, card.result == KIV_OK);
            look(card);
        }
        for (const Found& card : cards) {
            const uint8_t id = card.device.device_id;
            if (card.result != KIV_OK && card.result != KIV_ERR_REST) continue;
            check(kiv_register_callback_func(id, receive, this), "watching", id);
            for (const kiv_event_type_t event : kEvents)
                check(kiv_enable_event(id, event), "watching", id);
        }
        if (!said_) Output::note("watching; Ctrl-C ends it");
        said_ = true;
        const std::lock_guard lock(mutex_);
        ending_ = false;
        for (const Found& card : cards)
            looks_.emplace_back([this, card] { keep_looking(card); });
    }

    /// The state of a card that is new; of one that was lost, what is no longer as it was.
    void print_present(uint8_t id, bool with_server) {
        // No event comes yet: what is known is this thread's.
        if (!known_.contains(id)) return print(id, describe_state(id, with_server, known_[id]));
        const std::optional<uint32_t> state = with_server ? ptp_state_of(id) : std::nullopt;
        if (!state) return;
        if (const auto event = describe(*state, known_[id])) print(id, *event);
    }

    void end_looks() {
        {
            const std::lock_guard lock(mutex_);
            ending_ = true;
        }
        condition_.notify_all();
        for (std::thread& thread : looks_)
            thread.join();
        looks_.clear();
    }

    /// Until a card or the driver is lost.
    void wait_for_loss() {
        std::unique_lock lock(mutex_);
        condition_.wait(lock, [this] { return search_ || failed_; });
        if (failed_) throw Failure(Layer::Argument, "OUTPUT", "standard output cannot be written");
        search_ = false;
    }

    void keep_looking(const Found& card) {
        for (;;) {
            {
                std::unique_lock lock(mutex_);
                if (condition_.wait_for(lock, kLook, [this] { return ending_; })) return;
            }
            try {
                look(card);
            } catch (...) {
                fail();
                return;
            }
        }
    }

    /// Asks driver and server, and prints what is not as it is known.
    void look(const Found& card) {
        const uint8_t id = card.device.device_id;
        kiv_net_status_t net{};
        const kiv_result_t driver = kiv_get_net_status(id, &net);
        if (driver != KIV_OK && is_of_driver()) return;
        set_lost(id, "card", &Known::card_lost, driver != KIV_OK,
                 driver == KIV_OK ? "" : "its registers cannot be read");
        if (driver == KIV_OK) print_state(id, net);
        const std::optional<Failure> server = server_of(card).problem();
        set_lost(id, "server", &Known::server_lost, server.has_value(), server ? server->message : "");
        if (driver == KIV_OK) return;
        const std::lock_guard lock(mutex_);
        ask_for_search();
    }

    /// Whether a card cannot be read because the driver is lost. Then no card is, nor its server.
    bool is_of_driver() {
        const DriverProcess driver = look_for_driver();
        const std::lock_guard lock(mutex_);
        // Another card's look may have found it lost; by now it may be back, with other connections.
        if (driver.found && !driver_lost_) return false;
        lose_driver(driver.problem);
        ask_for_search();
        return true;
    }

    void print_state(uint8_t id, const kiv_net_status_t& net) {
        const bool up[] = {net.link_up_0 != 0, net.link_up_1 != 0};
        const std::lock_guard lock(mutex_);
        if (const auto event = describe(up, known_[id])) print(id, *event);
    }

    void set_lost(uint8_t id, const char* what, bool Known::*lost, bool now, const std::string& reason) {
        const std::lock_guard lock(mutex_);
        if (known_[id].*lost == now) return;
        known_[id].*lost = now;
        print(id, turn(what, now, reason));
    }

    void ask_for_search() {
        search_ = true;
        condition_.notify_all();
    }

    void fail() {
        const std::lock_guard lock(mutex_);
        failed_ = true;
        condition_.notify_all();
    }

    static void receive(uint8_t id, kiv_event_type_t event, const void* data, void* user) {
        Watch& self = *static_cast<Watch*>(user);
        try {
            const std::lock_guard lock(self.mutex_);
            if (const auto described = self.describe_event(id, event, data)) self.print(id, *described);
        } catch (...) {
            self.fail();  // Nobody reads the results any more.
        }
    }

    std::optional<Described> describe_event(uint8_t id, kiv_event_type_t event, const void* data) {
        if (event == KIV_EVENT_HWMON) return describe(*static_cast<const kiv_event_hwmon_t*>(data));
        if (event == KIV_EVENT_PTP) return describe(*static_cast<const uint32_t*>(data), known_[id]);
        const auto& link = *static_cast<const kiv_event_link_t*>(data);
        return describe({link.port_0_link != 0, link.port_1_link != 0}, known_[id]);
    }

    void print(std::optional<uint8_t> id, const Described& event) {
        if (request_.json) {
            Json line = document("watch");
            line["time"] = time_now(true);
            line["card"] = id ? Json(*id) : Json();
            line.update(event.json);
            output_.print_json(line, -1);
        } else {
            output_.print(fmt::format("{}  {:<8}  {:<5}  {}\n", time_now(false),
                                      id ? fmt::format("card {:<3}", *id) : "", text_of(event.json["event"]),
                                      event.text));
        }
    }

    Output& output_;
    const Request& request_;
    std::mutex mutex_;  ///< Guards all below but `looks_`, and keeps lines in the order of what they tell.
    std::condition_variable condition_;
    std::map<uint8_t, Known> known_;
    std::vector<std::thread> looks_;
    bool ending_ = false;
    bool search_ = false;
    bool failed_ = false;
    bool driver_lost_ = false;
    bool said_ = false;
};

}  // namespace

Exit watch(const Request& request, Output& output) {
    guard().signals_are_the_end();
    Watch(output, request).run();
    return kDone;
}

}  // namespace kivctl
