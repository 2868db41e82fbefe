/// Virtual cards that a scan has found, and what reaches them.
#ifndef KIV_TEST_FOUND_CARDS_H
#define KIV_TEST_FOUND_CARDS_H

#include <kiv/kiv_api.h>

#include <typeinfo>

#include "support/CapturedLog.h"
#include "support/DriverFault.h"
#include "support/RunningSimulator.h"
#include "support/Test.h"

inline kivsim::CardSettings card_with_fault(uint8_t id, kivsim::DriverFault fault) {
    kivsim::CardSettings card = kivsim::believable_card(id);
    card.driver_faults = {fault};
    return card;
}

/// Calls an entry point with a record of zeros, or with null.
template <auto entry_point, typename Record>
kiv_result_t ask(uint8_t id, bool null = false) {
    Record record{};
    return entry_point(id, null ? nullptr : &record);
}

inline kiv_result_t info_of(uint8_t id) {
    return ask<kiv_get_card_info, kiv_card_info_t>(id);
}
inline kiv_result_t net_of(uint8_t id) {
    return ask<kiv_get_media_net_config, kiv_net_config_t>(id);
}
inline kiv_result_t scan() {
    kiv_scan_t found{};
    return kiv_scan(&found);
}

struct FoundCards {
    explicit FoundCards(std::vector<kivsim::CardSettings> cards = {kivsim::believable_card(1)})
        : simulator(std::move(cards)) {
        EXPECT_EQ(scan(), KIV_OK);
        take_requests();
        log.again();
        log.take();
    }
    ~FoundCards() { kiv_close(); }

    /// Asks the control address: "PATCH" replaces members of a card, "POST" and "DELETE" are for its faults.
    void control(const std::string& method, unsigned id, const std::string& body) {
        const std::string path = method == "PATCH" ? "" : "/http_faults";
        EXPECT_EQ(simulator.control(method, path, body, id).status, 200) << body;
    }

    /// "METHOD path body" of the requests since the last call, with paths below "/api/v1.0/hps/"; of an
    /// upload without its body.
    Lines take_requests() {
        Lines fresh;
        for (const auto all = simulator.requests(); seen < all.size(); ++seen) {
            const CardRequest& request = all[seen];
            const bool shown = !request.body.empty() && !request.path.ends_with("upload");
            fresh.push_back(request.method + " " + request.path.substr(14) +
                            (shown ? " " + request.body : ""));
        }
        return fresh;
    }

    /// Calls so far of a service: "card 1 function 1" is asked by polls, and for links and PTP state.
    std::size_t driver_calls(const std::string& service) const { return simulator.selectors(service).size(); }

    /// The last line logged since the last call.
    std::string log_end() {
        const Lines lines = log.take();
        return lines.empty() ? "" : lines.back();
    }

    CapturedLog log;
    RunningSimulator simulator;
    std::size_t seen = 0;  ///< Requests that were taken.
};

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
