/// The values of all cards, sampled while the program runs.
#ifndef KIVCTL_COLLECTOR_H
#define KIVCTL_COLLECTOR_H

#include <kiv/kivDriverClient.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "history.h"
#include "samples.h"
#include "stamp.h"

namespace kivctl {

/// One value, or some that are read together.
struct Reading {
    Json value;                 ///< The last good one; null before the first.
    std::optional<Stamp> read;  ///< When.
    bool stale = true;          ///< It was asked for since, in vain, or its source does not answer.
    std::string reason = "";    ///< Why it is stale; empty when another part's failure is to blame.
};

/// Who tells values, and how asking goes.
struct Source {
    bool ok = false;
    std::optional<Stamp> success;           ///< The last time that it answered.
    std::string reason = "";                ///< Why it is not ok; empty before it was asked.
    std::chrono::duration<double> took{0};  ///< Its last sample.
    std::map<Layer, uint64_t> errors = {};  ///< Since the start, by where they were.
};

struct CardValues {
    uint8_t id = 0;
    Source driver;
    Source server;
    std::array<Reading, kParts> parts;

    /// Whether its registers can be read.
    bool is_there() const { return !parts[kPorts].stale; }

    /// PTP time of the card less the host's, nanoseconds. The host's clock is UTC: the card's TAI-UTC is
    /// added to it while the card says that it is valid, else the two clocks are compared as they stand.
    /// Nothing before card and master have been asked.
    std::optional<int64_t> offset_to_host() const;
};

struct Snapshot {
    Stamp time;
    Source driver;         ///< Of the machine: it lists the cards.
    Source configuration;  ///< The card configuration of this machine, which can be loaded or not.
    /// By id, from the first answer of its driver on, or when it is late. A card that was seen once stays.
    std::vector<CardValues> cards;
};

/// Samples each card by two threads, one for its driver and one for its server, so that neither holds up the
/// other, nor another card: a driver that hangs does not end the wait of a thread that has asked it. Never
/// destroyed, for such a thread cannot be waited for. All functions may be called on any thread.
///
/// Each source is sampled every five seconds, and at once, but at most once a second, when somebody asks:
/// however many ask, they share the samples.
class Collector {
  public:
    /// `new`, and keep it.
    Collector();
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    /// Waits, at most so long, until all cards have fresh samples, and tells since when a value counts as
    /// fresh. A source that failed last time, or has not answered for some seconds, is asked but not waited
    /// for.
    Clock::time_point refresh(Clock::duration limit);

    Snapshot snapshot();

    /// Nothing for a card that was never seen.
    std::optional<Json> history(uint8_t id);

  private:
    /// How the asking of a source goes.
    struct Sampled {
        /// From 0 on for the layers where they are to be expected: a monitoring system sees no first one of
        /// a counter that begins with it.
        std::map<Layer, uint64_t> errors;
        std::optional<Clock::time_point> asked = {};  ///< Since when an answer is waited for.
        Clock::time_point begin = {};                 ///< Of the last sample that has ended.
        std::chrono::duration<double> took{0};
        bool started = false;  ///< Its thread.
        bool failed = false;   ///< In the last sample that has ended it did not answer.
        bool wanted = false;   ///< Somebody waits for the next sample.
        std::condition_variable wake = {};
    };
    struct Card {
        std::array<Reading, kParts> parts;
        Sampled driver{{{Layer::Driver, 0}}};
        Sampled server{{{Layer::Network, 0}, {Layer::Server, 0}}};
        std::optional<Server> address;
        kivDriverClientList fresh;  ///< Connections to take in place of those that it has.
        History history;
    };
    using Dues = std::array<Clock::time_point, kParts>;

    void keep_finding();
    Json find_cards();
    void keep_recording();
    template <typename Sample>
    void keep_sampling(Sampled& sampled, Sample sample);
    void sample_driver(Card& card, kivDriverClientList& functions);
    void sample_server(Card& card, Dues& dues);
    template <typename Read>
    bool take(Sampled& sampled, Reading& reading, Layer layer, Read read);
    void end_sample(Sampled& sampled, Clock::time_point begin, bool good);
    template <typename Body>
    static void start(Sampled& sampled, Body body);
    void load_configuration();
    void lose(std::span<Reading> parts);
    static CardValues values_of(uint8_t id, const Card& card);

    std::mutex mutex_;  ///< Guards all below.
    std::condition_variable sampled_;
    std::map<uint8_t, Card> cards_;
    Sampled listing_{{{Layer::Driver, 0}}};
    Reading listed_;
    Sampled loading_{{{Layer::Configuration, 0}}};  ///< Of the card configuration.
    Reading loaded_;
};

}  // namespace kivctl

#endif
