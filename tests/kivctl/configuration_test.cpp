// The configuration file: looked at, made, and shown.
#include <sys/stat.h>

#include "kivctl/Kivctl.h"

TEST_F(KivctlConfigured, ConfigCheckNamesKeyAndLine) {
    expect({"config", "check"}, 0, "hps_boot.json: good\n");
    const std::string sample = ConfigurationFile::sample();
    const auto with = [&](const std::string& from, const std::string& to) {
        std::string text = sample;
        return text.replace(text.find(from), from.size(), to);
    };
    const std::tuple<std::string, int, const char*> files[] = {
        {with("\"domainNumber\": 127,", "\"domainNumber\": 127,,"), 1, "line 5: "},
        {with("\"ttl\": 64,", "\"ttl\": \"64\","), 1, "line 18: devices[0].maceth0.ttl: must be a number\n"},
        {with("\"chip_id\": \"KIV-1002\",", ""), 1, "line 29: devices[1].chip_id: is missing\n"},
        {with("\"mactun\"", "\"mactum\""), 1, "mactun: is missing\n"},
        {with("\"tos\": 46", "\"tos\": 300"), 3,
         "line 17: devices[0].maceth0.tos: is not between 0 and 255 (warning)\n"},
        {with("\"domainNumber\": 127", "\"domainNumber\": 256"), 3,
         "ptp.domainNumber: is not between 0 and 255"},
        {with("\"logAnnounceInterval\": -2", "\"logAnnounceInterval\": -129"), 3,
         "is not between -128 and 127"},
        {with("192.168.10.11", "192.168.10"), 3, "line 15: devices[0].maceth0.ip_addr: is no IPv4 address"},
        {with("255.255.255.0", "255.0.255.0"), 3, "line 16: devices[0].maceth0.netmask: is no netmask"},
        {with("\"version\": 1,", "\"version\": 1, \"colour\": 2,"), 3,
         "line 2: colour: is not known, and has no effect"},
        {with("\"version\": 1,", "\"version\": 1, \"version\": 2,"), 3,
         "version: stands there more than once"},
        {with("\"device_id\": 2", "\"device_id\": 1"), 3, "devices[1].device_id: is another card's too"},
        {std::string(200, '['), 1, "levels"},
        {"", 1, "line 1: "},
    };
    for (const auto& [text, status, phrase] : files) {
        configuration_.write(text);
        expect({"config", "check"}, status, phrase);
        // The check and the library agree on what can be loaded.
        EXPECT_EQ(run({"config", "show"}).status, status == 1 ? 1 : 0) << text;
    }
    configuration_.write(with("\"ttl\": 64,", "\"ttl\": \"64\","));
    EXPECT_EQ(
        json_of({"config", "check"}, 1)["findings"],
        parsed(
            R"([{"line": 18, "key": "devices[0].maceth0.ttl", "problem": "must be a number", "fatal": true}])"));
}

TEST_F(KivctlConfigured, ConfigInitMakesTheSampleButNeverOverAFile) {
    expect({"config", "init"}, 1, "exists already, and stays as it is");
    configuration_.remove();
    const Json error = json_of({"config", "check"}, 1);
    EXPECT_EQ(error["layer"], "configuration");
    EXPECT_NE(error["remedy"].get<std::string>().find("config init"), std::string::npos);
    expect({"config", "show"}, 1, "config init");
    expect({"config", "init"}, 0, "made from the sample");
    EXPECT_EQ(configuration_.read(), ConfigurationFile::sample());
    struct stat state {};
    ASSERT_EQ(stat(configuration_.path().c_str(), &state), 0);
    EXPECT_EQ(state.st_mode & 0777u, 0644u);

    const Ended shown = expect({"config", "show"}, 0, "Domain                      127\n");
    EXPECT_NE(shown.out.find("2     KIV-1002  1     192.168.20.12  255.255.255.0  46   64   0\n"),
              std::string::npos);
    EXPECT_EQ(json_of({"config", "show"})["configuration"], parsed(ConfigurationFile::sample()));
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
