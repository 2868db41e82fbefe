// The commands for one card, and the examples beside them, against the simulator.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>

#include "kivctl/Kivctl.h"
#include "support/RunningSimulator.h"
#include "support/Waiting.h"

namespace {

/// One card, whose server's requests are logged, with a control address.
class KivctlCard : public Kivctl {
  protected:
    KivctlCard() { setenv("KIVSIM_SOCKET", (directory_ / "socket").c_str(), 1); }

    static kivsim::CardSettings card() {
        kivsim::CardSettings card = kivsim::believable_card(1);
        card.flash_ms = 1500;
        card.interrupt_ms = 5;
        return card;
    }

    void change(const Json& members) {
        const ControlAnswer answer = ask_control(simulator_.control_address(), "PATCH", "", text_of(members));
        ASSERT_EQ(answer.status, 200) << answer.body;
    }

    /// The last reconfiguration that the card's server was asked for.
    std::string last_reconfiguration() const {
        const std::string log = read_file(directory_ / "requests");
        const std::size_t start = log.rfind("macethP=");
        return start == std::string::npos ? "none" : log.substr(start, log.find("mactun", start) - start);
    }

    std::string image() const {
        write_file(directory_ / "image", "a firmware image");
        return directory_ / "image";
    }

    TemporaryDirectory directory_;
    kivsim::Simulator simulator_{{card()}, directory_ / "socket", "", directory_ / "requests"};
};

/// The digest that the card takes as the identifier of image().
constexpr const char* kImage = "183f7bcf424938735c60bf6575e48a88";

}  // namespace

TEST_F(KivctlCard, ShowsWhatTheCardTells) {
    const std::string server = simulator_.server_addresses()[0];
    const std::pair<std::vector<std::string>, std::string> kDocuments[] = {
        {{"net", "1"},
         R"({"id": 1, "ports": [{"port": 0, "ip_address": "192.168.10.11", "prefix_length": 24},
                                {"port": 1, "ip_address": "192.168.20.11", "prefix_length": 24}]})"},
        {{"link", "1"},
         R"({"id": 1, "ports": [{"port": 0, "link": "up", "load_a": 42.5, "load_b": 10.0},
                                {"port": 1, "link": "up", "load_a": 40.0, "load_b": 5.0}]})"},
        {{"streams", "1"},
         R"({"id": 1, "tx": {"control": 16, "control_bit_25": 1, "control_bit_26": 0, "reg_404": 32, "reg_804": 16,
                             "resources": [4, 8, 16]},
                      "rx": {"control": 16, "control_bit_25": 1, "control_bit_26": 0, "reg_404": 32, "reg_804": 16,
                             "resources": [2, 4, 8]}})"},
        {{"driver", "1"},
         R"({"id": 1, "client_version": "2.3.1", "driver_version": "1.4.0",
             "functions": [{"function": 0, "function_id": 22, "bus": 4, "device": 0,
                            "memory_ids": [256, 257, 258, 259], "identity_kind": 1,
                            "identity": "0x4B49560000000001", "identity_text": "KIV-1001"},
                           {"function": 1, "function_id": 23, "bus": 4, "device": 0,
                            "memory_ids": [256, 257, 258, 259], "identity_kind": 1,
                            "identity": "0x4B49560000000001", "identity_text": "KIV-1001"}],
             "ports": ["192.168.10.11", "192.168.20.11"], "tunnel": ")" +
             server + R"(",
             "resources": {"tx": [4, 8, 16], "rx": [2, 4, 8]}, "pci_link": [16, 4]})"},
        {{"config", "show"},
         R"([{"id": 1, "announce_receipt_timeout": 3, "domain": 127, "log_announce_interval": -2,
              "log_delay_req_interval": -3, "unicast_delay_req": false, "tos": [46, 46], "ttl": [64, 64]}])"}};
    for (const auto& [words, document] : kDocuments)
        EXPECT_EQ(json_of(words), parsed(document)) << words[0];

    const Json status = json_of({"status", "1"});
    EXPECT_EQ(status["sensors"].size(), 7u);
    EXPECT_EQ(status["sensors"][6],
              parsed(R"({"name": "QSFP2 case", "input": 42, "max": 70, "critical": 75})"));
    EXPECT_EQ(status["board_power"], 63);
    EXPECT_NE(run({"status", "1"}).out.find("\nBoard rear       39   70   80\n"), std::string::npos);

    const Json time = json_of({"time", "1"});
    EXPECT_LE(time["point_1"], time["point_2"]);
    EXPECT_GT(time["epoch"], 0);

    Json ptp = json_of({"ptp", "1"});
    EXPECT_EQ(ptp["config"]["ttl"], parsed("[64, 64]"));
    EXPECT_GT(ptp["status"]["tai_time"], 0);
    ptp["status"].erase("tai_time");
    EXPECT_EQ(ptp["status"], parsed(R"({"state": 0, "utc_offset": 37, "utc_offset_valid": true,
        "grandmaster": "0x001DC1FFFE123456", "selected_source": null})"));
    EXPECT_NE(run({"ptp", "1"}).out.find("\nSelected as PTP source  not known\n"), std::string::npos);
}

TEST_F(KivctlCard, LeavesOutWhatIsNotKnown) {
    configuration_.write(R"({"version": 1, "ptp": {"announceReceiptTimeout": 3, "domainNumber": 200,
        "logAnnounceInterval": 0, "logDelayReqInterval": 0, "unicast_delay_req": 1}, "devices": [],
        "mactun": {"ip_addr": "127.0.0.1", "server_port": 80}})");
    change({{"ptp_state", nullptr},
            {"links", {false, true}},
            {"registers", {{"1", {{"0x21430", 0}, {"0x214A0", 0}}}}}});

    EXPECT_EQ(json_of({"link", "1"})["ports"][0],
              parsed(R"({"port": 0, "link": "down", "load_a": null, "load_b": null})"));
    EXPECT_EQ(run({"link", "1"}).out,
              "PORT  LINK  LOAD A %  LOAD B %\n"
              "0     down  -         -\n"
              "1     up    40.00     5.00\n");
    const Json ptp = json_of({"ptp", "1"});
    EXPECT_TRUE(ptp["status"]["state"].is_null());
    EXPECT_EQ(ptp["config"]["ttl"], parsed("[null, null]"));
    EXPECT_EQ(ptp["config"]["domain"], 200);
    EXPECT_NE(run({"config", "show"}).out.find("yes      -, -  -, -\n"), std::string::npos);

    const Ended refused = run({"ptp", "set", "1", "--tos0", "1", "--tos1", "2", "--ttl0", "3"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("give --tos0 --tos1 --ttl0 --ttl1"), std::string::npos) << refused.err;
    EXPECT_EQ(last_reconfiguration(), "none");
}

TEST_F(KivctlCard, PtpSetChangesOnlyWhatIsGivenAndSavesOnlyOnDemand) {
    const std::string before = configuration_.read();
    Json applied = json_of({"ptp", "set", "1", "--domain", "200", "--log-announce-interval", "-4", "--tos1",
                            "7", "--ttl0", "9", "--ip1", "10.1.2.3/8", "--vlan0", "20"});
    EXPECT_EQ(last_reconfiguration(),
              "macethP=192.168.10.11/24,20,9,46 macethS=10.1.2.3/8,0,64,7 macptp=200,-4,3,0,-3 ");
    EXPECT_EQ(applied["ports"][0]["vlan"], 20);
    EXPECT_EQ(applied["ports"][1]["vlan"], "off");
    EXPECT_EQ(configuration_.read(), before);

    const Ended saved = run({"ptp", "set", "1", "--announce-receipt-timeout", "5", "--log-delay-req-interval",
                             "1", "--unicast-delay-req", "on", "--tos0", "1", "--ttl1", "2", "--ip0",
                             "10.9.8.7/30", "--vlan1", "off", "--save"});
    EXPECT_EQ(saved.status, 0);
    EXPECT_NE(saved.err.find("saved in the card configuration"), std::string::npos) << saved.err;
    EXPECT_EQ(last_reconfiguration(),
              "macethP=10.9.8.7/30,0,64,1 macethS=10.1.2.3/8,0,2,46 macptp=127,-2,5,1,1 ");
    const Json file = parsed(configuration_.read());
    EXPECT_EQ(file["devices"][0]["maceth0"]["ip_addr"], "10.9.8.7");
    EXPECT_EQ(file["ptp"]["announceReceiptTimeout"], 5);

    configuration_.write(text_of(file));
    EXPECT_EQ(json_of({"config", "save"}), parsed(R"({"saved": true})"));
    EXPECT_EQ(parsed(configuration_.read()), file);
    EXPECT_NE(configuration_.read(), text_of(file));
}

TEST_F(KivctlCard, FlashWriteTellsItsPhasesUntilTheCardIsIdle) {
    const Json before = json_of({"flash", "1"});
    EXPECT_EQ(before["state"], "idle");
    EXPECT_EQ(before["next_boot_slot"], 0);

    const Ended begun = run({"flash", "write", "1", image(), "--no-wait"});
    EXPECT_EQ(begun.out.substr(0, 10), "uploading\n") << begun.err;
    EXPECT_EQ(begun.out.find("done"), std::string::npos);
    const Ended busy = run({"flash", "write", "1", image()});
    EXPECT_EQ(busy.status, 1);
    EXPECT_NE(busy.err.find("0xC1000700 KIV_ERR_BUSY: "), std::string::npos) << busy.err;
    EXPECT_TRUE(wait_until([] { return json_of({"flash", "1"})["state"] == "idle"; }));

    const Ended lines = run({"flash", "write", "1", image()});
    EXPECT_EQ(lines.status, 0) << lines.err;
    EXPECT_EQ(lines.out.substr(0, 22), "uploading\nwriting\ndone");
    const Json document = json_of({"flash", "write", "1", image()});
    EXPECT_EQ(document["state"], "done");
    const Json after = json_of({"flash", "1"});
    EXPECT_EQ(after["slot_1"], kImage);
    EXPECT_EQ(after["slot_0"], before["slot_0"]);

    EXPECT_EQ(run({"flash", "select", "1", "1"}).out, "card 1 boots slot 1 next\n");
    EXPECT_EQ(json_of({"flash", "1"})["next_boot_slot"], 1);
    const std::pair<std::vector<std::string>, const char*> kFailures[] = {
        {{"flash", "select", "1", "2"}, "KIV_ERR_INVALID_PARAM: flash slots are 0 and 1"},
        {{"flash", "write", "1", directory_ / "none"}, "none cannot be read: No such file"},
        {{"flash", "write", "2", image()}, "KIV_ERR_NO_DEVICE"}};
    for (const auto& [words, message] : kFailures) {
        const Ended failed = run(words);
        EXPECT_EQ(failed.status, 1) << message;
        EXPECT_NE(failed.err.find(message), std::string::npos) << failed.err;
    }
}

TEST_F(KivctlCard, FlashWriteLivesInOneLineOfATerminal) {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0)
        GTEST_SKIP() << "this machine gives no pseudo-terminal";
    const std::string name = ptsname(terminal);
    const int other_end = open(name.c_str(), O_RDWR | O_NOCTTY);  // Until what was written is read.
    const Ended ended = run_program(
        {"/bin/sh", "-c", "exec \"$0\" flash write 1 \"$1\" > \"$2\"", KIVCTL_PROGRAM, image(), name});
    EXPECT_EQ(ended.status, 0) << ended.err;
    fcntl(terminal, F_SETFL, O_NONBLOCK);
    std::string shown;
    EXPECT_TRUE(wait_until([&] {
        char text[1024];
        const ssize_t size = read(terminal, text, sizeof text);
        if (size > 0) shown.append(text, static_cast<std::size_t>(size));
        return shown.ends_with('\n');
    })) << shown;
    close(other_end);
    close(terminal);
    EXPECT_EQ(shown.substr(0, 18), "\r\x1b[Kuploading 0:00");
    EXPECT_NE(shown.find("\r\x1b[Kwriting   0:0"), std::string::npos);
    EXPECT_EQ(shown.find('\n'), shown.size() - 1);
    EXPECT_NE(shown.rfind("\r\x1b[Kdone      0:0"), std::string::npos);
}

TEST_F(KivctlCard, WatchPrintsChangesUntilASignal) {
    Program json(kivctl({"watch", "--json"}));
    Program text(kivctl({"watch", "1"}));
    EXPECT_EQ(text.read_line().substr(23), "  card 1    link   port 0 up, port 1 up");
    Json event = parsed(json.read_line());
    EXPECT_EQ(event["time"].get<std::string>().size(), std::string("2000-01-01T00:00:00.000Z").size());
    EXPECT_EQ(event["card"], 1);

    change({{"links", {true, false}}});
    EXPECT_EQ(text.read_line().substr(23), "  card 1    link   port 1 down");
    event = parsed(json.read_line());
    EXPECT_EQ(event["ports"], parsed(R"([{"port": 0, "changed": false, "link": "up"},
                                              {"port": 1, "changed": true, "link": "down"}])"));
    change({{"ptp_state", 3}});
    EXPECT_EQ(text.read_line().substr(23), "  card 1    ptp    state 3");
    event = parsed(json.read_line());
    event.erase("time");
    EXPECT_EQ(event, parsed(R"({"card": 1, "event": "ptp", "state": 3})"));

    json.send_signal(SIGINT);
    text.send_signal(SIGTERM);
    for (Program* const watch : {&json, &text}) {
        const Ended ended = watch->wait();
        EXPECT_EQ(ended.status, 0) << ended.err;
        EXPECT_EQ(ended.out, "");
    }
    EXPECT_EQ(run({"watch", "2"}).status, 1);
}

TEST_F(KivctlCard, HasExamplesOnTheExportedClassesBesideIt) {
    const Ended driver = run_program({USE_DRIVER_PROGRAM, "1", "4"});
    EXPECT_EQ(driver.status, 0) << driver.err;
    EXPECT_EQ(std::count(driver.out.begin(), driver.out.end(), '\n'), 6);
    EXPECT_NE(driver.out.find(", 4096 bytes mapped\nregister 0x02000010 by mapping, 0x02000010 by call\n"
                              "3 messages of 3 arguments, the first 4\n"),
              std::string::npos)
        << driver.out;
    EXPECT_EQ(run_program({USE_DRIVER_PROGRAM, "2"}).status, 1);
    EXPECT_EQ(run_program({USE_DRIVER_PROGRAM, "x"}).status, 2);

    const std::string server = simulator_.server_addresses()[0];
    const std::size_t colon = server.find(':');
    const Ended talked =
        run_program({TALK_TO_CARD_PROGRAM, server.substr(0, colon), server.substr(colon + 1)});
    EXPECT_EQ(talked.status, 0) << talked.err;
    EXPECT_NE(talked.out.find("\nPTP master 00:1d:c1:ff:fe:12:34:56, UTC offset 37 s\n"), std::string::npos)
        << talked.out;
}

TEST_F(KivctlCard, HasExamplesInCBesideIt) {
    EXPECT_EQ(run_program({LIST_CARDS_PROGRAM}).out, "card 1: MAC 02:4b:56:00:01:00 and 02:4b:56:00:01:01\n");
    EXPECT_EQ(run_program({READ_CARD_PROGRAM, "1"}).out,
              "card word    0x5354323131300001\nFPGA fabric  58 (alarm at 95)\nboard power  63\n"
              "port 0       02:4b:56:00:01:00, link up\nport 1       02:4b:56:00:01:01, link up\n"
              "PTP          state 0, grandmaster 0x001DC1FFFE123456\n");
    const Ended written = run_program({WRITE_FLASH_PROGRAM, "1", image()});
    EXPECT_EQ(written.status, 0) << written.err;
    EXPECT_EQ(json_of({"flash", "1"})["slot_1"], kImage);
    const Ended watched = run_program({WATCH_EVENTS_PROGRAM, "3"});
    EXPECT_EQ(watched.status, 0) << watched.err;
    EXPECT_EQ(watched.out, "card 1: link of port 0 is up, of port 1 up\n");

    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {READ_CARD_PROGRAM}, {READ_CARD_PROGRAM, "x"}, {WRITE_FLASH_PROGRAM, "256", "f"}})
        EXPECT_EQ(run_program(words).status, 2);
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {READ_CARD_PROGRAM, "2"}, {WRITE_FLASH_PROGRAM, "1", "/nonexistent"}})
        EXPECT_EQ(run_program(words).status, 1);
}
