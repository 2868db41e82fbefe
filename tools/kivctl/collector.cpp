#include "collector.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <iterator>
#include <limits>
#include <thread>
#include <utility>

#include "cards.h"
#include "configuration.h"
#include "records.h"

namespace kivctl {

namespace {

using std::chrono::seconds;

constexpr seconds kIdle{5};      ///< How often a source is sampled when nobody asks,
constexpr seconds kWanted{1};    ///< and at most when somebody does.
constexpr seconds kSearch{3};    ///< How often the cards are looked for.
constexpr seconds kPatience{2};  ///< How long an answer may take; the wait for it goes on.

/// The parts of the two sources of a card.
std::span<Reading> of_driver(std::array<Reading, kParts>& parts) {
    return std::span(parts).first(kSensorsOf);
}

std::span<Reading> of_server(std::array<Reading, kParts>& parts) {
    return std::span(parts).subspan(kSensorsOf);
}

template <typename Sampled>
bool is_late(const Sampled& sampled) {
    return sampled.asked && Clock::now() - *sampled.asked > kPatience;
}

/// The state of a source, whose parts are stale too when it does not answer.
template <typename Sampled>
Source source_of(const Sampled& sampled, std::span<Reading> parts) {
    Source source{false, parts.front().read, "", sampled.took, sampled.errors};
    if (is_late(sampled)) {
        source.reason = fmt::format("no answer for {} s", kPatience.count());
        for (Reading& part : parts)
            part.stale = true;
    }
    for (const Reading& part : parts) {
        if (source.reason.empty()) source.reason = part.reason;
    }
    // A part that has not been asked for yet, or again, is no failure.
    source.ok = source.success && source.reason.empty();
    return source;
}

/// A server that gives no answer may not even take connections.
Json ask(const Server& server, const ServerRead& each) try {
    return each.read(server);
} catch (const Failure& failure) {
    if (failure.name != "SERVER_ANSWER") throw;
    if (const std::optional<Failure> problem = server.connection_problem()) throw Failure(*problem);
    throw;
}

History::Values values_for_history(const CardValues& card) {
    History::Values values;
    values.fill(std::numeric_limits<float>::quiet_NaN());
    const auto set = [&](std::size_t at, const Json& value) {
        if (value.is_number()) values[at] = value.get<float>();
    };
    const Reading& report = card.parts[kSensorsOf];
    const Reading& ports = card.parts[kPorts];
    for (std::size_t i = 0; !report.stale && i < kSensorCount; ++i)
        set(i, report.value["sensors"][i]["input"]);
    for (std::size_t i = 0; !ports.stale && i < 2; ++i) {
        set(kSensorCount + 2 * i, ports.value[i]["load_a_percent"]);
        set(kSensorCount + 2 * i + 1, ports.value[i]["load_b_percent"]);
    }
    const std::optional<int64_t> offset = card.offset_to_host();
    if (offset && !card.parts[kClock].stale && !card.parts[kMaster].stale)
        values.back() = static_cast<float>(*offset);
    return values;
}

}  // namespace

std::optional<int64_t> CardValues::offset_to_host() const {
    const Json& clock = parts[kClock].value;
    const Json& master = parts[kMaster].value;
    if (clock.is_null() || master.is_null()) return std::nullopt;
    constexpr int64_t kSecond = 1'000'000'000;
    const int64_t ahead = master["utc_offset_valid"] == true ? master["utc_offset"].get<int64_t>() : 0;
    const uint64_t host = clock["host_ns"].get<uint64_t>() + static_cast<uint64_t>(ahead * kSecond);
    return static_cast<int64_t>(clock["tai_ns"].get<uint64_t>() - host);
}

Collector::Collector() {
    std::thread([this] { keep_finding(); }).detach();
    std::thread([this] { keep_sampling(loading_, [this] { load_configuration(); }); }).detach();
    std::thread([this] { keep_recording(); }).detach();
}

// ---- Who asks -------------------------------------------------------------------------------------------

Clock::time_point Collector::refresh(Clock::duration limit) {
    const Clock::time_point start = Clock::now();
    // All values of a sample are read after its beginning.
    const Clock::time_point fresh = start - kWanted;
    const auto is_done = [&](const Sampled& sampled) {
        return sampled.begin >= fresh || sampled.failed || is_late(sampled);
    };
    std::unique_lock lock(mutex_);
    for (auto& [id, card] : cards_) {
        for (Sampled* const sampled : {&card.driver, &card.server}) {
            sampled->wanted = true;
            sampled->wake.notify_one();
        }
    }
    sampled_.wait_until(lock, start + limit, [&] {
        const bool listed = listing_.begin != Clock::time_point() || is_late(listing_);
        return listed && std::all_of(cards_.begin(), cards_.end(), [&](const auto& entry) {
                   return is_done(entry.second.driver) && is_done(entry.second.server);
               });
    });
    return fresh;
}

Snapshot Collector::snapshot() {
    const std::lock_guard lock(mutex_);
    Reading listed = listed_;
    Reading loaded = loaded_;
    Snapshot snapshot{{}, source_of(listing_, {&listed, 1}), source_of(loading_, {&loaded, 1}), {}};
    for (const auto& [id, card] : cards_) {
        const bool asked = card.driver.begin != Clock::time_point() || is_late(card.driver);
        if (asked) snapshot.cards.push_back(values_of(id, card));
    }
    return snapshot;
}

CardValues Collector::values_of(uint8_t id, const Card& card) {
    CardValues values{id, {}, {}, card.parts};
    values.driver = source_of(card.driver, of_driver(values.parts));
    values.server = source_of(card.server, of_server(values.parts));
    return values;
}

std::optional<Json> Collector::history(uint8_t id) {
    History history;
    {
        const std::lock_guard lock(mutex_);
        const auto card = cards_.find(id);
        if (card == cards_.end()) return std::nullopt;
        history = card->second.history;
    }
    return history.json();
}

// ---- Who samples ----------------------------------------------------------------------------------------

/// Reads a value and notes what came of it; false when it failed. The driver or server may take its time.
template <typename Read>
bool Collector::take(Sampled& sampled, Reading& reading, Layer layer, Read read) {
    {
        const std::lock_guard lock(mutex_);
        sampled.asked = Clock::now();
    }
    std::optional<Failure> problem;
    Json value;
    try {
        value = read();
    } catch (const Failure& failure) {
        problem = failure;
    } catch (const std::exception& error) {  // Such as an answer of another shape.
        problem = Failure(layer, "UNEXPECTED", error.what());
    }
    const std::lock_guard lock(mutex_);
    sampled.asked.reset();
    reading.stale = problem.has_value();
    reading.reason = problem ? problem->message : "";
    if (problem) {
        ++sampled.errors[problem->layer];
    } else {
        reading.value = std::move(value);
        reading.read.emplace();
    }
    return !problem;
}

void Collector::lose(std::span<Reading> parts) {
    const std::lock_guard lock(mutex_);
    for (Reading& part : parts)
        part = {std::move(part.value), part.read};
}

void Collector::end_sample(Sampled& sampled, Clock::time_point begin, bool good) {
    const std::lock_guard lock(mutex_);
    sampled.begin = begin;
    sampled.failed = !good;
    sampled.took = Clock::now() - begin;
    sampled_.notify_all();
}

template <typename Sample>
void Collector::keep_sampling(Sampled& sampled, Sample sample) {
    for (;;) {
        const Clock::time_point start = Clock::now();
        sample();
        {
            std::unique_lock lock(mutex_);
            sampled.wake.wait_until(lock, start + kIdle, [&] { return sampled.wanted; });
        }
        std::this_thread::sleep_until(start + kWanted);
        const std::lock_guard lock(mutex_);
        sampled.wanted = false;
    }
}

void Collector::sample_driver(Card& card, kivDriverClientList& functions) {
    const Clock::time_point start = Clock::now();
    const std::span<const DriverRead> reads = driver_reads();
    const auto read_first = [&] {
        kivDriverClientList former;  // Closed after unlocking: the driver is asked once more.
        {
            const std::lock_guard lock(mutex_);
            if (!card.fresh.empty()) former = std::exchange(functions, std::exchange(card.fresh, {}));
        }
        former.clear();
        return reads.front().read(functions);
    };
    const bool there = take(card.driver, card.parts[reads.front().part], Layer::Driver, read_first);
    if (!there) lose(of_driver(card.parts).subspan(1));
    for (std::size_t i = 1; there && i < reads.size(); ++i) {
        take(card.driver, card.parts[reads[i].part], Layer::Driver, [&] { return reads[i].read(functions); });
    }
    end_sample(card.driver, start, there);
}

/// The values of a sample first, which somebody may wait for, then those that are due, the one that is due
/// the longest first: a slow server tells each in its turn. When the next sample is wanted meanwhile, it
/// comes before the rest of them, unless that is missing.
void Collector::sample_server(Card& card, Dues& dues) {
    const Clock::time_point start = Clock::now();
    const auto address = [&] {
        const std::lock_guard lock(mutex_);
        return *card.address;
    }();
    const auto take_part = [&](const ServerRead& each) {
        return take(card.server, card.parts[each.part], Layer::Server, [&] { return ask(address, each); });
    };
    const std::span<const ServerRead> reads = server_reads();
    const bool there = take_part(reads.front());
    if (!there) {
        lose(of_server(card.parts).subspan(1));
        dues = {};
    }
    end_sample(card.server, start, there);
    const auto is_due_before = [&](const ServerRead& one, const ServerRead& other) {
        return dues[one.part] < dues[other.part];
    };
    for (std::size_t taken = 0; there && taken + 1 < reads.size(); ++taken) {
        const ServerRead& each = *std::min_element(reads.begin() + 1, reads.end(), is_due_before);
        if (Clock::now() < dues[each.part]) break;
        {
            const std::lock_guard lock(mutex_);
            if (taken > 0 && card.server.wanted && !card.parts[each.part].stale) break;
        }
        take_part(each);
        dues[each.part] = Clock::now() + each.period;
    }
}

// ---- Who looks for cards --------------------------------------------------------------------------------

void Collector::keep_finding() {
    for (;;) {
        const Clock::time_point start = Clock::now();
        end_sample(listing_, start, take(listing_, listed_, Layer::Driver, [this] { return find_cards(); }));
        std::this_thread::sleep_for(kSearch);
    }
}

/// Gives new cards, and those that failed, their connections. The others are closed, which asks the driver
/// once more.
Json Collector::find_cards() {
    std::map<uint8_t, kivDriverClientList> listed = list_cards();
    const std::lock_guard lock(mutex_);
    for (auto& [id, functions] : listed) {
        const bool is_new = !cards_.contains(id);
        Card& card = cards_[id];
        const kivDriverClient::device_conf_t& conf = functions.front()->device_conf;
        card.address.emplace(conf.tun, conf.port);
        if (is_new || (card.driver.failed && card.fresh.empty())) card.fresh.swap(functions);
        start(card.driver, [this, &card] {
            kivDriverClientList connections;
            keep_sampling(card.driver, [&] { sample_driver(card, connections); });
        });
        start(card.server, [this, &card] {
            Dues dues{};
            keep_sampling(card.server, [&] { sample_server(card, dues); });
        });
    }
    return nullptr;
}

/// Once. When no thread is to be had, the next listing tries again.
template <typename Body>
void Collector::start(Sampled& sampled, Body body) {
    if (!sampled.started) std::thread(body).detach();
    sampled.started = true;
}

void Collector::load_configuration() {
    const Clock::time_point start = Clock::now();
    const auto load = [] { return Json(read_configuration(configuration_path()).size()); };
    end_sample(loading_, start, take(loading_, loaded_, Layer::Configuration, load));
}

/// A point of every history for each interval.
void Collector::keep_recording() {
    for (;;) {
        const auto now = std::chrono::system_clock::now();
        // The clock's own unit: not every system's counts nanoseconds.
        const std::chrono::system_clock::duration left =
            History::kInterval - now.time_since_epoch() % History::kInterval;
        std::this_thread::sleep_for(left);
        const std::lock_guard lock(mutex_);
        for (auto& [id, card] : cards_)
            card.history.record(now + left, values_for_history(values_of(id, card)));
    }
}

}  // namespace kivctl
