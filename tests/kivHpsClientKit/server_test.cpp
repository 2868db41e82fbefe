// The management server of a virtual card, as the client sees it.
#include "card/Firmware.h"
#include "kivHpsClientKit/CardServer.h"

namespace {

using Results = std::vector<int32_t>;

struct hpsServer : testing::Test {
    hpsServer() {
        EXPECT_EQ(card.open(client, false), 0);
        log.again();
    }
    static std::string refusal(const std::string& reason) {
        return "HTTP status=400, body={\"data\":{\"error\":" + text_of(reason) + "}}";
    }
    CapturedLog log;
    CardServer card;
    hpsClient client;
    const TemporaryDirectory directory;
};

TEST_F(hpsServer, AReconfigurationChangesTheInterfacesOrNothing) {
    EXPECT_EQ(client.reconfig_network("macethP=10.1.2.3/20,0,64,0 macptp=0,1,-2,3,4"), 0);
    EXPECT_EQ(client.reconfig_network("macethP=10.9.9.9/24,0,64,0 eth0=1"), -1);
    EXPECT_EQ(client.reconfig_network("macethS=10.9.9.9/33,0,64,0"), -1);
    EXPECT_EQ(client.start_tcpdump("eth0", 3), -1);
    EXPECT_EQ(log.take(), (Lines{refusal("unknown group in \"eth0=1\""), refusal("macethS has no address"),
                                 refusal("no interface \"eth0\"")}));
    std::vector<inteface_info> list;
    EXPECT_EQ(client.get_interface_info(list), 0);
    EXPECT_EQ(words(list[0].if_name, list[0].ip_addr, list[0].netmask), "maceth0 10.1.2.3 255.255.240.0 ");
    EXPECT_EQ(words(list[1].if_name, list[1].ip_addr, list[2].if_name), "maceth1 192.168.20.11 mactun ");
    EXPECT_EQ((Results{client.start_tcpdump("mactun", 3), client.get_log_tmp(directory / "log")}),
              Results(2, 0));
    EXPECT_TRUE(read_file(directory / "log").ends_with("macptp=0,1,-2,3,4\ncapture on mactun for 3 s\n"));
}

TEST_F(hpsServer, AnUpdateWritesTheSlotThatDoesNotBootNext) {
    const std::string file = directory / "fw.bin", next = "[Next Boot Image]",
                      first = kivsim::md5_of("card 1");
    std::string bytes(3u << 20, '\xA5');
    bytes.replace(0, 5, "\r\n--\0", 5);
    const std::string md5 = kivsim::md5_of(bytes);
    write_file(file, bytes);
    EXPECT_EQ(client.fw_start(true, ""), -1);
    const Stopwatch watch;
    EXPECT_EQ(client.fw_upload(file), 0);
    EXPECT_LT(watch.elapsed().count(), 1000) << "asks for the body";
    EXPECT_EQ(client.fw_start(true, std::string(32, '0')), -1);
    EXPECT_EQ(log.take(), (Lines{refusal("no image was uploaded"), refusal("the image's MD5 is " + md5)}));
    EXPECT_EQ(client.get_fw_status(), "idle");
    EXPECT_EQ(client.fw_start(true, md5), 0);
    Lines phases{client.get_fw_status()};
    EXPECT_EQ((Results{client.fw_upload(file), client.fw_start(true, ""), client.fw_switch(1)}),
              Results(3, -1));
    EXPECT_EQ(log.take(), Lines(3, refusal("a write is under way")));
    EXPECT_EQ(images(client), words(0, first, next, kivsim::md5_of("factory image")));
    EXPECT_TRUE(wait_until([&] {
        if (const std::string now = client.get_fw_status(); now != phases.back()) phases.push_back(now);
        return phases.back() == "idle";
    }));
    EXPECT_EQ(phases, (Lines{"erasing", "writing", "verifying", "idle"}));
    EXPECT_EQ(images(client), words(0, first, next, md5));
    EXPECT_EQ((Results{client.fw_switch(1), client.fw_switch(2)}), (Results{0, -1}));
    EXPECT_EQ(log.take(), Lines{refusal("images are 0 and 1")});
    EXPECT_EQ((Results{client.fw_upload(file), client.fw_start(true, ""), client.fw_start(false, "")}),
              Results(3, 0));
    EXPECT_EQ(client.get_fw_status() + images(client), "idle" + words(0, first, md5, next))
        << "an update cancelled";
}

TEST_F(hpsServer, ItsControlAddressShowsRegistrationsAndChangesAnswers) {
    EXPECT_EQ((Results{client.registry_alive(1234), client.registry_alive(56)}), Results(2, 0));
    EXPECT_EQ((Results{client.keep_alive(56), client.keep_alive(99)}), (Results{0, -1}));
    EXPECT_EQ(log.take(), Lines{"HTTP not found"});
    const std::string own = R"(200 {"id":1,"server":"127.0.0.1:)" + card.port();
    EXPECT_TRUE(card.control("GET").starts_with(
        own + R"(","alive":[56,1234],"http_faults":[],"driver_faults":[],"driver":{)"));
    const std::string line =
        R"({"card":1,"method":"PATCH","path":"/api/v1.0/alive/56","body":"null","status":200,)";
    EXPECT_TRUE(has(card.log(), line + R"("carried_out":true,"answer":"{\"data\":\"ok\"}"})" + "\n"));
    card.control("PATCH", "", {{"hwmon", parsed("[{}]")}});
    for (const auto& [wrapping, body] :
         {std::pair("text", R"({"data":"[{}]"})"), {"none", "[{}]"}, {"object", R"({"data":[{}]})"}}) {
        EXPECT_EQ(card.control("PATCH", "", {{"wrapping", wrapping}}), "200 \"ok\"");
        EXPECT_EQ(client.http_get("/hps/hwmon/info").body, body);
        EXPECT_EQ(client.get_fw_status(), "idle");
    }
    EXPECT_EQ(card.control("PATCH", "", {{"wrap", 1}}), R"(400 {"error":"request: wrap: unknown key"})");
    EXPECT_EQ(card.control("POST", "/http_faults", {{"nth", 1}}),
              R"(400 {"error":"request: path: missing"})");
}

}  // namespace
