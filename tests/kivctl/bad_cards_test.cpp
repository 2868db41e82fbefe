// Cards, servers and a driver that fail or hang: they hide no other card, and try nobody's patience.
#include <set>

#include "kivctl/Kivctl.h"
#include "support/DriverFault.h"
#include "support/LoopbackServer.h"

TEST_F(Kivctl, OneBadCardHidesNoOther) {
    const uint16_t closed = closed_port();
    LoopbackServer no_json({LoopbackServer::http(200, "what?")});
    kivsim::CardSettings unreadable = kivsim::believable_card(9);
    unreadable.driver_faults = {fault(wire::kReadPci64).status(-1)};
    kivsim::CardSettings good = kivsim::believable_card(4);
    good.flash_ms = 100;
    RunningSimulator simulator(
        {card_with_server(2, closed), good, card_with_server(5, no_json.port()), unreadable});

    const Json scan = json_of({"scan"}, 1);
    EXPECT_EQ(scan["complete"], false);
    ASSERT_EQ(scan["cards"].size(), 4u);
    EXPECT_EQ(scan["cards"][1]["usable"], true);
    EXPECT_EQ(scan["cards"][1]["ports"][0]["ip_address"], "192.168.10.14");
    const std::tuple<unsigned, const char*, const char*> problems[] = {
        {0, "network", "/api/v1.0: Connection refused"},
        {2, "server", "/hps/info/networks: the answer is no JSON"},
        {3, "driver", "cannot open it or read its registers"}};
    for (const auto& [row, layer, phrase] : problems) {
        const Json& card = scan["cards"][row];
        EXPECT_EQ(card["usable"], false);
        EXPECT_TRUE(card["card_word"].is_null());
        EXPECT_EQ(card["error"]["layer"], layer);
        EXPECT_TRUE(has(card["error"]["message"].get<std::string>(), phrase));
    }
    EXPECT_TRUE(has(expect({"scan"}, 1, "PARTIAL: 1 of 4 cards can be used\n").out, "\n2   -"));

    expect({"status", "4"}, 0, "QSFP2 case");
    TemporaryDirectory directory;
    write_file(directory / "image", "image");
    expect({"flash", "write", "4", directory / "image"}, 0, "slot 1 is written");
    expect({"status", "2"}, 1, ":" + std::to_string(closed) + "/api/v1.0: Connection refused");
    expect({"link", "2"}, 0, "up");  // Its driver answers.
    expect({"link", "9"}, 1, "card 9");
}

TEST_F(Kivctl, NothingThatHangsTriesThePatienceOfItsUser) {
    kivsim::CardSettings hangs = kivsim::believable_card(1);
    hangs.driver_faults = {fault(wire::kReadPci64).delay_ms(60'000)};
    LoopbackServer silent({{"", std::chrono::seconds(20)}});
    RunningSimulator simulator({hangs, card_with_server(2, silent.port()), kivsim::believable_card(3)});

    expect({"status", "3"}, 0);
    std::set<std::string> asked;
    for (const DriverEvent& read : simulator.calls(wire::kReadPci64))
        asked.insert(read.service);
    EXPECT_EQ(asked, std::set<std::string>{"card 3 function 0"}) << "a command for one card asks no other";
    EXPECT_EQ(silent.requests().size(), 0u);
    for (const char* const command : {"info", "link", "ptp"}) {
        const Json error = json_of({command, "1", "--timeout", "1"}, 4);
        EXPECT_TRUE(has(text_of(error), R"("name":"TIMEOUT","layer":"driver")"));
    }
    const Stopwatch watch;
    expect({"status", "2", "--timeout", "1"}, 4, "no end within 1 s");
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(5));
    const std::size_t before = simulator.calls(wire::kReadPci64).size();
    Program watching(kivctl({"watch"}), {});
    EXPECT_TRUE(wait_until([&] { return simulator.calls(wire::kReadPci64).size() > before; }));
    EXPECT_EQ(run_program(shell("exec \"$0\" watch > /dev/full")).status, 1)
        << "a thread that hangs holds up nothing";
    EXPECT_EQ(watching.end(SIGTERM, std::chrono::seconds(5)).status, 0) << "also while the scan waits";
}

TEST_F(Kivctl, ADriverThatHangsForOneCardHidesNoOther) {
    const RunningSimulator simulator({kivsim::believable_card(1), kivsim::believable_card(2)});
    const auto let_hang = [&](uint32_t selector) {
        const Json faults{{"driver_faults", {{{"selector", selector}, {"delay_ms", 100'000}}}}};
        EXPECT_EQ(simulator.control("PATCH", "", text_of(faults)).status, 200);
    };
    for (const uint32_t selector : {wire::kReadPci64, wire::kInit}) {
        let_hang(selector);
        const Json scan = json_of({"scan", "--timeout", "3"}, 1);
        ASSERT_EQ(scan["cards"].size(), 2u);
        EXPECT_EQ(scan["cards"][0]["error"]["name"], "TIMEOUT");
        EXPECT_EQ(scan["cards"][0]["error"]["message"],
                  "card 1: the driver lists it, but gave no answer about it within 2.0 s");
        EXPECT_EQ(scan["cards"][1]["ports"][0]["ip_address"], "192.168.10.12");
    }
    for (const uint32_t selector : {wire::kLoadBootConf, wire::kGetDeviceConf}) {
        let_hang(selector);
        for (const char* const command : {"scan --timeout 1", "link 2 --timeout 1"})
            expect(words_of(command), 4, "the driver, which hangs while it lists its cards");
    }
}

TEST_F(Kivctl, TheRightOneIsBlamed) {
    kivsim::CardSettings late = kivsim::believable_card(1);
    late.driver_faults = {fault(wire::kReadPci64).nth(6).delay_ms(60'000)};
    const RunningSimulator simulator({late});
    expect({"link", "1", "--timeout", "1"}, 4, "an answer of the driver about the card");
    simulator.control("PATCH", "", R"({"driver_faults": [{"selector": 31, "reply_size": 3}]})");
    expect({"scan"}, 1, "the driver gives no address of its management server");
    EXPECT_EQ(json_of({"status", "1"}, 1)["layer"], "driver");
    for (const char* const wrong : {"0", "[1]", R"({"a": 1})", R"([{"if_name": 5}])"}) {
        simulator.control("PATCH", "",
                          R"({"driver_faults": [], "answers": {"/hps/info/networks": {"interfaces": )" +
                              std::string(wrong) + "}}}");
        EXPECT_EQ(json_of({"status", "1"}, 1)["layer"], "server") << wrong;
    }
}

TEST_F(KivctlCard, EndsWhenItsAnswerIsOut) {
    expect({"info", "1"}, 0);
    // On a busy machine one may take longer, but not each.
    EXPECT_TRUE(wait_until([&] {
        const Stopwatch watch;
        expect({"status", "1"}, 0);
        return watch.elapsed() < std::chrono::milliseconds(450);
    })) << "half a second, when it waits for the library's timer";
    const Ended full = run_program(shell("exec \"$0\" info 1 > /dev/full"));
    expect_error(full, 1, "standard output cannot be written: No space left");
}
