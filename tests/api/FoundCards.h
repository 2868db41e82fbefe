/// Virtual cards that a scan has found, and what reaches them.
#ifndef KIV_TEST_FOUND_CARDS_H
#define KIV_TEST_FOUND_CARDS_H

#include <gtest/gtest.h>
#include <kiv/kivClient.h>
#include <kiv/kiv_api.h>

#include <algorithm>
#include <cstring>
#include <typeinfo>

#include "support/CapturedLog.h"
#include "support/RunningSimulator.h"

using Json = nlohmann::ordered_json;
using Lines = std::vector<std::string>;

struct FoundCards {
    explicit FoundCards(std::vector<kivsim::CardSettings> cards = {kivsim::believable_card(1)})
        : simulator(std::move(cards)) {
        kiv_scan_t scan{};
        EXPECT_EQ(kiv_scan(&scan), KIV_OK);
        take_requests();
        log.again();
        log.take();
    }
    ~FoundCards() { kiv_close(); }

    /// Asks the control address: "PATCH" replaces members of a card, "POST" and "DELETE" are for its faults.
    void control(const std::string& method, int id, const std::string& body) {
        HttpClient client("http://" + simulator->control_address() + "/cards/" + std::to_string(id));
        const std::string path = method == "PATCH" ? "" : "/faults";
        EXPECT_EQ(client.perform(method, path, body, "application/json", 5).status, 200) << body;
    }

    /// "METHOD path body" of the requests since the last call, with paths below "/api/v1.0/hps/"; of an
    /// upload without its body.
    Lines take_requests() {
        Lines fresh;
        for (const auto all = simulator.requests(); seen < all.size(); ++seen) {
            const std::string method = all[seen]["method"], path = all[seen]["path"],
                              body = all[seen]["body"];
            const bool shown = !body.empty() && !path.ends_with("upload");
            fresh.push_back(method + " " + path.substr(14) + (shown ? " " + body : ""));
        }
        return fresh;
    }

    /// Calls so far of a service: "card 1 function 1" is asked by polls, and for links and PTP state.
    auto driver_calls(const std::string& service) const {
        const auto trace = simulator.trace();
        return std::count_if(trace.begin(), trace.end(), [&](const auto& event) {
            return event["event"] == "call" && event["service"] == service;
        });
    }

    /// The last line logged since the last call.
    std::string log_end() {
        const Lines lines = log.take();
        return lines.empty() ? "" : lines.back();
    }

    CapturedLog log;
    RunningSimulator simulator;
    std::size_t seen = 0;  ///< Requests that were taken.
};

/// Calls an entry point with a record of zeros, or with null.
template <auto entry_point, typename Record>
kiv_result_t ask(uint8_t id, bool null = false) {
    Record record{};
    return entry_point(id, null ? nullptr : &record);
}

/// A query of card 1 gives `result` and writes just what `fill` writes: both records begin as bytes 0xA5.
template <typename Record, typename Fill>
void expect_record(kiv_result_t (*query)(uint8_t, Record*), kiv_result_t result, Fill fill) {
    Record actual, expected;
    std::memset(static_cast<void*>(&actual), 0xA5, sizeof actual);
    std::memset(static_cast<void*>(&expected), 0xA5, sizeof expected);
    fill(expected);
    EXPECT_EQ(query(1, &actual), result) << typeid(Record).name();
    EXPECT_EQ(std::memcmp(&actual, &expected, sizeof actual), 0) << typeid(Record).name();
}

#endif
