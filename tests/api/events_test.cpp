// Events over the whole path: a card changes, a poll sees it, callbacks hear of it.
#include "api/FoundCards.h"

namespace {

using std::chrono::seconds;

/// Tells the log of an event, asks and sets its card, takes its time, and tells the log again.
void tell(uint8_t id, kiv_event_type_t type, const void* data, void*) {
    const std::string card = "card " + std::to_string(id);
    std::string text = card + (type == KIV_EVENT_PTP ? " ptp " : " link ");
    for (int i = 0; i < 4; ++i)  // A link's four values; of a PTP state the low byte is the first.
        text += std::to_string(static_cast<const uint8_t*>(data)[i]);
    kiv_log_print(KIV_LOG_LEVEL_ERROR, text.c_str());
    const kiv_net_config_t net{};
    const kiv_ptp_config_t ptp{};
    const kiv_result_t asked = ask<kiv_get_card_status, kiv_card_status_t>(id);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const bool used = asked == KIV_OK && kiv_set_ptp_config(id, &net, &ptp) == KIV_OK;
    kiv_log_print(KIV_LOG_LEVEL_ERROR, (card + (used ? " done" : " failed")).c_str());
}

struct Events : testing::Test {
    Events() {
        for (const uint8_t id : {uint8_t{1}, uint8_t{2}}) {
            EXPECT_EQ(kiv_register_callback_func(id, tell, nullptr), KIV_OK);
            EXPECT_EQ(kiv_enable_event(id, KIV_EVENT_LINK), KIV_OK);
        }
        expect({"card 1 done", "card 1 link 1111", "card 2 done", "card 2 link 1111"});
    }
    /// What callbacks tell from now on, sorted; polls come every second.
    void expect(const Lines& lines) {
        Lines told;
        const auto complete = [&] {
            for (const std::string& line : cards.log.take())
                if (line.starts_with("card ")) told.push_back(line);
            return told.size() >= lines.size();
        };
        wait_until(complete, seconds(5));
        std::sort(told.begin(), told.end());
        EXPECT_EQ(told, lines);
    }
    /// Looks at card 1 twice: the second time begins after this call and after the end of the first.
    void expect_silence() {
        const auto looks = [&] { return cards.driver_calls("card 1 function 1"); };
        const auto before = looks();
        EXPECT_TRUE(wait_until([&] { return looks() >= before + 2; }, seconds(5)));
        expect({});
    }
    FoundCards cards{kivsim::default_cards()};
};

}  // namespace

TEST_F(Events, AreHeardWhileTheyAreWantedAndTheirCallbackMayUseItsCard) {
    kiv_enable_event(1, KIV_EVENT_PTP);
    cards.control("PATCH", 1, R"({"links": [false, true], "ptp_state": 3})");
    expect({"card 1 done", "card 1 done", "card 1 link 1001", "card 1 ptp 3000"});
    kiv_disable_event(1, KIV_EVENT_LINK);
    cards.control("PATCH", 1, R"({"links": [true, true]})");
    expect_silence();
    kiv_enable_event(1, KIV_EVENT_LINK);
    expect({"card 1 link 1101"});
    EXPECT_EQ(kiv_unregister_callback_func(1), KIV_OK);
    EXPECT_EQ(cards.log_end(), "card 1 done") << "a callback that ran has ended";
    cards.control("PATCH", 1, R"({"links": [false, false]})");
    expect_silence();
}

TEST_F(Events, OutliveTheRemovalOfACardAndItsReturn) {
    cards.control("PATCH", 1, R"({"removed": true, "links": [false, false]})");
    uint64_t time = 0;
    EXPECT_EQ(info_of(1), KIV_ERR_FAILED);
    EXPECT_EQ((ask<kiv_get_flash_config, kiv_flash_config_t>(1)), KIV_ERR_REST);
    EXPECT_EQ(kiv_get_epoch_and_2point(1, &time, &time, &time), 0xE00002D9) << "the driver's own";
    expect_silence();
    cards.control("PATCH", 2, R"({"links": [false, true]})");
    expect({"card 2 done", "card 2 link 1001"});
    cards.control("PATCH", 1, R"({"removed": false})");
    expect({"card 1 done", "card 1 link 1010"});
    cards.control("PATCH", 1, R"({"removed": true})");
    kiv_scan_t scan{};
    EXPECT_EQ(kiv_scan(&scan), KIV_OK);
    EXPECT_EQ(scan.count, 1);
}
