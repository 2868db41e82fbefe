// The scan over the whole path: driver process, management servers, both real.
#include <kiv/PeriodicThreadPool.h>

#include "api/FoundCards.h"
#include "support/LoopbackServer.h"

namespace {

using kivsim::CardSettings;

const auto kNoInterfaces = LoopbackServer::http(200, R"({"data":{"interfaces":[]}})");

class Scan : public testing::Test {
  protected:
    ~Scan() override { kiv_close(); }
};

}  // namespace

TEST_F(Scan, GivesOneRecordForEachCard) {
    RunningSimulator simulator;
    kiv_scan_t scan{};
    ASSERT_EQ(kiv_scan(&scan), KIV_OK);
    ASSERT_EQ(scan.count, 2);
    EXPECT_EQ(scan.devices[0].device_id + scan.devices[1].device_id, 3) << "in any order";
    for (int i = 0; i < scan.count; ++i) {
        const kiv_scan_card_device_t& card = scan.devices[i];
        EXPECT_EQ(card.card_word, 0x5354323131300000u | card.device_id);
        EXPECT_EQ(card.ip_address_0, 0xC0A80A0Au + card.device_id);
        EXPECT_EQ(card.ip_address_1, 0xC0A8140Au + card.device_id);
    }
    // And it costs no more than it must.
    std::vector<uint32_t> opening{wire::kLoadBootConf, wire::kGetDeviceConf, wire::kInit};
    auto second = simulator.selectors("card 1 function 1");
    std::erase(second, wire::kReadPci64);  // Of the polls, which have begun.
    EXPECT_EQ(second, opening);
    opening.insert(opening.end(), 5, wire::kReadPci64);
    EXPECT_EQ(simulator.selectors("card 1 function 0"), opening);
    EXPECT_EQ(simulator.requests().size(), 4u);
}

TEST_F(Scan, WithoutCardsIsASuccessThatMakesTheManagerActive) {
    EXPECT_EQ(info_of(1), KIV_ERR_NOT_OPENED);
    setenv("KIVSIM_SOCKET", "/nonexistent/socket", 1);
    for (const bool driver_runs : {false, true}) {
        std::unique_ptr<RunningSimulator> simulator;
        if (driver_runs) simulator = std::make_unique<RunningSimulator>(std::vector<CardSettings>{});
        testing::internal::CaptureStdout();
        kiv_scan_t scan{9, nullptr};
        EXPECT_EQ(kiv_scan(&scan), KIV_OK);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Fail open device\n");
        EXPECT_EQ(scan.count, 0);
        EXPECT_EQ(info_of(1), KIV_ERR_NO_DEVICE);
    }
}

TEST_F(Scan, FailsWithAllOfItsCardsWhenOneDoesNotOpen) {
    LoopbackServer no_interfaces({LoopbackServer::http(200, R"({"data":{}})")});
    LoopbackServer wrong_type({LoopbackServer::http(200, R"({"data":{"interfaces":[{"if_name":1}]}})")});
    const uint16_t closed = closed_port();
    const std::string closed_url = "http://127.0.0.1:" + std::to_string(closed) + "/api/v1.0";
    CardSettings no_function_0 = kivsim::believable_card(5);
    no_function_0.functions.erase(no_function_0.functions.begin());
    const std::tuple<const char*, CardSettings, Lines> cases[] = {
        {"server down",
         card_with_server(5, closed),
         {"Couldn't connect to server", "network error", "Couldn't connect to server", "network error",
          "Couldn't connect to server", "network error", "HTTP Network error: retry over",
          "Fail HTTP request url=" + closed_url, "[5]Open Fail"}},
        {"no interface list",
         card_with_server(5, no_interfaces.port()),
         {"Fail HTTP request url=" + no_interfaces.url() + "/api/v1.0", "[5]Open Fail"}},
        {"interface list of a wrong type", card_with_server(5, wrong_type.port()), {"[5]Open Fail"}},
        {"driver refuses", card_with_fault(5, fault(wire::kInit).status(-1)), {"[5]Open Fail"}},
        {"no function 0, so no server address", no_function_0, {"[5]Open Fail"}},
    };
    for (const auto& [what, card, lines] : cases) {
        SCOPED_TRACE(what);
        RunningSimulator simulator({card});
        CapturedLog log;
        kiv_scan_t scan{9, nullptr};
        EXPECT_EQ(kiv_scan(&scan), KIV_ERR_FAILED);
        EXPECT_EQ(log.take(), lines);
        EXPECT_EQ(scan.count, 9) << "a failed scan writes nothing";
        EXPECT_NE(info_of(5), KIV_ERR_NOT_OPENED) << "the manager stays active";
    }
}

TEST_F(Scan, FailsWhenACardDoesNotGiveItsRecord) {
    // The server gives its interfaces when it is opened and then no more, or something else.
    const auto bad_mask = LoopbackServer::http(
        200,
        R"({"data":{"interfaces":[{"if_name":"maceth0","ip_addr":"10.0.0.1","netmask":"none","hw_addr":""}]}})");
    LoopbackServer falls_silent({kNoInterfaces, LoopbackServer::http(503, "busy")});
    LoopbackServer turns_bad({kNoInterfaces, bad_mask});
    // The last of the five registers, whose value is not even used.
    const fault unreadable = fault(wire::kReadPci64).nth(5).status(-1);
    const std::pair<CardSettings, Lines> cases[] = {
        {card_with_server(5, falls_silent.port()),
         {"HTTP Server error status=503, msg=http status 503", "Fail get_interface_info",
          "[5]kiv_get_media_net_config in kiv_scan"}},
        {card_with_server(5, turns_bad.port()), {"[5]kiv_get_media_net_config in kiv_scan"}},
        {card_with_fault(5, unreadable), {"[5]kiv_get_card_info in kiv_scan"}},
    };
    for (const auto& [card, expected] : cases) {
        SCOPED_TRACE(testing::PrintToString(expected));
        RunningSimulator simulator({card});
        testing::internal::CaptureStdout();  // The open has sent the log back to its back end.
        setenv("OS_ACTIVITY_DT_MODE", "1", 1);
        testing::internal::CaptureStderr();
        EXPECT_EQ(scan(), KIV_ERR_FAILED);
        testing::internal::GetCapturedStdout();
        const std::string mirrored = testing::internal::GetCapturedStderr();
        std::size_t at = 0;
        for (const std::string& line : expected) {
            at = mirrored.find(line + "\n", at);
            EXPECT_NE(at, std::string::npos) << line << " is not there, or not in order:\n" << mirrored;
        }
    }
}

TEST_F(Scan, ReplacesTheCardsOfTheOneBefore) {
    auto simulator = std::make_unique<RunningSimulator>();
    kiv_scan_t scan{};
    ASSERT_EQ(kiv_scan(&scan), KIV_OK);
    CapturedLog log;
    for (const kiv_result_t result :
         {kiv_scan(nullptr), kiv_scan_internal(nullptr), kiv_scan_each(nullptr, 0, nullptr)})
        EXPECT_EQ(result, KIV_ERR_NULL_ARGUMENT);
    EXPECT_EQ(log.take(), Lines(3, "Argument is NULL"));
    EXPECT_EQ(info_of(1), KIV_OK) << "it has replaced nothing";
    simulator = nullptr;
    EXPECT_EQ(info_of(1), KIV_ERR_FAILED) << "the driver process is gone";
    EXPECT_EQ(net_of(1), KIV_ERR_REST) << "and the servers";

    simulator = std::make_unique<RunningSimulator>(
        std::vector{card_with_server(3, closed_port()), kivsim::believable_card(4)});
    EXPECT_EQ(kiv_scan(&scan), KIV_ERR_FAILED);
    EXPECT_EQ(info_of(1), KIV_ERR_NO_DEVICE);

    simulator = nullptr;
    simulator = std::make_unique<RunningSimulator>(std::vector{kivsim::believable_card(4)});
    ASSERT_EQ(kiv_scan(&scan), KIV_OK);
    ASSERT_EQ(scan.count, 1);
    EXPECT_EQ(scan.devices[0].device_id, 4);
    EXPECT_EQ(simulator->open_connections(), 2) << "those of the scans before are closed";
}

TEST_F(Scan, OfTheInternalKindKeepsTheTunnelsOfTheFirst) {
    auto simulator = std::make_unique<RunningSimulator>(std::vector{kivsim::believable_card(4)});
    kiv_scan_internal_t first{};
    ASSERT_EQ(kiv_scan_internal(&first), KIV_OK);
    ASSERT_EQ(first.count, 1);
    const kiv_scan_card_device_internal_t tunnel = first.internal[0];
    EXPECT_EQ(tunnel.tunnel_address, 0x7F000001u);
    EXPECT_EQ("127.0.0.1:" + std::to_string(tunnel.tunnel_value), (*simulator)->server_addresses()[0]);

    simulator = nullptr;
    simulator = std::make_unique<RunningSimulator>();
    kiv_scan_internal_t second{};
    ASSERT_EQ(kiv_scan_internal(&second), KIV_OK);
    ASSERT_EQ(second.count, 2);
    EXPECT_EQ(second.internal[0].tunnel_value, tunnel.tunnel_value) << "not a port of the second scan";
    EXPECT_EQ("127.0.0.1:" + std::to_string(second.internal[1].tunnel_value),
              (*simulator)->server_addresses()[second.devices[0].device_id - 1u]);
}

TEST_F(Scan, AndCloseDoNothingOnAThreadOfTheLibrary) {
    RunningSimulator simulator;
    ASSERT_EQ(scan(), KIV_OK);
    std::promise<std::pair<kiv_result_t, kiv_result_t>> results;
    kiv::device::thread::PeriodicThreadPool pool(1);
    pool.post([&] {
        const kiv_result_t scanned = scan();
        results.set_value({scanned, kiv_close()});
    });
    EXPECT_EQ(results.get_future().get(), std::pair(KIV_ERR_FAILED, KIV_OK));
    EXPECT_EQ(info_of(1), KIV_OK) << "the cards are still there";
}

TEST_F(Scan, OfEachCardLetsNoBadOneHideTheOthers) {
    const uint16_t closed = closed_port();
    RunningSimulator simulator({card_with_fault(9, fault(wire::kReadPci64).nth(5).status(-1)),
                                kivsim::believable_card(1), card_with_server(5, closed),
                                card_with_fault(6, fault(wire::kInit).status(-1)),
                                kivsim::believable_card(7)});
    kiv_scan_each_t scan{};
    ASSERT_EQ(kiv_scan_each(nullptr, 0, &scan), KIV_OK);
    const std::pair<unsigned, kiv_result_t> expected[] = {
        {1, KIV_OK}, {5, KIV_ERR_REST}, {6, KIV_ERR_FAILED}, {7, KIV_OK}, {9, KIV_ERR_FAILED}};
    ASSERT_EQ(scan.count, std::size(expected));
    for (unsigned i = 0; i < scan.count; ++i) {
        const kiv_scan_each_card_t& card = scan.cards[i];
        const auto [id, result] = expected[i];
        SCOPED_TRACE(id);
        EXPECT_EQ(card.device.device_id, id);
        EXPECT_EQ(card.result, result);
        EXPECT_EQ(card.device.card_word, result == KIV_OK ? 0x5354323131300000u | id : 0);
        EXPECT_EQ(card.device.ip_address_1, result == KIV_OK ? 0xC0A8140Au + id : 0);
        EXPECT_EQ(card.tunnel.tunnel_address, 0x7F000001u);
        EXPECT_EQ(net_of(card.device.device_id) == KIV_OK, card.result == KIV_OK || id == 9);
    }
    EXPECT_EQ(scan.cards[1].tunnel.tunnel_value, closed);
    EXPECT_EQ(info_of(5), KIV_OK) << "its driver answers all the same";

    const uint8_t only = 7;
    const std::size_t opened = simulator.calls(wire::kInit).size();
    ASSERT_EQ(kiv_scan_each(&only, 0, &scan), KIV_OK);
    ASSERT_EQ(scan.count, 1u);
    EXPECT_EQ(scan.cards[0].device.device_id, 7);
    EXPECT_EQ(simulator.calls(wire::kInit).size(), opened + 2) << "no other card is opened";
    EXPECT_EQ(info_of(1), KIV_ERR_NO_DEVICE);
    const uint8_t none = 77;
    ASSERT_EQ(kiv_scan_each(&none, 0, &scan), KIV_OK);
    EXPECT_EQ(scan.count, 0u);
}

TEST_F(Scan, OfEachCardOpensThemAtTheSameTime) {
    // Each server holds its first answer back until the other one has been asked.
    std::promise<void> asked[2];
    std::atomic<int> met{0};
    const auto reply = [&](int own) {
        LoopbackServer::Reply given = kNoInterfaces;
        given.before = [&, own] {
            asked[own].set_value();
            if (asked[1 - own].get_future().wait_for(std::chrono::seconds(5)) == std::future_status::ready)
                ++met;
        };
        return given;
    };
    LoopbackServer first({reply(0), kNoInterfaces}), second({reply(1), kNoInterfaces});
    RunningSimulator simulator({card_with_server(1, first.port()), card_with_server(2, second.port())});
    kiv_scan_each_t scan{};
    ASSERT_EQ(kiv_scan_each(nullptr, 0, &scan), KIV_OK);
    EXPECT_EQ(met, 2);
    ASSERT_EQ(scan.count, 2u);
    EXPECT_EQ(scan.cards[1].result, KIV_OK);
}

TEST_F(Scan, OfEachCardLeavesADriverThatHangs) {
    RunningSimulator simulator(
        {card_with_fault(1, fault(wire::kInit).delay_ms(60'000)), kivsim::believable_card(2)});
    const auto start = std::chrono::steady_clock::now();
    kiv_scan_each_t scan{};
    ASSERT_EQ(kiv_scan_each(nullptr, 1000, &scan), KIV_OK);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    ASSERT_EQ(scan.count, 2u);
    EXPECT_EQ(scan.cards[0].result, KIV_ERR_BUSY);
    EXPECT_EQ(scan.cards[1].result, KIV_OK);
    EXPECT_EQ(info_of(2), KIV_OK);
    simulator.stop();
    EXPECT_EQ(kiv_close(), KIV_OK);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(50))
        << "nobody waits for the call";
}
