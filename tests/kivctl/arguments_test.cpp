// What the command line takes, and what is said when it does not.

#include "kivctl/Kivctl.h"

TEST_F(KivctlCard, TakesWholeNumbersInRangeAndNothingElse) {
    const std::string file = image();
    const std::pair<Words, const char*> misuse[] = {
        {{"info", "256"}, "\"256\" is no card's id"},
        {{"info", "-1"}, ""},
        {{"info", "x"}, "is no card's id"},
        {{"info", "01"}, "is no card's id"},
        {{"info", "1x"}, "is no card's id"},
        {{"info", "0x1"}, "is no card's id"},
        {{"info", ""}, "the card's id is empty"},
        {{"info", "1", "2"}, "not expected"},
        {{"flash", "write", "", file}, "the card's id is empty"},
        {{"flash", "write", file}, ""},
        {{"flash", "write", "010", file}, "is no card's id"},
        {{"flash", "write", "1", ""}, "the text is empty"},
        {{"flash", "2", "write", "1", file}, "two cards are named: "},
        {{"flash", "wait", "1", "2"}, "two cards are named: "},
        {{"ptp", "1", "set", "2", "--vlan0", "off", "--vlan1", "off"}, "two cards are named: "},
        {{"scan", "\x1b[31mx"}, "\\u001b[31mx"},
        {{"flash", "wait"}, "say which one"},
        {{"flash", "select", "1"}, "SLOT is required"},
        {{"flash", "select", "1", ""}, "no decimal number from 0 to 1"},
        {{"flash", "select", "1", "2"}, "no decimal number from 0 to 1"},
        {{"ptp", "set", "--vlan0", "off", "--vlan1", "off"}, "say which one"},
        {{"ptp", "set", "1", "--domain", "256"}, "from 0 to 255"},
        {{"ptp", "set", "1", "--domain", ""}, "from 0 to 255"},
        {{"ptp", "set", "1", "--log-announce-interval", "-129"}, "from -128 to 127"},
        {{"ptp", "set", "1", "--ip0", "192.168.10.11"}, "is no address like"},
        {{"ptp", "set", "1", "--ip1", "192.168.10.11/33"}, "is no address like"},
        {{"ptp", "set", "1", "--vlan0", "0"}, "is no VLAN"},
        {{"ptp", "set", "1", "--vlan1", "4095"}, "is no VLAN"},
        {{"ptp", "set", "1", "--unicast-delay-req", "1"}, "neither on nor off"},
        {{"scan", "--timeout", "0"}, "from 1 to 86400"},
        {{"explain", ""}, "the code is empty"},
        {{}, "a command is missing"},
        {{"scna"}, "did you mean \"kivctl scan\"?"},
        {{"stat"}, "did you mean \"kivctl status\"?"},
        {{"ptp", "sett", "1"}, "did you mean \"kivctl ptp set\"?"},
        {{"config", "chek"}, "did you mean \"kivctl config check\"?"},
        {{"config"}, "a word is missing"},
        {{"config", "save"}, "there is no command \"config save\""},
        {{"scan", "--jsn"}, "not expected"},
    };
    for (const auto& [words, phrase] : misuse) {
        const Ended ended = expect(words, 2, phrase);
        EXPECT_TRUE(ended.err.starts_with("kivctl: ")) << ended.err;
        EXPECT_EQ(ended.out, "");
    }
    EXPECT_FALSE(was_asked("\"method\"")) << "all operands are checked before anything is asked";

    Json error = json_of({"info", "010"}, 2);
    EXPECT_EQ(error["name"], "USAGE");
    EXPECT_EQ(error["layer"], "argument");
    for (const Words& words : std::vector<Words>{
             {"--help"}, {"flash", "--help"}, {"ptp", "set", "--help"}, {"help"}, {"help", "flash", "write"}})
        expect(words, 0, "--");
    expect({"ptp", "set", "--help"}, 0, "--vlan0");
    EXPECT_FALSE(has(run({"-v", "link"}).err, "kivctl:"));
}

TEST_F(KivctlCard, KeepsItsStreamsApart) {
    const auto shell = [](const std::string& line) {
        return run_program({"/bin/sh", "-c", line, kKivctlProgram});
    };
    EXPECT_EQ(parsed(shell("exec \"$0\" flash wait 1 --json 2>&-").out)["state"], "idle");
    EXPECT_EQ(shell("exec \"$0\" scan >&-").status, 1);
    EXPECT_EQ(parsed(shell("exec \"$0\" scan --json <&- 2>&-").out)["complete"], true);
    EXPECT_FALSE(has(shell("\"$0\" explain 0 | true; exit 0").err, "Segm"));
    // Nobody reads the messages: the time limit holds all the same.
    add_fault(R"({"path": "/hps/hwmon/info", "delay_ms": 60000})");
    const Ended blocked = shell("mkfifo '" + (directory_ / "fifo") + "'; exec 3<>'" + (directory_ / "fifo") +
                                "'; head -c 65536 /dev/zero >&3; exec \"$0\" status 1 --timeout 1 2>&3");
    EXPECT_EQ(blocked.status, 4);
}

TEST_F(KivctlCard, EndsAsInterruptedOnAnySignal) {
    add_fault(R"({"path": "/hps/hwmon/info", "delay_ms": 60000})");
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        Program waiting(kivctl({"status", "1", "--json"}));
        const std::string asked = "hwmon/info";
        const auto count = [&] {
            const std::string log = read_file(directory_ / "requests");
            std::size_t found = 0;
            for (std::size_t at = 0; (at = log.find(asked, at)) != std::string::npos; ++at)
                ++found;
            return found;
        };
        const std::size_t before = count();
        EXPECT_TRUE(wait_until([&] { return count() > before; }));
        waiting.send_signal(signal);
        const Ended ended = waiting.wait();
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
    const std::string none = directory / "none";
    const std::string file = directory / "file";
    write_file(file, "");
    const std::string longer(200, 'x');
    const std::pair<std::string, const char*> sockets[] = {{none, ": No such file or directory"},
                                                           {file, ": Connection refused"},
                                                           {longer, "is longer than the 107 bytes"}};
    for (const auto& [socket, reason] : sockets) {
        setenv("KIVSIM_SOCKET", socket.c_str(), 1);
        for (const char* const command : {"scan", "info", "driver"}) {
            const Json error = json_of({command}, 1);
            EXPECT_EQ(error["name"], "NO_DRIVER");
            EXPECT_EQ(error["layer"], "driver");
            const std::string message = error["message"];
            EXPECT_TRUE(has(message, socket));
            EXPECT_TRUE(has(message, reason));
        }
        EXPECT_TRUE(json_of({"version"})["driver"].is_null());
    }
    RunningSimulator simulator(std::vector<kivsim::CardSettings>{});
    EXPECT_EQ(json_of({"scan"}), parsed(R"({"complete": true, "cards": []})"));
    expect({"scan"}, 0, "has none");
    EXPECT_EQ(json_of({"info"}, 1)["name"], "NO_CARD");
}
