// The state of cards, and then events as they come.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

#include "cards.h"
#include "commands.h"
#include "driver_process.h"
#include "functions.h"
#include "guard.h"
#include "log_file.h"
#include "time_text.h"
#include "watch_events.h"
#include "watch_status.h"

namespace kivctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLook{1};      ///< How often card, server and driver are looked at.
constexpr std::chrono::seconds kSearch{3};    ///< How often what is lost is looked for.
constexpr std::chrono::seconds kSensors{60};  ///< How often the sensors are looked at.
constexpr std::chrono::seconds kPatience{5};  ///< How long a driver may take for an answer.

using Asked = std::optional<Clock::time_point>;  ///< Since when an answer is waited for.

bool is_late(const Asked& asked) {
    return asked && Clock::now() - *asked > kPatience;
}

std::string no_answer() {
    return fmt::format("no answer for {} s", kPatience.count());
}

/// Waits for an answer while it lives.
class Waiting {
  public:
    Waiting(std::mutex& mutex, Asked& asked) : mutex_(mutex), asked_(asked) { set(Clock::now()); }
    ~Waiting() { set(std::nullopt); }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

  private:
    void set(const Asked& asked) {
        const std::lock_guard lock(mutex_);
        asked_ = asked;
    }

    std::mutex& mutex_;
    Asked& asked_;
};

struct Card {
    Known known;
    Asked asked;
    bool missing = false;       ///< Its registers could not be read.
    kivDriverClientList fresh;  ///< Connections that its look is to take in place of those that it has.
};

Server server_of(const kivDriverClientList& functions) {
    const kivDriverClient::device_conf_t& conf = functions.front()->device_conf;
    return {conf.tun, conf.port};
}

/// Looks at each card on a thread of its own, through connections of its own, and prints what it sees. It
/// leaves the library's events alone: there all cards share a few threads, and one card that hangs takes them
/// all. Never destroyed: a thread whose driver hangs cannot be waited for.
class Watch {
  public:
    Watch(Output& output, const Request& request, std::optional<LogFile> log)
        : output_(output), request_(request), log_(std::move(log)) {}

    /// Until it fails.
    void run() {
        start([this] { search(); });
        std::unique_lock lock(mutex_);
        while (!condition_.wait_for(lock, kLook, [this] { return failure_.has_value(); })) {
            for (auto& [id, card] : cards_) {
                if (is_late(card.asked)) set_lost(id, "card", card.known.card_lost, true, no_answer());
            }
            if (is_late(listing_)) set_driver_lost(true, no_answer() + " while it lists its cards");
        }
        throw Failure(*failure_);
    }

  private:
    /// Runs it on a thread. The watch ends with the first failure of any.
    template <typename Body>
    void start(Body body) {
        std::thread([this, body] {
            try {
                body();
            } catch (const Failure& failure) {
                fail(failure);
            } catch (const std::exception& error) {
                fail(Failure(Layer::Program, "UNEXPECTED", error.what()));
            }
        }).detach();
    }

    void fail(const Failure& failure) {
        const std::lock_guard lock(mutex_);
        if (!failure_) failure_.emplace(failure);
        condition_.notify_all();
    }

    /// Looks for the cards, and then for those that are missing.
    void search() {
        find_cards();
        {
            const std::lock_guard lock(mutex_);
            if (cards_.empty() && request_.card) throw_no_such_card(*request_.card);
            if (cards_.empty())
                throw Failure(Layer::Driver, "NO_CARD", "there is nothing to watch: the driver has no card",
                              look_for_driver().remedy);
        }
        Output::note("watching; Ctrl-C ends it");
        for (;;) {
            wait_for_loss();
            std::this_thread::sleep_for(kSearch);
            try {
                find_cards();
            } catch (const Failure& failure) {
                // A card that cannot be read has said so.
                if (failure.name != "NO_DRIVER") throw;
            }
        }
    }

    void wait_for_loss() {
        std::unique_lock lock(mutex_);
        condition_.wait(lock, [this] {
            return std::any_of(cards_.begin(), cards_.end(),
                               [](const auto& entry) { return entry.second.missing; });
        });
    }

    /// Gives new cards, and those that are missing, their connections. The others are closed, which asks the
    /// driver once more.
    void find_cards() {
        const Waiting waiting(mutex_, listing_);
        std::map<uint8_t, kivDriverClientList> listed = list_cards();
        waiting_for(Layer::Card, "events");
        const std::lock_guard lock(mutex_);
        set_driver_lost(false, "");
        driver_ended_ = false;
        for (auto& [id, functions] : listed) {
            if (request_.card.value_or(id) != id) continue;
            const bool is_new = !cards_.contains(id);
            Card& card = cards_[id];
            if (is_new || (card.missing && card.fresh.empty())) card.fresh.swap(functions);
            if (is_new) start([this, id = id, &card] { keep_looking(id, card); });
        }
    }

    void keep_looking(uint8_t id, Card& card) {
        kivDriverClientList functions;
        Clock::time_point sensors_due = Clock::now();
        for (;;) {
            look(id, card, functions, sensors_due);
            std::this_thread::sleep_for(kLook);
        }
    }

    /// Asks driver and server, and prints what is not as it is known.
    void look(uint8_t id, Card& card, kivDriverClientList& functions, Clock::time_point& sensors_due) {
        const std::optional<uint64_t> status = ask_driver(card, functions);
        if (!status && is_of_driver()) return;
        {
            const std::lock_guard lock(mutex_);
            set_lost(id, "card", card.known.card_lost, !status, "its registers cannot be read");
            if (status && card.known.state) print_changes(id, *status, card.known);
        }
        const Server server = server_of(functions);
        const std::optional<Failure> problem = server.problem();
        std::optional<Sensors> sensors;
        const bool due = !problem && Clock::now() >= sensors_due;
        if (due) {
            sensors = sensors_of(server);
            sensors_due = Clock::now() + kSensors;
        }
        const std::lock_guard lock(mutex_);
        if (status && !card.known.state) {
            print(id, describe_state(*status, sensors, card.known));
        } else if (const auto event = describe_alarms(sensors)) {
            print(id, *event);
        }
        set_lost(id, "server", card.known.server_lost, problem.has_value(), problem ? problem->message : "");
    }

    std::optional<uint64_t> ask_driver(Card& card, kivDriverClientList& functions) {
        std::optional<uint64_t> status;
        {
            const Waiting waiting(mutex_, card.asked);
            take_fresh(card, functions);
            status = read_register(functions, kiv::registers::kStatus);
        }
        const std::lock_guard lock(mutex_);
        card.missing = !status;
        if (card.missing) condition_.notify_all();
        return status;
    }

    void take_fresh(Card& card, kivDriverClientList& functions) {
        kivDriverClientList former;  // Closed after unlocking: the driver is asked once more.
        const std::lock_guard lock(mutex_);
        if (card.fresh.empty()) return;
        former = std::exchange(functions, std::exchange(card.fresh, {}));
    }

    /// Whether a card cannot be read because the driver has ended. Then no card can, and no server.
    bool is_of_driver() {
        const DriverProcess driver = look_for_driver();
        const std::lock_guard lock(mutex_);
        // Another card's look may have found that it has; by now it may be back, with other connections.
        if (driver.found && !driver_ended_) return false;
        driver_ended_ = true;
        set_driver_lost(true, driver.problem);
        return true;
    }

    void print_changes(uint8_t id, uint64_t status, Known& known) {
        for (const auto& event : {describe_links(status, known), describe_ptp(status, known)}) {
            if (event) print(id, *event);
        }
    }

    void set_lost(std::optional<uint8_t> id, const char* what, bool& lost, bool now,
                  const std::string& reason) {
        if (lost == now) return;
        lost = now;
        print(id, turn(what, now, now ? reason : ""));
    }

    void set_driver_lost(bool now, const std::string& reason) {
        set_lost({}, "driver", driver_lost_, now, reason);
    }

    void print(std::optional<uint8_t> id, const Described& event) {
        Json line = document("watch");
        line["time"] = time_now(true);
        line["card"] = id ? Json(*id) : Json();
        line.update(event.json);
        if (log_) log_->add(line);
        if (request_.json) {
            output_.print_json(line, -1);
        } else {
            output_.print(fmt::format("{}  {:<8}  {:<5}  {}\n", time_now(false),
                                      id ? fmt::format("card {:<3}", *id) : "", text_of(event.json["event"]),
                                      event.text));
        }
    }

    Output& output_;
    const Request& request_;
    std::optional<LogFile> log_;
    std::mutex mutex_;  ///< Guards all below and the log, and keeps lines in the order of what they tell.
    std::condition_variable condition_;
    std::map<uint8_t, Card> cards_;
    std::optional<Failure> failure_;
    Asked listing_;
    bool driver_lost_ = false;   ///< As it was printed: it has ended, or hangs.
    bool driver_ended_ = false;  ///< Since the cards were last listed.
};

}  // namespace

Options watch_options(Request& request) {
    return {{{"--status", "A screen of the present state instead of events, drawn anew every second", "",
              nullptr, &request.show_status},
             text_option("--log", "Add what --json prints to this file too", "FILE", request.file)}};
}

Exit watch(const Request& request, Output& output) {
    guard().signals_are_the_end();
    std::optional<LogFile> log;
    if (!request.file.empty()) log.emplace(request.file);
    if (request.show_status) show_status(request, std::move(log), output);
    (new Watch(output, request, std::move(log)))->run();
    return kDone;
}

}  // namespace kivctl
