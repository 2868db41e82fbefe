// The configuration file: looked at, made, and shown.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "kivctl/Kivctl.h"

namespace fs = std::filesystem;

TEST_F(KivctlConfigured, ConfigCheckNamesKeyAndLine) {
    expect({"config", "check"}, 0, "hps_boot.json: good\n");
    const std::string sample = ConfigurationFile::sample();
    const auto with = [&](const std::string& from, const std::string& to) {
        std::string text = sample;
        return text.replace(text.find(from), from.size(), to);
    };
    const std::tuple<std::string, std::string, int, const char*> changes[] = {
        {R"("domainNumber": 127,)", R"("domainNumber": 127,,)", 1, "line 5: "},
        {R"("ttl": 64,)", R"("ttl": "64",)", 1, "line 18: devices[0].maceth0.ttl: must be a number\n"},
        {R"("chip_id": "KIV-1002",)", "", 1, "line 29: devices[1].chip_id: is missing\n"},
        {"mactun", "mactum", 1, "mactun: is missing\n"},
        {"46,", "300,", 3, "line 17: devices[0].maceth0.tos: is not between 0 and 255 (warning)\n"},
        {"127", "256", 3, "ptp.domainNumber: is not between 0 and 255"},
        {R"("logAnnounceInterval": -2)", R"("logAnnounceInterval": -129)", 3, "is not between -128 and 127"},
        {"192.168.10.11", "192.168.10", 3, "line 15: devices[0].maceth0.ip_addr: is no IPv4 address"},
        {"255.255.255.0", "255.0.255.0", 3, "line 16: devices[0].maceth0.netmask: is no netmask"},
        {"1,", R"(1, "colour": 2,)", 3, "line 2: colour: is not known, and has no effect"},
        {R"("version": 1)", R"("version": 1, "version": 2)", 3, "version: stands there more than once"},
        {R"("device_id": 2)", R"("device_id": 1)", 3, "devices[1].device_id: is another card's too"},
        {R"("device_id": 1)", R"("device_id": true)", 3, "devices[0].device_id: is no whole number"},
        {R"("device_id": 1)", R"("device_id": 1.9)", 3, "devices[0].device_id: is no whole number"},
        {"127", "1e300", 3, "is not between 0 and 255"},
        {R"("version": 1)", R"("version": )" + std::string(30, '9'), 3, "is not between -2147483648"},
        {"192.168.10.11", "192.168.10.11\\u0000x", 3, "ip_addr: is no IPv4 address"},
        {sample, sample + '\0', 3, "holds a NUL byte"},
        {sample, std::string(200, '['), 1, "levels"},
        {sample, "", 1, "line 1: "},
        {sample, "[]", 1, "hps_boot.json: must be an object\n"},
    };
    for (const auto& [from, to, status, phrase] : changes) {
        configuration_.write(with(from, to));
        expect({"config", "check"}, status, phrase);
        // The check and the library agree on what can be loaded.
        EXPECT_EQ(run({"config", "show"}).status, status == 1 ? 1 : 0) << to;
    }
    configuration_.write(with("\"maceth0\": {", "\"\\u001b[2J\": [], \"maceth7\": {"));
    EXPECT_EQ(run({"config", "show"}).err.find('\x1b'), std::string::npos) << "a terminal obeys no key";
    configuration_.write(with("\"ttl\": 64,", "\"ttl\": \"64\","));
    EXPECT_EQ(json_of({"config", "check"}, 1)["findings"], parsed(R"([{"line": 18,
        "key": "devices[0].maceth0.ttl", "problem": "must be a number", "fatal": true}])"));
}

TEST_F(KivctlConfigured, ConfigInitMakesTheSampleButNeverOverAFile) {
    expect({"config", "init"}, 1, "exists already, and stays as it is");
    configuration_.remove();
    EXPECT_EQ(json_of({"config", "check"}, 1)["layer"], "configuration");
    for (const char* const command : {"check", "show"})
        expect({"config", command}, 1, "config init");
    expect({"config", "init"}, 0, "made from the sample");
    EXPECT_EQ(configuration_.read(), ConfigurationFile::sample());
    struct stat state {};
    ASSERT_EQ(stat(configuration_.path().c_str(), &state), 0);
    EXPECT_EQ(state.st_mode & 0777u, 0644u);

    const Ended shown = expect({"config", "show"}, 0, "Domain                      127\n");
    EXPECT_TRUE(has(shown.out, "2     KIV-1002  1     192.168.20.12  255.255.255.0  46   64   0\n"));
    EXPECT_EQ(json_of({"config", "show"})["configuration"], parsed(ConfigurationFile::sample()));
}

TEST_F(KivctlConfigured, ConfigSaysWhatStandsInThePlaceOfTheFile) {
    const std::string path = configuration_.path();
    const auto expect_all = [&](const char* problem) {
        for (const char* const command : {"check", "show", "init"}) {
            const Ended ended = run({"config", command});
            const bool exists = std::string(command) == "init" && !fs::is_symlink(path);
            EXPECT_EQ(ended.status, 1);
            EXPECT_TRUE(has(ended.err, exists ? "exists already" : problem));
            EXPECT_FALSE(has(ended.err, "sudo"));
        }
    };
    ASSERT_EQ(truncate(path.c_str(), (64 << 20) + 1), 0);
    expect_all("has 67108865 bytes; a configuration has at most 67108864");
    configuration_.remove();
    fs::create_directory(path);
    expect_all("is no regular file");
    const std::pair<const char*, const char*> links[] = {
        {"nowhere", "is a link to a file that is not there\n        make that"},
        {"hps_boot.json", "Too many levels of symbolic links"}};
    for (const auto& [target, problem] : links) {
        configuration_.remove();
        fs::create_symlink(target, path);
        expect_all(problem);
    }
    configuration_.remove();
}

TEST_F(KivctlSettings, SaveKeepsOwnerModeAndWhatOthersHaveChanged) {
    const std::string path = configuration_.path();
    const std::string folder = fs::path(path).parent_path();
    std::string text = ConfigurationFile::sample();
    text.replace(text.find("\"device_id\": 1"), 14, "\"device_id\": true");  // To the library it is card 1.
    configuration_.write(text);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(path.c_str(), 1000, 1001), 0);
    }
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);

    const int lock = open(folder.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    expect({"ptp", "set", "1", "--vlan0", "6", "--vlan1", "off", "--save", "--timeout", "1"}, 4,
           "waiting for the end of another change of the card configuration");
    EXPECT_EQ(configuration_.read(), text);
    Program saving(kivctl(words_of("ptp set 1 --vlan0 7 --vlan1 off --save")));
    EXPECT_TRUE(wait_until([&] { return last_reconfiguration().find(",7,") != std::string::npos; }));
    configuration_.write(text.replace(text.find("\"version\": 1"), 12, "\"version\": 9"));
    close(lock);
    const Ended saved = saving.wait();
    EXPECT_EQ(saved.status, 0) << saved.err;
    const Json file = parsed(configuration_.read());
    EXPECT_EQ(file["version"], 9);
    EXPECT_EQ(file["devices"][0]["maceth0"]["vlan_id"], 7);
    for (const std::string& name : {path, path + ".bak"}) {
        struct stat after {};
        ASSERT_EQ(stat(name.c_str(), &after), 0);
        EXPECT_EQ(std::tie(after.st_mode, after.st_uid, after.st_gid),
                  std::tie(before.st_mode, before.st_uid, before.st_gid))
            << name;
    }
}

TEST_F(KivctlConfigured, WorksWithoutAConfigurationWhereNoneIsNeeded) {
    RunningSimulator simulator({kivsim::believable_card(1)});
    for (const char* const text : {"{", ""}) {
        configuration_.write(text);
        for (const char* const command : {"scan", "info", "status", "flash", "version"})
            EXPECT_EQ(run({command}).status, 0) << command;
        expect({"ptp", "set", "1", "--vlan0", "off", "--vlan1", "off"}, 1, "config check");
    }
}
