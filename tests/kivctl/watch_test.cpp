// The watch over cards: present state, events, and what is lost and found.
#include <signal.h>

#include "kivctl/Kivctl.h"
#include "support/Waiting.h"

namespace {

/// The next line behind its time.
std::string next(Program& watch) {
    const std::string line = watch.read_line();
    return line.size() > 25 ? line.substr(25) : line;
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

    json.send_signal(SIGINT);
    text.send_signal(SIGTERM);
    for (Program* const watch : {&json, &text}) {
        const Ended ended = watch->wait(std::chrono::seconds(3));
        EXPECT_EQ(ended.status, 0) << ended.err;
        EXPECT_EQ(ended.out, "");
    }
    EXPECT_EQ(run({"watch", "2"}).status, 1);
}

TEST_F(Kivctl, WatchSaysWhatIsLostAndFound) {
    auto simulator = std::make_unique<RunningSimulator>();
    const std::string socket = simulator->socket_path();
    Program watch(kivctl({"watch"}));
    EXPECT_NE(next(watch).find("card 1    state"), std::string::npos);
    EXPECT_NE(next(watch).find("card 2    state"), std::string::npos);

    simulator->control("PATCH", "", R"({"removed": true})", 2);
    std::string lost = next(watch) + next(watch);
    EXPECT_NE(lost.find("card 2    lost   card"), std::string::npos) << lost;
    EXPECT_NE(lost.find("card 2    lost   server: http://127.0.0.1:"), std::string::npos) << lost;
    simulator->control("PATCH", "", R"({"removed": false, "links": [false, true]})", 2);
    std::string found = next(watch) + next(watch) + next(watch);
    for (const char* const part :
         {"card 2    found  card", "card 2    found  server", "card 2    link   port 0 down"})
        EXPECT_NE(found.find(part), std::string::npos) << found;

    simulator->control("POST", "/http_faults", R"({"path": "/hps/info/networks", "status": 503})", 1);
    EXPECT_NE(next(watch).find("card 1    lost   server: http://127.0.0.1:"), std::string::npos);
    simulator->control("DELETE", "/http_faults", "", 1);
    EXPECT_EQ(next(watch), "card 1    found  server");

    (*simulator).stop();
    std::string driver = next(watch);
    while (driver.find("server") != std::string::npos)
        driver = next(watch);
    EXPECT_EQ(driver, "          lost   driver: No such file or directory");
    const kivsim::Simulator again(kivsim::default_cards(), socket, "");
    EXPECT_EQ(next(watch), "          found  driver");
    watch.send_signal(SIGINT);
    EXPECT_EQ(watch.wait(std::chrono::seconds(5)).status, 0);
}
