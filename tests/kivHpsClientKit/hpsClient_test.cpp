#include <kiv/hpsClient.h>

#include <kiv/RestApiClient.h>
#include "kivHpsClientKit/HttpTexts.h"
#include "support/CapturedLog.h"

using namespace std::chrono_literals;

namespace {

const LoopbackServer::Reply kNetworks = LoopbackServer::http(200, R"({"data":{"interfaces":[
    {"hw_addr":"02:00:00:00:00:01","if_name":"eth0","ip_addr":"10.0.0.1","netmask":"255.0.0.0","mtu":9000},
    {"if_name":"eth1","ip_addr":"","netmask":"","hw_addr":""}]}})");
const std::string kInterfaces = "eth0 10.0.0.1 255.0.0.0 02:00:00:00:00:01; eth1   ; ";

int32_t open(hpsClient& client, const LoopbackServer& server) {
    return client.open_config("127.0.0.1", std::to_string(server.port()), false);
}

std::string text(const std::vector<inteface_info>& list) {
    std::string all;
    for (const auto& [if_name, ip_addr, netmask, hw_addr] : list)
        all += if_name + " " + ip_addr + " " + netmask + " " + hw_addr + "; ";
    return all;
}

}  // namespace

TEST(hpsClient, ForwardsEachRequestUnderItsBaseUrlOnceItHasOne) {
    const std::string loose = "{ \"z\": \"ü\", \"a\": [1, {}] }\n", tight = "{\"z\":\"ü\",\"a\":[1,{}]}";
    const std::tuple<std::function<HttpResult(hpsClient&)>, std::string, std::string> cases[] = {
        {[](auto& client) { return client.http_post("/p"); }, "POST /api/v1.0/p", "null"},
        {[&](auto& client) { return client.http_post("/p", loose); }, "POST /api/v1.0/p", tight},
        {[](auto& client) { return client.http_patch("/c"); }, "PATCH /api/v1.0/c", "null"},
        {[&](auto& client) { return client.http_patch("/c", loose); }, "PATCH /api/v1.0/c", tight},
        {[](auto& client) { return client.http_delete("/d"); }, "DELETE /api/v1.0/d", "null"},
        {[&](auto& client) { return client.http_delete("/d", loose); }, "DELETE /api/v1.0/d", tight},
    };
    const LoopbackServer server({kNetworks, LoopbackServer::http(200, "[1]")});
    hpsClient client, unconfigured;
    ASSERT_EQ(open(client, server), 0);
    uint16_t version[3]{};
    client.get_version(version[0], version[1], version[2]);
    EXPECT_EQ(std::tuple(version[0], version[1], version[2]), std::tuple(3, 0, 0));
    CapturedLog log;
    for (const auto& [send, request_line, body] : cases) {
        EXPECT_EQ(text(send(unconfigured)), "failure 0 [] retry over");
        EXPECT_EQ(text(send(client)), "success 200 [[1]]");
        EXPECT_EQ(server.requests().back(), wanted(server, request_line, "application/json", body));
    }
    EXPECT_THROW(client.http_post("/p", "{"), Json::parse_error);
    EXPECT_THROW(client.http_patch("/c", ""), Json::parse_error);
    EXPECT_THROW(client.http_delete("/d", "{} // why"), Json::parse_error);
    const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
    EXPECT_THROW(client.http_post("/p", deep), std::runtime_error);
    EXPECT_THROW(client.http_patch("/c", deep), std::runtime_error);
    EXPECT_THROW(client.http_delete("/d", deep), std::runtime_error);
    EXPECT_EQ(server.requests().size(), 1 + std::size(cases));
    EXPECT_EQ(log.take(), Lines{});
    EXPECT_EQ(unconfigured.get_interface_info(), -1);
    EXPECT_EQ(log.take(), Lines{"HTTP Network error: retry over"});
}

TEST(hpsClient, AConfigurationReadsTheInterfacesAndResetsTheLog) {
    const LoopbackServer server({kNetworks});
    CapturedLog log;
    hpsClient client;
    EXPECT_EQ(client.open_config("127.0.0.1", "0" + std::to_string(server.port()), false), 0);
    EXPECT_EQ(client.get_url(), server.url() + "/api/v1.0");
    EXPECT_EQ(kivLog_get_level(), KIV_LOG_LEVEL_INFO);
    EXPECT_EQ(kivLog_get_type(), static_cast<kiv_log_sink_t>(KIV_LOG_SINK_DEFAULT));

    EXPECT_EQ(client._open_config(false), 0);
    EXPECT_EQ(text(client.interfaces()), kInterfaces + kInterfaces);
    std::vector<inteface_info> list{{"a", "b", "c", "d"}};
    EXPECT_EQ(client.get_interface_info(list), 0);
    EXPECT_EQ(text(list), "a b c d; " + kInterfaces);
    EXPECT_EQ(server.requests(), Lines(3, wanted(server, "GET /api/v1.0/hps/info/networks")));

    log.again();
    EXPECT_EQ(client.open_config("", "80", false), -1);
    EXPECT_EQ(client.get_address(), "127.0.0.1");
    EXPECT_THROW(client.open_config("127.0.0.1", "http", false), std::invalid_argument);
    EXPECT_EQ(client.get_url(), server.url() + "/api/v1.0");
    EXPECT_EQ(log.take(), Lines{});
}

TEST(hpsClient, InterfacesBeforeABrokenOneAreKept) {
    const LoopbackServer server({LoopbackServer::http(200, R"({"interfaces":[
        {"if_name":"a","ip_addr":"b","netmask":"c","hw_addr":"d"}, {"if_name":"e"}]})")});
    hpsClient client;
    std::vector<inteface_info> list;
    EXPECT_THROW(open(client, server), Json::exception);
    EXPECT_THROW(client.get_interface_info(list), Json::exception);
    EXPECT_EQ(text(client.interfaces()), "a b c d; ");
    EXPECT_EQ(text(list), "a b c d; ");
}

TEST(hpsClient, AServerThatGivesNoInterfacesFailsTheConfigurationButKeepsTheUrl) {
    const std::pair<LoopbackServer::Reply, Lines> cases[] = {
        {LoopbackServer::http(200, R"({"data":{"networks":[]},"interfaces":[]})"), {}},
        {LoopbackServer::http(500, ""), {"HTTP Server error status=500, msg=http status 500"}},
        {kHangsUp, failed_attempts(CURLE_GOT_NOTHING, 3, {"HTTP Network error: retry over"})},
    };
    CapturedLog log(KIV_LOG_LEVEL_ERROR);
    for (auto [reply, lines] : cases) {
        const LoopbackServer server({reply});
        hpsClient client;
        EXPECT_EQ(open(client, server), -1);
        lines.push_back("Fail HTTP request url=" + server.url() + "/api/v1.0");
        EXPECT_EQ(log.take(), lines);
        EXPECT_EQ(kivLog_get_level(), KIV_LOG_LEVEL_ERROR);
        EXPECT_EQ(client.get_url(), server.url() + "/api/v1.0");
        EXPECT_TRUE(client.interfaces().empty());
    }
}

TEST(hpsClient, ARequestUnderWayEndsOnTheConnectionItStartedWith) {
    const LoopbackServer before({kNetworks, {LoopbackServer::http(200, "\"before\"").bytes, 900ms}});
    const LoopbackServer after({kNetworks, LoopbackServer::http(200, "\"after\"")});
    hpsClient client;
    ASSERT_EQ(open(client, before), 0);
    auto slow = std::async(std::launch::async, [&] { return client.http_get("/slow"); });
    ASSERT_TRUE(wait_until([&] { return before.requests().size() == 2; }));
    EXPECT_EQ(open(client, after), 0);
    EXPECT_EQ(text(client.http_get("/fast")), "success 200 [\"after\"]");
    EXPECT_EQ(slow.wait_for(0s), std::future_status::timeout);
    EXPECT_EQ(text(slow.get()), "success 200 [\"before\"]");
}

TEST(hpsClient, MayBeConfiguredAnewWhileThreadsSendRequests) {
    const LoopbackServer servers[] = {LoopbackServer({kNetworks}), LoopbackServer({kNetworks})};
    const std::string urls = servers[0].url() + "/api/v1.0 " + servers[1].url() + "/api/v1.0";
    hpsClient client;
    ASSERT_EQ(open(client, servers[0]), 0);
    std::atomic<std::size_t> read{1};
    Threads threads(3, [&](int) {
        for (int round = 0; round < 15; ++round) {
            EXPECT_TRUE(client.http_post("/p", "{}").success);
            if (client.get_interface_info() == 0) ++read;
            EXPECT_TRUE(has(urls, client.get_url()));
        }
    });
    for (int round = 1; round <= 30; ++round) {
        if (open(client, servers[round % 2]) == 0) ++read;
    }
    threads.join();
    EXPECT_EQ(read, 1u + 45u + 30u);
    EXPECT_EQ(client.interfaces().size(), 2 * read);
}

TEST(RestApiClient, OpensTheServerAtItsAddressSplitAtTheFirstColon) {
    const LoopbackServer server({kNetworks, LoopbackServer::http(503, "")});
    kiv::rest::RestApiClient client("127.0.0.1:" + std::to_string(server.port()) + ":1");
    EXPECT_EQ(client.open(), 0);
    EXPECT_EQ(client.get_url(), server.url() + "/api/v1.0");
    EXPECT_EQ((std::pair{client.open(), client.close()}), std::pair(-1, 0));
    testing::internal::CaptureStderr();
    EXPECT_EQ(kiv::rest::RestApiClient("127.0.0.1").open(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: Colon ':' not found in string.\n");
}
