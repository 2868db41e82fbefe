// What the command line takes, and what is said when it does not.

#include "kivctl/Kivctl.h"

TEST_F(KivctlCard, TakesWholeNumbersInRangeAndNothingElse) {
    const std::string file = image();
    const std::pair<const char*, Lines> misuse[] = {
        {"\"256\" is no card's id", {"info 256"}},
        {"is no card's id", {"info x", "info 01", "info 1x", "info 0x1", "flash write 010 " + file}},
        {"the card's id is empty", {"info ''", "flash write '' " + file}},
        {"", {"info -1", "flash write " + file}},
        {"not expected", {"info 1 2", "scan --jsn"}},
        {"the text is empty", {"flash write 1 ''"}},
        {"two cards are named: ",
         {"flash 2 write 1 " + file, "flash wait 1 2", "ptp 1 set 2 --vlan0 off --vlan1 off"}},
        {"\\u001b[31mx", {"scan \x1b[31mx"}},
        {"say which one", {"flash wait", "ptp set --vlan0 off --vlan1 off"}},
        {"SLOT is required", {"flash select 1"}},
        {"no decimal number from 0 to 1", {"flash select 1 ''", "flash select 1 2"}},
        {"from 0 to 255", {"ptp set 1 --domain 256", "ptp set 1 --domain ''"}},
        {"from -128 to 127", {"ptp set 1 --log-announce-interval -129"}},
        {"is no address like", {"ptp set 1 --ip0 192.168.10.11", "ptp set 1 --ip1 192.168.10.11/33"}},
        {"is no VLAN", {"ptp set 1 --vlan0 0", "ptp set 1 --vlan1 4095"}},
        {"neither on nor off", {"ptp set 1 --unicast-delay-req 1"}},
        {"from 1 to 86400", {"scan --timeout 0"}},
        {"the code is empty", {"explain ''"}},
        {"a command is missing", {""}},
        {"did you mean \"kivctl scan\"?", {"scna"}},
        {"did you mean \"kivctl status\"?", {"stat"}},
        {"did you mean \"kivctl ptp set\"?", {"ptp sett 1"}},
        {"did you mean \"kivctl config check\"?", {"config chek"}},
        {"a word is missing", {"config"}},
        {"there is no command \"config save\"", {"config save"}},
    };
    for (const auto& [phrase, commands] : misuse) {
        for (const std::string& command : commands) {
            const Ended ended = expect(words_of(command), 2, phrase);
            EXPECT_TRUE(ended.err.starts_with("kivctl: ")) << ended.err;
            EXPECT_EQ(ended.out, "");
        }
    }
    EXPECT_FALSE(was_asked("\"method\"")) << "all operands are checked before anything is asked";

    EXPECT_TRUE(has(text_of(json_of({"info", "010"}, 2)), R"("name":"USAGE","layer":"argument")"));
    for (const char* const command : {"--help", "flash --help", "ptp set --help", "help", "help flash write"})
        expect(words_of(command), 0, "--");
    expect({"ptp", "set", "--help"}, 0, "--vlan0");
    EXPECT_FALSE(has(run({"-v", "link"}).err, "kivctl:"));
}

TEST_F(KivctlCard, KeepsItsStreamsApart) {
    EXPECT_EQ(parsed(run_program(shell("exec \"$0\" flash wait 1 --json 2>&-")).out)["state"], "idle");
    EXPECT_EQ(run_program(shell("exec \"$0\" scan >&-")).status, 1);
    EXPECT_EQ(parsed(run_program(shell("exec \"$0\" scan --json <&- 2>&-")).out)["complete"], true);
    EXPECT_FALSE(has(run_program(shell("\"$0\" explain 0 | true; exit 0")).err, "Segm"));
    // Nobody reads the messages: the time limit holds all the same.
    add_fault(R"({"path": "/hps/hwmon/info", "delay_ms": 60000})");
    const std::string blocked = "mkfifo \"$1\"; exec 3<>\"$1\"; head -c 65536 /dev/zero >&3; ";
    const Words words = shell(blocked + "exec \"$0\" status 1 --timeout 1 2>&3", {directory_ / "fifo"});
    EXPECT_EQ(run_program(words).status, 4);
}

TEST_F(KivctlCard, EndsAsInterruptedOnAnySignal) {
    add_fault(R"({"path": "/hps/hwmon/info", "delay_ms": 60000})");
    int asked = 0;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        Program waiting(kivctl({"status", "1", "--json"}));
        ++asked;
        EXPECT_TRUE(wait_until([&] { return parsed(control("GET", "/http_faults"))[0]["hits"] == asked; }));
        const Ended ended = waiting.end(signal);
        EXPECT_EQ(ended.status, 5);
        EXPECT_EQ(parsed(ended.out)["name"], "INTERRUPTED");
    }
}

TEST_F(Kivctl, NeedsTheIdWhereThereAreSeveralCards) {
    RunningSimulator simulator;
    expect({"status"}, 2, "there are several cards: 1, 2");
    expect({"driver"}, 2, "there are 2 cards");
    expect({"info", "2"}, 0, "Card           2\n");
    expect({"info", "3"}, 1, "there is no card 3");
    EXPECT_EQ(json_of({"info", "3"}, 1)["code"], "0xC1000400");
    EXPECT_EQ(json_of({"driver", "3"}, 1)["name"], "KIV_ERR_NO_DEVICE");
}

TEST_F(Kivctl, SaysWhyThereIsNoCard) {
    TemporaryDirectory directory;
    write_file(directory / "file", "");
    const std::pair<std::string, const char*> sockets[] = {
        {directory / "none", ": No such file or directory"},
        {directory / "file", ": Connection refused"},
        {std::string(200, 'x'), "is longer than the 107 bytes"}};
    for (const auto& [socket, reason] : sockets) {
        setenv("KIVSIM_SOCKET", socket.c_str(), 1);
        for (const char* const command : {"scan", "info", "driver"}) {
            const std::string error = text_of(json_of({command}, 1));
            EXPECT_TRUE(has(error, R"("name":"NO_DRIVER","layer":"driver")"));
            EXPECT_TRUE(has(error, socket));
            EXPECT_TRUE(has(error, reason));
        }
        EXPECT_TRUE(json_of({"version"})["driver"].is_null());
    }
    RunningSimulator simulator(std::vector<kivsim::CardSettings>{});
    EXPECT_EQ(json_of({"scan"}), parsed(R"({"complete": true, "cards": []})"));
    expect({"scan"}, 0, "has none");
    EXPECT_EQ(json_of({"info"}, 1)["name"], "NO_CARD");
}
