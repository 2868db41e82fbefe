// What a support file holds, and that it brings the cards to another desk.

#include <map>

#include "kivctl/Kivctl.h"
#include "scenario/Scenario.h"
#include "support/Patterns.h"

namespace {

namespace fs = std::filesystem;

/// One card with values of its own, and one whose server gives odd answers.
constexpr const char* kUnusual = R"({"cards": [
    {"id": 3, "identity": {"kind": 0, "value": "0xFEDCBA9876543210", "text": "from the field"}, "bus": 77, "device": 2,
     "pci_link": [8, 3], "driver_version": "1.5.2", "links": [true, false], "ptp_state": 3,
     "registers": {"0": {"0x10": "0x1122334455667788", "0x140": "0x40"}, "1": {"0x20004": 7, "0x318E0": 100, "0x31830": 1000}},
     "addresses": ["10.1.2.3", "10.1.2.4"], "resources": {"tx": [1, 2, 3], "rx": [4, 5, 6]},
     "interfaces": [{"if_name": "maceth0", "ip_addr": "10.1.2.3", "netmask": "255.255.0.0", "hw_addr": "02:00:00:00:00:01"}],
     "hwmon": [{"label": "QSFP1 Case Temperature", "input": -7, "max": 70, "critical": 75},
               {"label": "Board Rear Side Temperature", "input": 75, "max": 70, "critical": 80}],
     "ptp_management": {"masterLockingStatus": 1}, "wrapping": "text", "log": "a line\nanother\n",
     "memberships": [{"pid": 12, "dst_ip_addr": "239.0.0.1", "if_name": "maceth0", "ssm_source_addr": "10.9.9.9"}],
     "firmware": {"slots": ["00112233445566778899aabbccddeeff", "ffeeddccbbaa99887766554433221100"],
                  "next_boot_slot": 1, "status": "verifying"}},
    {"id": 9, "functions": [{"number": 0, "connection_type": 22}, {"number": 1, "connection_type": 23}],
     "answers": {"/hps/firmware/info": {"User1": "not an image", "User2": 5}, "/hps/firmware/status": [1, 2]},
     "http_faults": [{"path": "/hps/info/networks", "patch": {"more": true}},
                     {"path": "/hps/hwmon/info", "body": "<html>"},
                     {"path": "/hps/ptp/management", "status": 503},
                     {"path": "/hps/control/igmp", "cut": "before"}]}]})";

/// Without what is another time, or another simulator's.
std::string comparable(const std::string& text) {
    static const std::string kServer = R"(127\.0\.0\.1:\d+|/tmp/[^/]*/driver.sock)";
    static const std::string kTimes = R"re("(text|tai_ns|system_before|system_after|made)": "\d[^"]*")re";
    return replaced(replaced(text, kServer, "SERVER"), kTimes, R"("$1": "TIME")");
}

class Support : public KivctlConfigured {
  protected:
    /// The texts of the members by name, as a run leaves them in a new folder.
    std::map<std::string, std::string> collect(const std::string& folder,
                                               const std::string& timeout = "300") const {
        EXPECT_EQ(run({"support", "-o", folder, "--timeout", timeout}).status, 3);
        std::map<std::string, std::string> members;
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            if (entry.is_regular_file())
                members[fs::relative(entry.path(), folder).string()] = read_file(entry.path().string());
        }
        return members;
    }

    static std::string reason(const std::map<std::string, std::string>& members, const std::string& name) {
        const Json index = parsed(members.at("index.json"));
        for (const Json& left : index["left_out"]) {
            if (left["name"] == name) return left["reason"];
        }
        return "";
    }

    TemporaryDirectory directory_;
};

}  // namespace

TEST_F(Support, BringsTheCardsToAnotherDesk) {
    std::map<std::string, std::string> there;
    {
        const RunningSimulator field(cards_of(kUnusual));
        there = collect(directory_ / "there/");
    }
    EXPECT_TRUE(has(there["card-3/status.json"], "-7"));
    EXPECT_EQ(there["card-3/server/hps/download/log.txt"], "a line\nanother\n");
    EXPECT_EQ(there["card-9/server/hps/hwmon/info.json"], "<html>");
    EXPECT_NE(reason(there, "card-9/server/hps/control/igmp.json"), "");
    EXPECT_TRUE(has(there["log.txt"], "== kivctl info 9: exit status"));

    const RunningSimulator desk(kivsim::load_scenario(directory_ / "there/cards.json").cards);
    const std::map<std::string, std::string> here = collect(directory_ / "here/");
    EXPECT_EQ(here.size(), there.size());
    there["log.txt"] = here.at("log.txt");
    for (const auto& [name, text] : here)
        EXPECT_EQ(comparable(text), comparable(there[name])) << name;
}

TEST_F(Support, IsOneFileThatTellsWhatIsInIt) {
    const RunningSimulator simulator;
    const std::string file = directory_ / "support.tar.gz";
    const Ended ended = expect({"support", "-o", file}, 0);
    EXPECT_TRUE(ended.out.ends_with(file + ": look through it before you send it\n")) << ended.out;
    EXPECT_EQ(run_program({"tar", "xzf", file, "-C", directory_ / ""}).status, 0);
    std::size_t members = 0;
    for (const auto& entry : fs::recursive_directory_iterator(directory_ / "")) {
        if (!entry.is_regular_file() || entry.path() == file) continue;
        ++members;
        const std::string path = entry.path().string();
        const std::string name = path.substr(path.find('/', path.find("/kivctl-support-") + 1) + 1);
        EXPECT_TRUE(has(ended.out, "\n" + name + " "));
    }
    EXPECT_EQ(members, static_cast<std::size_t>(std::count(ended.out.begin(), ended.out.end(), '\n')) - 4);

    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const std::string before = read_file(file);
    expect_error(run({"support", "-o", file}), 1, "exists already, and stays as it is");
    EXPECT_EQ(read_file(file), before);

    fs::create_directory(directory_ / "folder");
    const Json report = json_of({"support", "-o", directory_ / "folder"});
    const std::string made = report["file"];
    EXPECT_TRUE(made.starts_with(directory_ / "folder/kivctl-support-")) << made;
    EXPECT_EQ(report["members"].size(), members);
    EXPECT_TRUE(fs::exists(made + "cards.json"));
}

TEST_F(Support, LeavesNoHalfFile) {
    const RunningSimulator simulator;
    const std::string file = directory_ / "support.tar.gz";
    // A limit of the size of files: as on a full disk, the file is there but cannot take it all.
    const Words limited = shell("trap '' XFSZ; ulimit -f 2; exec \"$0\" support -o \"$1\"", {file});
    expect_error(run_program(limited), 1, "cannot be written, and is removed: ");
    EXPECT_FALSE(fs::exists(file));
    const std::string nowhere = directory_ / "none/support.tar.gz";
    expect_error(run({"support", "-o", nowhere}), 1, "cannot be made: No such file");

    const std::size_t calls = simulator.calls(34).size();
    simulator.control("POST", "/driver_faults", R"({"selector": 34, "delay_ms": 600000})");
    Program hangs(kivctl({"support", "-o", file}));
    EXPECT_TRUE(wait_until([&] { return simulator.calls(34).size() > calls; }));
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(hangs.end(SIGTERM).status, 5);
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(Support, CollectsWhatItCan) {
    configuration_.write("{");
    setenv("KIVSIM_SOCKET", (directory_ / "none").c_str(), 1);
    std::map<std::string, std::string> members = collect(directory_ / "nothing/");
    EXPECT_EQ(parsed(members["doctor.json"])["result"], "FAIL");
    EXPECT_EQ(members["configuration/hps_boot.json"], "{");
    EXPECT_EQ(parsed(members["scan.json"])["name"], "NO_DRIVER");
    EXPECT_TRUE(has(reason(members, "scan.json"), "no driver at "));

    const RunningSimulator simulator;
    simulator.control("POST", "/driver_faults", R"({"selector": 34, "delay_ms": 600000})");
    members = collect(directory_ / "hangs/", "90");
    EXPECT_TRUE(has(reason(members, "card-1/streams.json"), "no end within 3 s"));
    EXPECT_TRUE(has(reason(members, "card-1/flash.json"), "not asked"));
    EXPECT_TRUE(has(reason(members, "cards.json"), "card 1"));
    EXPECT_EQ(members.count("card-1/server/hps/info/networks.json"), 1u);
    EXPECT_EQ(parsed(members["cards.json"])["cards"][0]["id"], 2);
}
