// The watch over cards: present state, events, and what is lost and found.

#include <map>

#include "kivctl/Kivctl.h"
#include "support/DriverFault.h"

namespace {

/// The next line behind its time.
std::string next(Program& watch) {
    const std::string line = watch.read_line();
    return line.size() > 25 ? line.substr(25) : line;
}

/// The next lines, as many as there are phrases; each phrase is in one of them, in whatever order.
void expect_next(Program& watch, const std::vector<std::string>& phrases) {
    std::string lines;
    for (std::size_t i = 0; i < phrases.size(); ++i)
        lines += next(watch) + "\n";
    for (const std::string& phrase : phrases)
        EXPECT_TRUE(has(lines, phrase));
}

/// Until the driver has listed its cards once more.
void wait_for_listing(const RunningSimulator& simulator, const std::string& service) {
    const auto opened = [&] {
        std::vector<DriverEvent> trace = simulator.trace();
        return std::erase_if(trace, [&](const auto& e) { return e.event == "open" && e.service == service; });
    };
    const auto before = opened();
    EXPECT_TRUE(wait_until([&] { return opened() > before; }));
}

Json next_event(Program& watch) {
    Json event = parsed(watch.read_line());
    EXPECT_EQ(event["schema"], "kivctl.watch/1");
    EXPECT_EQ(event["time"].get<std::string>().size(), std::string("2000-01-01T00:00:00.000Z").size());
    event.erase("schema");
    event.erase("time");
    return event;
}

}  // namespace

TEST_F(KivctlCard, WatchShowsTheStateAndThenChangesUntilASignal) {
    change(
        {{"hwmon", {{{"label", "QSFP1 Case Temperature"}, {"input", 81}, {"max", 70}, {"critical", 80}}}}});
    Program json(kivctl({"watch", "--json"}));
    Program text(kivctl({"watch", "1"}));
    EXPECT_EQ(next(text),
              "card 1    state  port 0 up, port 1 up, PTP state 0, QSFP1 case 81 (max 70, critical 80)");
    EXPECT_EQ(next_event(json), parsed(R"({"card": 1, "event": "state",
        "ports": [{"port": 0, "changed": true, "link": "up"}, {"port": 1, "changed": true, "link": "up"}],
        "ptp_state": 0, "sensors": [{"name": "QSFP1 case", "input": 81, "max": 70, "critical": 80,
                                     "state": "critical"}]})"))
        << "sensors that the card does not report are left out";

    change({{"links", {true, false}}});
    EXPECT_EQ(next(text), "card 1    link   port 1 down");
    EXPECT_EQ(next_event(json)["ports"], parsed(R"([{"port": 0, "changed": false, "link": "up"},
                                                    {"port": 1, "changed": true, "link": "down"}])"));
    change({{"ptp_state", 3}});
    EXPECT_EQ(next(text), "card 1    ptp    state 3");
    EXPECT_EQ(next_event(json), parsed(R"({"card": 1, "event": "ptp", "ptp_state": 3})"));

    const std::pair<Program*, int> ends[] = {{&json, SIGINT}, {&text, SIGTERM}};
    for (const auto& [watch, signal] : ends) {
        const Ended ended = watch->end(signal, std::chrono::seconds(3));
        EXPECT_EQ(std::tuple(ended.status, ended.out), std::tuple(0, "")) << ended.err;
    }
    EXPECT_EQ(run({"watch", "2"}).status, 1);
}

TEST_F(KivctlCard, WatchLogsToAFileThatMayBeFullForAWhile) {
    const std::string log = directory_ / "events";
    const std::string former = std::string(1000, ' ') + "\n";
    write_file(log, former);
    // A limit of 1024 bytes to a file stands for the end of a disk.
    Program watch(shell("trap '' XFSZ; ulimit -f 2; exec \"$0\" watch --json --log \"$1\"", {log}));
    const std::string state = watch.read_line();
    EXPECT_EQ(read_file(log), former + state.substr(0, 1024 - former.size()));
    change({{"links", {false, true}}});
    EXPECT_NE(watch.read_line(), "");
    truncate(log.c_str(), 0);
    change({{"ptp_state", 3}});
    const std::string last = watch.read_line();
    const Ended ended = watch.end(SIGTERM);
    expect_error(ended, 0, "events: File too large: lines are left out until it can be written again");
    EXPECT_TRUE(has(ended.err, ": written again; 2 lines were left out"));
    EXPECT_EQ(read_file(log), "\n" + last + "\n") << "behind half of a line a new one begins";

    for (const std::string& bad : {directory_ / "none/log", directory_ / ".", std::string("/dev/full")})
        expect({"watch", "--log", bad}, 2, bad + ": ");
}

TEST_F(Kivctl, WatchShowsTheStatusOfAllCardsAndHowOldItIs) {
    RunningSimulator simulator;
    const TemporaryDirectory directory;
    Program screen(kivctl({"watch", "--status"}));
    Program json(kivctl({"watch", "--status", "--json", "--log", directory / "log", "2"}));
    /// The next line with all of these, in this order.
    const auto line_with = [&](const std::vector<std::string>& phrases) {
        for (std::string line = screen.read_line();; line = screen.read_line()) {
            std::size_t at = 0;
            for (const std::string& phrase : phrases)
                at = at == std::string::npos ? at : line.find(phrase, at);
            if (at != std::string::npos) return line;
        }
    };
    line_with({"  2 cards: 2 ok"});
    line_with(
        {"2     ok", "up 42.5/10.0", "up 40.0/5.0", " s ", "locked", "Board near FPGA 47/75", "63", "idle"});
    simulator.control("PATCH", "", R"({"links": [false, true]})", 1);
    line_with({"1     ok", "down 42.5"});
    simulator.control("POST", "/http_faults", R"({"path": "/hps/hwmon/info", "status": 503})", 1);
    line_with({"1     no server", "down 42.5", " s !  "});
    line_with({"card 1, server: ", "503"});
    line_with({"! the last value that was read"});
    simulator.control("PATCH", "", R"({"removed": true})", 2);
    line_with({"2     lost", "up 42.5/10.0", " s !"});

    const std::string first = json.read_line();
    Json last = parsed(first);
    while (last["cards"].empty() || last["cards"][0]["state"] != "lost")
        last = parsed(json.read_line());
    EXPECT_EQ(last["schema"], "kivctl.cards/1");
    EXPECT_EQ(last["cards"].size(), 1u);
    EXPECT_EQ(last["cards"][0]["ages"]["ports"]["stale"], true);
    EXPECT_EQ(screen.end(SIGINT).status, 0);
    json.end(SIGTERM);
    EXPECT_TRUE(read_file(directory / "log").starts_with(first + "\n"));
}

TEST_F(Kivctl, WatchSaysWhatIsLostAndFound) {
    auto simulator = std::make_unique<RunningSimulator>();
    const std::string socket = simulator->socket_path();
    Program watch(kivctl({"watch"}));
    expect_next(watch, {"card 1    state", "card 2    state"});

    simulator->control("PATCH", "", R"({"removed": true})", 2);
    expect_next(watch, {"card 2    lost   card", "card 2    lost   server: http://127.0.0.1:"});
    wait_for_listing(*simulator,
                     "card 1 function 0");  // The search does not end with the cards that are there.
    simulator->control("PATCH", "", R"({"removed": false, "links": [false, true]})", 2);
    expect_next(watch, {"card 2    found  card", "card 2    found  server", "card 2    link   port 0 down"});

    simulator->control("POST", "/http_faults", R"({"path": "/hps/info/networks", "status": 503})", 1);
    EXPECT_TRUE(has(next(watch), "card 1    lost   server: http://127.0.0.1:"));
    simulator->control("DELETE", "/http_faults", "", 1);
    EXPECT_EQ(next(watch), "card 1    found  server");

    (*simulator).stop();
    std::string driver = next(watch);
    while (driver.find("server") != std::string::npos)
        driver = next(watch);
    EXPECT_EQ(driver, "          lost   driver: No such file or directory");
    const kivsim::Simulator again(kivsim::default_cards(), socket, "");
    EXPECT_EQ(next(watch), "          found  driver");
    EXPECT_EQ(watch.end(SIGINT, std::chrono::seconds(5)).status, 0);
}

TEST_F(Kivctl, WatchSeesADriverThatWasReplacedAtOnce) {
    RunningSimulator simulator;
    Program watch(kivctl({"watch", "--json"}));
    for (int card = 1; card <= 2; ++card)
        EXPECT_EQ(next_event(watch)["event"], "state");
    simulator.stop();
    const kivsim::Simulator again(kivsim::default_cards(), simulator.socket_path(), "");
    std::map<std::string, bool> lost;  // Until it is found.
    const auto all_found = [&] {
        const bool all_seen =
            lost.contains("driver null") || (lost.contains("card 1") && lost.contains("card 2"));
        return all_seen &&
               std::none_of(lost.begin(), lost.end(), [](const auto& each) { return each.second; });
    };
    while (!all_found()) {
        const Json event = next_event(watch);
        if (!event.contains("what")) break;
        bool& is_lost = lost[event["what"].get<std::string>() + " " + text_of(event["card"])];
        EXPECT_TRUE(is_lost || event["event"] == "lost") << text_of(event);
        is_lost = event["event"] == "lost";
    }
    EXPECT_TRUE(all_found()) << testing::PrintToString(lost);
}

TEST_F(Kivctl, WatchLetsNoCardThatFailsOrHangsHideAnother) {
    RunningSimulator simulator(
        {kivsim::believable_card(1), kivsim::believable_card(2), kivsim::believable_card(3)});
    Program watch(kivctl({"watch"}));
    expect_next(watch, {"card 1    state", "card 2    state", "card 3    state"});

    simulator.control("POST", "/driver_faults", R"({"selector": 6, "status": "0xE00002CA"})", 3);
    EXPECT_EQ(next(watch), "card 3    lost   card: its registers cannot be read");
    wait_for_listing(simulator, "card 2 function 0");
    simulator.control("PATCH", "", R"({"links": [true, false]})", 2);
    EXPECT_EQ(next(watch), "card 2    link   port 1 down");
    simulator.control("DELETE", "/driver_faults", "", 3);
    EXPECT_EQ(next(watch), "card 3    found  card");

    simulator.control("POST", "/driver_faults", R"({"selector": 6, "delay_ms": 12000})", 1);
    EXPECT_EQ(next(watch), "card 1    lost   card: no answer for 5 s");
    simulator.control("DELETE", "/driver_faults", "", 1);
    simulator.control("PATCH", "", R"({"removed": true})", 2);
    expect_next(watch, {"card 2    lost   card", "card 2    lost   server"});
    simulator.control("PATCH", "", R"({"removed": false})", 2);
    expect_next(watch, {"card 2    found  card", "card 2    found  server", "card 1    found  card"});
}

TEST_F(Kivctl, WatchSaysThatTheDriverHangs) {
    kivsim::CardSettings card = kivsim::believable_card(1);
    card.driver_faults = {fault(wire::kLoadBootConf).nth(1).delay_ms(8000)};
    const RunningSimulator simulator({card});
    Program watch(kivctl({"watch"}));
    EXPECT_EQ(next(watch), "          lost   driver: no answer for 5 s while it lists its cards");
    EXPECT_EQ(next(watch), "          found  driver");
    EXPECT_TRUE(has(next(watch), "card 1    state"));
}

TEST_F(Kivctl, WatchLooksAtAllCardsAtOnce) {
    std::vector<kivsim::CardSettings> cards;
    for (uint8_t id = 1; id <= 20; ++id) {
        cards.push_back(kivsim::believable_card(id));
        if (id < 20) cards.back().http_faults = {late_answer("/hps/info/networks", 20'000)};
    }
    const RunningSimulator simulator(cards);
    Program watch(kivctl({"watch"}));
    const Stopwatch stopwatch;
    EXPECT_TRUE(has(next(watch), "card 20   state")) << "its server answers";
    int states = 0;
    for (int i = 0; i < 38; ++i)
        states += next(watch).find("state  port 0 up") != std::string::npos;
    EXPECT_EQ(states, 19) << "the others say that the server is lost";
    EXPECT_LT(stopwatch.elapsed(), std::chrono::seconds(15)) << "two seconds each, one after another";
}
