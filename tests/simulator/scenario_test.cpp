// Cards files and scenarios: what is refused when they are read, and what the steps of a timeline do and
// undo.

#include <limits>

#include "card/VirtualCard.h"
#include "scenario/Timeline.h"
#include "settings/changes.h"
#include "settings/members.h"

#include "support/Json.h"
#include "support/TemporaryDirectory.h"
#include "support/Test.h"

namespace {

/// What a file of this text says.
kivsim::Scenario loaded(const std::string& text) {
    const TemporaryDirectory directory;
    write_file(directory / "s.json", text);
    return kivsim::load_scenario(directory / "s.json");
}

/// Without the file's name, with which complaints must begin.
std::string complaint_about(const std::string& text) {
    try {
        loaded(text);
    } catch (const kivsim::BadConfig& error) {
        const std::string what = error.what();
        const std::string name = "/tmp/kivtest-XXXXXX/s.json: ";
        const bool named = what.starts_with("/tmp/kivtest-") && what.find("/s.json: ") + 9 == name.size();
        return named ? what.substr(name.size()) : "no file name: " + what;
    }
    return "";
}

std::string with_cards(const std::string& steps, const std::string& more = "") {
    return R"({"cards": [{"id": 1}, {"id": 7}], "timeline": [)" + steps + "]" + more + "}";
}

TEST(CardsFile, ThatIsWrongNamesTheKey) {
    const std::string number = R"(must be a number, 0 or greater, or a text such as "0x1F")";
    const std::string address = R"(must be an IPv4 address such as "10.0.0.1")";
    const std::pair<const char*, std::string> files[] = {
        {"[]", "the top level must be an object"},
        {"{}", "cards: missing"},
        {R"({"cards": [], "card": []})", "card: unknown key"},
        {R"({"cards": [{}]})", "cards[0].id: missing"},
        {R"({"cards": [{"id": -1}]})", "cards[0].id: " + number},
        {R"({"cards": [{"id": 1}, {"id": "0x01"}]})", "cards[1].id: is another card's"},
    };
    for (const auto& [text, expected] : files)
        EXPECT_EQ(complaint_about(text), expected) << text;

    // clang-format off
    const std::pair<const char*, std::string> cards[] = {
        {R"("name": "x")", "name: unknown key"},
        {R"("bus": "0x")", "bus: " + number},
        {R"("identity": {"value": "18446744073709551616"})", "identity.value: " + number},
        {R"("identity": {"text": "12345678901234567890123456789012345678901234567890123456789012345"})", "identity.text: must have at most 64 characters"},
        {R"("functions": [{"number": 0}])", "functions[0].connection_type: missing"},
        {R"("functions": [{"number": 0, "connection_type": 22, "pci_link": [1]}])", "functions[0].pci_link: must have 2 numbers"},
        {R"("registers": {"6": {}})", R"(registers.6: BARs are "0" to "5")"},
        {R"("addresses": ["10.0.0.1"])", "addresses: must have two entries, one for each media port"},
        {R"("addresses": ["10.0.0.1", "10.0.0"])", "addresses[1]: " + address},
        {R"("tunnel": {"address": "10.0.0.1"})", "tunnel.address: must be a loopback address (127.x.x.x) unless the server is external"},
        {R"("server": "internal")", R"(server: can only be "external")"},
        {R"("server": "external", "tunnel": {"address": "127.0.0.1"})", "server: needs \"tunnel\" with the address and the port of that server"},
        {R"("server": "external", "tunnel": {"port": 80})", "server: needs \"tunnel\" with the address and the port of that server"},
        {R"("driver_faults": [{"selector": 4, "status": 4294967296}])", "driver_faults[0].status: must be at most 4294967295"}};
    // clang-format on
    for (const auto& [members, expected] : cards)
        EXPECT_EQ(complaint_about(R"({"cards": [{"id": 1, )" + std::string(members) + "}]}"),
                  "cards[0]." + expected)
            << members;

    EXPECT_TRUE(complaint_about("{\"cards\":\n  [,]}").starts_with("parse error at line 2, column 4: "));
}

TEST(CardsFile, TakesItsRegistersInPlaceOfTheBelievableOnesAndMakesTheInterfaces) {
    const kivsim::Scenario file = loaded(R"({"cards": [{"id": "0xFE", "registers": {"5": {"0xFFFFF8": 1}},
        "addresses": ["10.0.0.1", "255.255.255.255"], "tunnel": {"address": "10.1.2.3", "port": 65535},
        "server": "external"}, {"id": 0}]})");
    const auto& cards = file.cards;
    ASSERT_EQ(cards.size(), 2u);
    EXPECT_EQ(cards[0].registers.size(), 1u);
    EXPECT_EQ(
        std::tuple(cards[0].id, cards[0].tunnel_address, cards[0].tunnel_port, cards[0].external_server),
        std::tuple(254, 0x0A010203u, 65535, true));
    EXPECT_EQ(cards[0].interfaces.at(1).ip_addr, "255.255.255.255");
    EXPECT_EQ(cards[1].interfaces.at(2).ip_addr, "127.0.0.1");
}

TEST(Scenario, ThatIsWrongSaysWhereBeforeItRuns) {
    const std::string time = "must be a number from 0 to 1000000";
    const std::string gone = R"({"at_s": 0, "card": 1, "patch": {"hwmon": []}}, )";
    // clang-format off
    const struct {
        std::string step;
        std::string complaint;
        const char* more = "";
    } rows[] = {
        {R"({"at_s": -1, "card": 1, "clear_faults": true})", "timeline[0].at_s: " + time},
        {R"({"at_s": 1000001, "card": 1, "clear_faults": true})", "timeline[0].at_s: " + time},
        {R"({"at_s": "1", "card": 1, "clear_faults": true})", "timeline[0].at_s: " + time},
        {R"({"at_s": NaN, "card": 1, "clear_faults": true})", "parse error at line 1, column 57: syntax error while parsing value - invalid literal; last read: '\"at_s\": N'"},
        {R"({"at_s": 1e999, "card": 1, "clear_faults": true})", "number overflow parsing '1e999'"},
        {R"({"card": 1, "clear_faults": true})", "timeline[0].at_s: missing"},
        {R"({"at_s": 0, "clear_faults": true})", "timeline[0].card: missing"},
        {R"({"at_s": 0, "card": 2, "clear_faults": true})", "timeline[0].card: is no card of this file"},
        {R"({"at_s": 0, "card": 1})", R"(timeline[0]: must have just one of "patch", "ramp", "http_fault", "driver_fault", "clear_faults", "messages")"},
        {R"({"at_s": 0, "card": 1, "patch": {}, "messages": {}})", R"(timeline[0]: must have just one of "patch", "ramp", "http_fault", "driver_fault", "clear_faults", "messages")"},
        {R"({"at_s": 0, "card": 1, "pach": {}})", "timeline[0].pach: unknown key"},
        {"7", "timeline[0]: must be an object"},
        // What the card would refuse.
        {R"({"at_s": 3, "card": 1, "patch": 5})", "timeline[0].patch: must be an object"},
        {gone + R"({"at_s": 3, "card": 7, "patch": {"links": [1]}})", "timeline[1].patch.links: must be two of true and false"},
        {R"({"at_s": 3, "card": 1, "patch": {"id": 7}})", "timeline[0].patch.id: is fixed while the card runs"},
        {R"({"at_s": 3, "card": 1, "patch": {"firmware": {"fails_while": "idle"}}})", R"(timeline[0].patch.firmware.fails_while: must be "erasing", "writing", "verifying" or null)"},
        {R"({"at_s": 3, "card": 1, "http_fault": {"path": "/nowhere"}})", "timeline[0].http_fault.path: is no path of the management server"},
        {R"({"at_s": 3, "card": 1, "driver_fault": {"selector": 9}})", "timeline[0].driver_fault.selector: is no selector of the driver"},
        {R"({"at_s": 3, "card": 1, "clear_faults": false})", "timeline[0].clear_faults: can only be true"},
        {R"({"at_s": 3, "card": 1, "messages": {"arguments": [1, 2]}})", "timeline[0].messages.arguments: must be none, one, or 3 to 16"},
        {R"({"at_s": 3, "card": 1, "messages": {"arguments": []}, "for_s": 1})", "timeline[0].for_s: is not for what cannot be undone"},
        // Ramps.
        {R"({"at_s": 0, "card": 1, "ramp": {"member": "/hwmon/0/input", "to": 9}})", "timeline[0].ramp.over_s: missing"},
        {R"({"at_s": 0, "card": 1, "ramp": {"member": "/hwmon/8/input", "to": 9, "over_s": 1}})", "timeline[0].ramp.member: is no number of the card"},
        {R"({"at_s": 0, "card": 1, "ramp": {"member": "hwmon", "to": 9, "over_s": 1}})", "timeline[0].ramp.member: is no number of the card"},
        {R"({"at_s": 0, "card": 1, "ramp": {"member": "/hwmon/~2", "to": 9, "over_s": 1}})", "timeline[0].ramp.member: is no number of the card"},
        {R"({"at_s": 0, "card": 1, "ramp": {"member": "/registers/6/0", "to": 9, "over_s": 1}})", "timeline[0].ramp.member: is no number of the card"},
        {R"({"at_s": 0, "card": 1, "ramp": {"member": "/ptp_state", "to": 3, "over_s": 1}})", "timeline[0].ramp.member: is no number of the card"},
        {R"({"at_s": 0, "card": 1, "ramp": {"member": "/bus", "to": 256, "over_s": 9}})", "timeline[0].ramp: bus: must be at most 255"},
        {R"({"at_s": 0, "card": 1, "ramp": {"member": "/registers/0/0x140", "to": 4294967296, "over_s": 9}})", "timeline[0].ramp.to: must be at most 4294967295 for a register"},
        {R"({"at_s": 0, "card": 1, "ramp": {"member": "/bus", "to": 5, "over_s": 9}, "for_s": 8})", "timeline[0].for_s: must be at least \"over_s\" of the ramp"},
        // What one step, or one round, leaves to another.
        {gone + R"({"at_s": 0, "card": 1, "ramp": {"member": "/hwmon/0/input", "to": 9, "over_s": 1}})", "timeline[1].ramp.member: is no number of the card"},
        {R"({"at_s": 0, "card": 1, "ramp": {"member": "/hwmon/0/input", "to": 9, "over_s": 1}}, {"at_s": 2, "card": 1, "patch": {"hwmon": []}})",
         "timeline[0].ramp.member: is no number of the card", R"(, "loop_s": 2)"},
        // The whole.
        {R"({"at_s": 2, "card": 1, "clear_faults": true, "for_s": 3})", "loop_s: must not be before the end of every step", R"(, "loop_s": 4.9)"},
        {"", "loop_s: must be a number from 1 to 1000000", R"(, "loop_s": 0)"},
        {"", "speed: must be a number from 0.001 to 1000", R"(, "speed": 0)"},
        {"", "loop: unknown key", R"(, "loop": 1)"}};
    // clang-format on
    for (const auto& row : rows)
        EXPECT_EQ(complaint_about(with_cards(row.step, row.more)), row.complaint) << row.step;
    std::string many = "{}";
    for (int i = 1; i < 10'000; ++i)
        many += ",{}";
    EXPECT_TRUE(complaint_about(with_cards(many)).starts_with("timeline[0]: "));
    EXPECT_EQ(complaint_about(with_cards(many + ",{}")), "more than 10000 objects in one JSON array");
}

/// Cards that nobody serves, with a timeline that a test moves.
struct Course {
    explicit Course(const std::string& steps, const std::string& more = "")
        : scenario(loaded(with_cards(steps, more))),
          card(std::make_shared<kivsim::VirtualCard>(scenario.cards[0])),
          timeline(scenario, {card, std::make_shared<kivsim::VirtualCard>(scenario.cards[1])},
                   [this](const std::string& line) { lines.push_back(line); }) {}

    std::string at(double time, const std::string& place) {
        timeline.advance_to(time);
        return kivsim::value_at(*card, place).value_or("none");
    }
    void by_hand(const std::string& members) { kivsim::change(*card, kivsim::ConfigNode(members, "hand")); }

    const kivsim::Scenario scenario;
    const std::shared_ptr<kivsim::VirtualCard> card;
    Lines lines;
    kivsim::Timeline timeline;
};

TEST(Timeline, TellsItsStepsAndBringsBackWhatItHasChanged) {
    Course course(R"(
        {"at_s": 4, "card": 1, "driver_fault": {"selector": 6}, "for_s": 2},
        {"at_s": 1, "card": 1, "patch": {"links": [false, true], "driver_faults": [{"selector": 5}], "log": "äöü",
                                         "pci_link": [1, 1], "firmware": {"slots": ["00112233445566778899aabbccddeeff", "00112233445566778899aabbccddeeff"]},
                                         "registers": {"0x2": {"16": "0x1122334455667788"}}}, "for_s": 9.5},
        {"at_s": 5, "card": 1, "clear_faults": true, "for_s": 0.5},
        {"at_s": 6, "card": 7, "messages": {"arguments": []}},
        {"at_s": 6, "card": 1, "http_fault": {"path": "/hps/"}})");
    course.by_hand(R"({"registers": {"2": {"0x10": 3, "0x14": 4}}})");
    course.timeline.advance_to(0.9);
    const std::string before = text_of(json_of(course.card->present()));
    EXPECT_EQ(course.lines, Lines());
    EXPECT_EQ(course.at(1, "/registers/2/0x10") + course.at(1, "/registers/2/20"), "1432778632287454020");
    EXPECT_EQ(course.at(1, "/links"), "[false,true]");
    EXPECT_EQ(course.at(4, "/driver_faults"), R"([{"selector":5},{"selector":6}])");
    EXPECT_EQ(course.at(5, "/driver_faults"), "[]");
    EXPECT_EQ(course.at(5.5, "/driver_faults"), R"([{"selector":5},{"selector":6}])");
    EXPECT_EQ(course.at(6, "/driver_faults"), R"([{"selector":5}])");
    EXPECT_EQ(course.at(9, "/http_faults"), R"([{"path":"/hps/","carried_out":true}])");
    course.by_hand(R"({"http_faults": []})");
    EXPECT_EQ(course.timeline.next_time(), 10.5);
    course.timeline.advance_to(11);
    EXPECT_EQ(text_of(json_of(course.card->present())), before);
    EXPECT_EQ(course.timeline.next_time(), std::numeric_limits<double>::infinity());
    ASSERT_EQ(course.lines.size(), 8u);
    EXPECT_EQ(course.lines[1], R"(4 s card 1: driver_fault {"selector":6} for 2 s)");
    EXPECT_EQ(course.lines[4], R"(6 s card 1: driver_fault {"selector":6} is over)");
    EXPECT_EQ(course.lines[5], R"(6 s card 7: messages {"arguments":[]})");
    EXPECT_TRUE(course.lines[7].starts_with(R"(10.5 s card 1: patch {"links":[false,true],)"))
        << course.lines[7];
}

TEST(Timeline, UndoesStepsThatOverlapAndLeavesWhatAHandHasChanged) {
    const char* const steps = R"({"at_s": 1, "card": 1, "patch": {"bus": 1, "device": 1}, "for_s": 4},
                                 {"at_s": 2, "card": 1, "patch": {"bus": 2}, "for_s": 1},
                                 {"at_s": 4, "card": 1, "patch": {"bus": 3}, "for_s": 4})";
    const double never = 99;
    for (const double by_hand : {never, 3.5, 5.5}) {
        Course course(steps);
        const std::string before = course.at(0, "/bus");
        std::string seen;
        for (const double time : {1., 2., 3., 3.5, 4., 5., 5.5, 8.}) {
            seen += course.at(time, "/bus") + " ";
            if (time == by_hand) course.by_hand(R"({"bus": 9})");
        }
        EXPECT_EQ(seen, "1 2 1 1 3 3 3 " + (by_hand == never ? before : "9") + " ");
        EXPECT_EQ(course.at(8, "/device"), "0");
        EXPECT_EQ(course.lines.back().ends_with("is over, /bus has been changed meanwhile and stays"),
                  by_hand == 5.5)
            << course.lines.back();
    }
}

TEST(Timeline, RampsNumbersAndKeepsWhatStandsBesideThem) {
    Course course(
        R"({"at_s": 10, "card": 1, "ramp": {"member": "/hwmon/0/input", "to": -2, "over_s": 30}, "for_s": 50},
                     {"at_s": 10, "card": 1, "ramp": {"member": "/registers/1/0x21460", "to": 0, "over_s": 4}},
                     {"at_s": 10, "card": 1, "ramp": {"member": "/ptp_management/masterLockingStatus", "to": 0.5, "over_s": 7}},
                     {"at_s": 10, "card": 1, "ramp": {"member": "/identity/value", "to": 6, "over_s": 0}})");
    const auto sensor = [&](double time) { return course.at(time, "/hwmon/0/input"); };
    EXPECT_EQ((Lines{sensor(9), sensor(10), sensor(25)}), (Lines{"58", "58", "28"}));
    EXPECT_EQ(course.at(25, "/registers/1/0x21460") + course.at(25, "/ptp_management/masterLockingStatus"),
              "00.5");
    EXPECT_EQ(course.at(25, "/identity/value"), "\"0x6\"");
    EXPECT_TRUE(course.timeline.is_ramping());
    course.by_hand(R"({"hwmon": [{"input": 28}, {"input": 5}]})");
    EXPECT_EQ((Lines{sensor(40), course.at(41, "/hwmon/1/input")}), (Lines{"-2", "5"}));
    EXPECT_FALSE(course.timeline.is_ramping());
    EXPECT_EQ((Lines{sensor(60), course.at(60, "/hwmon/1/input")}), (Lines{"58", "5"}));

    // The number has gone meanwhile: the ramp ends there, and others go on.
    Course other(R"({"at_s": 0, "card": 1, "ramp": {"member": "/hwmon/0/input", "to": 95, "over_s": 30}},
                    {"at_s": 2, "card": 1, "patch": {"bus": 1}})");
    other.timeline.advance_to(1);
    other.by_hand(R"({"hwmon": []})");
    EXPECT_THROW(other.timeline.advance_to(2), kivsim::BadConfig);
    EXPECT_EQ(other.at(100, "/bus"), "1");
    EXPECT_EQ(other.at(100, "/hwmon"), "[]");
}

TEST(Timeline, BeginsAnewAndAStepThatIsRefusedHoldsUpNoOther) {
    Course course(R"({"at_s": 0.5, "card": 1, "ramp": {"member": "/hwmon/0/input", "to": 60, "over_s": 0}},
                     {"at_s": 1, "card": 1, "patch": {"bus": 1}, "for_s": 1}, {"at_s": 1, "card": 1, "patch": {"device": 9}})",
                  R"(, "loop_s": 2)");
    const std::string bus = course.at(0, "/bus");
    for (const double round : {0, 2, 4, 40}) {
        EXPECT_EQ(course.at(round + 1, "/bus"), "1");
        EXPECT_EQ(course.at(round + 2, "/bus"), bus);
    }
    EXPECT_EQ(course.lines.back(), R"(42 s card 1: patch {"bus":1} is over)");
    course.by_hand(R"({"hwmon": null, "device": 0})");
    EXPECT_THROW(course.timeline.advance_to(43), kivsim::BadConfig);
    EXPECT_EQ(course.at(43, "/device"), "9");
}

TEST(Timeline, RunsByTheClockUntilItsThreadIsEnded) {
    Course course(R"({"at_s": 1, "card": 1, "patch": {"bus": 1}, "for_s": 1},
                     {"at_s": 2, "card": 7, "ramp": {"member": "/hwmon/0/input", "to": 95, "over_s": 400}})",
                  R"(, "loop_s": 402)");
    std::atomic<int> told = 0;
    const auto tell = [&](const std::string&) { ++told; };
    const auto card = std::make_shared<kivsim::VirtualCard>(course.scenario.cards[1]);
    kivsim::Timeline timeline(course.scenario, {course.card, card}, tell);
    const auto sensor = [&] {
        const std::lock_guard lock(card->mutex);
        return std::stoi(kivsim::value_at(*card, "/hwmon/0/input").value());
    };
    {
        const kivsim::TimelineThread thread(timeline, 1000, tell);
        EXPECT_TRUE(wait_until([&] { return told >= 4; })) << "a second round";
        EXPECT_TRUE(wait_until([&] { return sensor() > 58; }));
    }
    const Stopwatch watch;
    { const kivsim::TimelineThread never(course.timeline, 0.001, tell); }
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(10));
    EXPECT_EQ(course.lines, Lines());
}

}  // namespace
