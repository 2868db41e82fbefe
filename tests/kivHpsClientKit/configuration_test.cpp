// The card's server found in the host's configuration file.
#include "kivHpsClientKit/CardServer.h"
#include "support/LoopbackServer.h"

namespace {

const LoopbackServer::Reply kNetworks = LoopbackServer::http(200, R"({"data":{"interfaces":[]}})");

class hpsConfiguration : public testing::Test {
  protected:
    /// Writes the configuration; A and B in it stand for the ports of the two servers.
    void write(std::string text) {
        for (std::size_t at; (at = text.find_first_of("AB")) != std::string::npos;)
            text.replace(at, 1, std::to_string(servers[text[at] - 'A'].port()));
        write_file(path, text);
    }
    /// The result, and what each server was asked so far.
    std::string open(bool by_name, const std::string& wanted) {
        const int32_t result = by_name ? client.open_config_ifname(path, false, wanted)
                                       : client.open_config_ipaddr(path, false, wanted);
        log.again();
        return std::to_string(result) + " " + std::to_string(servers[0].requests().size()) +
               std::to_string(servers[1].requests().size());
    }

    const LoopbackServer servers[2] = {LoopbackServer({kNetworks}), LoopbackServer({kNetworks})};
    const TemporaryDirectory directory;
    const std::string path = directory / "boot.json";
    CapturedLog log;
    hpsClient client;
};

// clang-format off
constexpr const char* kDevices = R"({"devices": [
    7, "en5", {}, {"hps_access": 1, "maceth0": "10.0.0.1", "maceth1": null}, {"hps_access": {"ifnames": "en5"}},
    {"hps_access": {"ip_addr": "127.0.0.1", "port": A, "ifnames": [5, null, ["en9"], "en5", "en6"]},
     "maceth0": {"ip_addr": "10.0.0.1"}, "maceth1": {"ip_addr": "10.0.0.2"}},
    {"hps_access": {"ip_addr": "127.0.0.1", "port": B, "ifnames": ["en6", "en7", "5"]},
     "maceth0": {"ip_addr": "10.0.0.2"}, "maceth1": {"ip_addr": "10.0.0.3"}},
    {"hps_access": {"ip_addr": "127.0.0.2", "port": "80", "ifnames": ["en8"]}, "maceth1": {"ip_addr": "10.0.0.8"}},
    {"hps_access": {"ifnames": ["en10"], "port": 80}, "maceth0": {"ip_addr": "10.0.0.10"}},
    {"maceth0": {"ip_addr": "10.0.0.11"}}]})";
// clang-format on

TEST_F(hpsConfiguration, TheFirstDeviceThatMatchesIsTaken) {
    write(kDevices);
    EXPECT_EQ(open(true, "en5"), "0 10");
    EXPECT_EQ(open(true, "en6"), "0 20");
    EXPECT_EQ(open(true, "en7"), "0 21");
    EXPECT_EQ(open(true, "5"), "0 22");
    EXPECT_EQ(open(false, "10.0.0.1"), "0 32");
    EXPECT_EQ(open(false, "10.0.0.2"), "0 42") << "the later device has it at the earlier port";
    EXPECT_EQ(open(false, "10.0.0.3"), "0 43");
    EXPECT_EQ(client.get_url(), servers[1].url() + "/api/v1.0");
    EXPECT_EQ(request_line_of(servers[1].requests()[0]), "GET /api/v1.0/hps/info/networks HTTP/1.1");
    EXPECT_EQ(log.take(), Lines{});
}

TEST_F(hpsConfiguration, WithoutAMatchTwoLinesSaySoAndNobodyIsAsked) {
    for (const std::string text : {"{}", "[]", "7", R"({"devices":[]})", R"({"devices":null})", kDevices}) {
        write(text);
        EXPECT_EQ(open(true, "en9"), "-1 00");
        EXPECT_EQ(log.take(), (Lines{"Invalid ifname=en9", "Invalid JSON format=" + path}));
        EXPECT_EQ(open(false, "10.0.0.{}"), "-1 00");
        EXPECT_EQ(log.take(), (Lines{"Invalid ipaddr=10.0.0.{}", "Invalid JSON format=" + path}));
    }
    for (const std::string& none : {std::string(), directory / "none", directory / "."}) {
        EXPECT_EQ(client.open_config_ifname(none, true, "en7"), -1);
        EXPECT_EQ(client.open_config_ipaddr(none, true, "10.0.0.1"), -1);
    }
    EXPECT_EQ(client.get_url() + client.get_address(), "");
    EXPECT_EQ(log.take(), Lines{});
}

TEST_F(hpsConfiguration, ErrorsOfTheFileAreRaisedAndChangeNothing) {
    for (const std::string text : {"", "{", R"({"devices":[]} // none)"}) {
        write(text);
        EXPECT_THROW(open(true, "en5"), Json::parse_error) << text;
        EXPECT_THROW(open(false, "10.0.0.1"), Json::parse_error) << text;
    }
    for (const std::string& text : {std::string(100'000, '['), R"({"devices":)" + std::string(100, '[')}) {
        write(text);
        EXPECT_THROW(open(true, "en5"), std::runtime_error);
        EXPECT_THROW(open(false, "10.0.0.1"), std::runtime_error);
    }
    write(kDevices);
    EXPECT_THROW(open(true, "en8"), Json::type_error);
    EXPECT_THROW(open(false, "10.0.0.8"), Json::type_error);
    EXPECT_THROW(open(true, "en10"), Json::out_of_range);
    EXPECT_THROW(open(false, "10.0.0.11"), Json::out_of_range);
    EXPECT_EQ(client.get_url() + client.get_address(), "");
}

}  // namespace
