// Network and PTP settings: the command that the card gets, and the configuration that keeps them.
#include "api/FoundCards.h"
#include "support/ConfigurationFile.h"
#include "support/Json.h"

namespace {

std::string ptp_of(uint8_t id) {
    kiv_ptp_config_t ptp{{}, 9, {9, 9, 9, 9}};
    EXPECT_EQ(kiv_get_ptp_config(id, &ptp), KIV_OK);
    return text_of({ptp.global_params, ptp.enabled, ptp.port_params});
}

}  // namespace

TEST(Settings, ReachTheCardAsOneCommandAndThenTheConfiguration) {
    Json file = parsed(ConfigurationFile::sample());
    file["ptp"]["domainNumber"] = 300;  // 44 in the record's byte.
    file["ptp"]["unicast_delay_req"] = 256;
    file["devices"][1]["device_id"] = 1;  // A second entry of the same card.
    file["devices"][1]["maceth1"]["vlan_id"] = 12;
    const ConfigurationFile configuration(text_of(file));
    SKIP_UNLESS_USABLE(configuration);
    ASSERT_EQ(kiv_open(nullptr), KIV_OK);
    FoundCards cards({kivsim::believable_card(1), kivsim::believable_card(9)});
    EXPECT_EQ(ptp_of(1), "[[3,44,-2,-3],1,[46,46,64,64]]");
    EXPECT_EQ(ptp_of(9), "[[3,44,-2,-3],1,[9,9,9,9]]");

    kiv_net_config_t net{{0xC0A80001, 20, 0x80, {}, 0xF123, {}}, {0x3F57FFFE, 12, 0, {}, 0xFFFF, {}}};
    kiv_ptp_config_t ptp{{-1, -2, -3, -4}, 200, {1, 128, 3, 255}};
    EXPECT_EQ(kiv_set_ptp_config(1, &net, &ptp), KIV_OK);
    EXPECT_EQ(cards.take_requests(),
              Lines{"POST control/network/reconfig {\"reconfig_cmd\":\""
                    "macethP=192.168.0.1/20,291,3,1 macethS=63.87.255.254/12,0,255,128 "
                    "macptp=254,-3,255,200,-4 mactun=127.0.0.1/30,0,100us \"}"});
    // clang-format off
    file["ptp"] = parsed(R"({"announceReceiptTimeout": -1, "domainNumber": -2, "logAnnounceInterval": -3, "logDelayReqInterval": -4, "unicast_delay_req": 200})");
    for (Json& entry : file["devices"]) {
        entry["maceth0"].update(parsed(R"({"ip_addr": "192.168.0.1", "netmask": "255.255.240.0", "tos": 1, "ttl": 3})"));
        entry["maceth1"].update(parsed(R"({"ip_addr": "63.87.255.254", "netmask": "255.240.0.0", "tos": 128, "ttl": 255})"));
    }
    // clang-format on
    for (int round = 0; round < 2; ++round) {  // The second time after a refusal, which changes nothing.
        EXPECT_EQ(kiv_configure_save(), KIV_OK);
        EXPECT_EQ(parsed(configuration.read()), file);
        EXPECT_EQ(ptp_of(1), "[[-1,-2,-3,-4],200,[1,128,3,255]]") << "as it was set";
        EXPECT_EQ(ptp_of(9), "[[-1,-2,-3,-4],1,[9,9,9,9]]") << "as it is configured";
        net.port_0 = {1, 33, 0, {}, 0, {}};
        ptp = {};
        EXPECT_EQ(kiv_set_ptp_config(1, &net, &ptp), KIV_ERR_REST);
        EXPECT_EQ(cards.log_end(), "Fail reconfig_network");
    }
}
