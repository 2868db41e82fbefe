// PTP settings and state, and their change.
#include <sys/stat.h>

#include "kivctl/Kivctl.h"
#include "support/Patterns.h"

using namespace std::string_literals;

const std::string kWithoutVlans = "ptp set 1 --vlan0 off --vlan1 off";

TEST_F(KivctlSettings, PtpSetChangesOnlyWhatIsGivenAndSavesOnlyOnDemand) {
    const std::string before = configuration_.read();
    const std::string change =
        "ptp set 1 --domain 200 --log-announce-interval -4 --tos1 7 --ttl0 9 --ip1 10.1.2.3/8 --vlan0 20 "
        "--vlan1 off";
    Json shown = json_of(words_of(change + " --dry-run"));
    EXPECT_EQ(shown["sent"], false);
    EXPECT_EQ(last_reconfiguration(), "none");
    const Json applied = json_of(words_of(change));
    EXPECT_EQ(last_reconfiguration(),
              "macethP=192.168.10.11/24,20,9,46 macethS=10.1.2.3/8,0,64,7 macptp=200,-4,3,0,-3 ");
    EXPECT_EQ(applied["sent"], true);
    shown["sent"] = true;
    EXPECT_EQ(applied, shown) << "the dry run has shown what is sent";
    EXPECT_EQ(applied["ports"], parsed(R"([
        {"port": 0, "ip_address": "192.168.10.11", "prefix_length": 24, "vlan": 20},
        {"port": 1, "ip_address": "10.1.2.3", "prefix_length": 8, "vlan": "off"}])"));
    EXPECT_EQ(configuration_.read(), before);

    expect(
        words_of("ptp set 1 --announce-receipt-timeout 5 --log-delay-req-interval 1 --unicast-delay-req on "
                 "--domain 200 --tos0 1 --ttl1 2 --ip0 10.9.8.6/30 --vlan0 30 --vlan1 off --save"),
        0, "saved in the card configuration");
    EXPECT_EQ(last_reconfiguration(),
              "macethP=10.9.8.6/30,30,64,1 macethS=10.1.2.3/8,0,2,46 macptp=200,-2,5,1,1 ");
    const Json file = parsed(configuration_.read());
    EXPECT_EQ(file["devices"][0]["maceth0"], parsed(R"({"ip_addr": "10.9.8.6", "netmask": "255.255.255.252",
        "tos": 1, "ttl": 64, "vlan_id": 30})"));
    EXPECT_EQ(file["ptp"],
              parsed(R"({"announceReceiptTimeout": 5, "domainNumber": 200, "logAnnounceInterval": -2,
        "logDelayReqInterval": 1, "unicast_delay_req": 1})"));
    EXPECT_EQ(file["devices"][1], parsed(before)["devices"][1]);
    EXPECT_EQ(read_file(configuration_.path() + ".bak"), before);
    expect({"config", "check"}, 0, "good");
}

TEST_F(KivctlSettings, PtpSetSendsNothingThatWouldDoHarm) {
    const std::pair<const char*, const char*> refused[] = {
        {"", "--vlan0 is missing. A card does not tell its VLANs"},
        {"--vlan0 off", "--vlan1 is missing"},
        {"--vlan0 off --vlan1 7 --ip0 0.0.0.0/24", "begin with 0"},
        {"--vlan0 off --vlan1 7 --ip0 255.255.255.255/24", "the broadcast address"},
        {"--vlan0 off --vlan1 7 --ip0 10.0.0.255/24", "the broadcast address of its network"},
        {"--vlan0 off --vlan1 7 --ip0 10.0.0.0/24", "the address of the network itself"},
        {"--vlan0 off --vlan1 7 --ip1 239.1.1.1/24", "a multicast address"},
        {"--vlan0 off --vlan1 7 --ip1 127.0.0.2/24", "the host's own"},
        {"--vlan0 off --vlan1 7 --ip1 10.0.0.1/0", "a port's prefix is 1 to 30"},
        {"--vlan0 off --vlan1 7 --ip1 10.0.0.1/31", "a port's prefix is 1 to 30"},
        {"--vlan0 off --vlan1 7 --save --dry-run", "exclude each other"},
    };
    for (const auto& [options, reason] : refused)
        expect(words_of("ptp set 1 "s + options), 2, reason);
    // The card may have an address that no port can have: it is not sent back unseen.
    add_fault(R"({"path": "/hps/info/networks", "patch": {"interfaces": [
        {"if_name": "maceth0", "ip_addr": "0.0.0.0", "netmask": "0.0.0.0", "hw_addr": "x"},
        {"if_name": "maceth1", "ip_addr": "10.0.0.1", "netmask": "255.0.0.0", "hw_addr": "y"}]}})");
    expect(words_of(kWithoutVlans), 2, "port 0 cannot have 0.0.0.0/0");
    EXPECT_EQ(last_reconfiguration(), "none");
    expect(words_of(kWithoutVlans + " --force"), 0);
    EXPECT_TRUE(has(last_reconfiguration(), "macethP=0.0.0.0/0"));
}

TEST_F(KivctlSettings, PtpSetSaysWhatIsNotSaved) {
    const std::string no_entry = R"({"version": 1, "ptp": {"announceReceiptTimeout": 3, "domainNumber": 1,
        "logAnnounceInterval": 0, "logDelayReqInterval": 0, "unicast_delay_req": 1}, "devices": [], "site": "Studio 3", "site": "Studio 4",
        "mactun": {"ip_addr": "127.0.0.1", "server_port": 80}})";
    configuration_.write(no_entry);
    const std::string given = kWithoutVlans + " --tos0 1 --tos1 2 --ttl0 3";
    expect(words_of(given), 1, "nothing was sent: the card configuration has no entry for this card");
    EXPECT_EQ(last_reconfiguration(), "none");
    expect(words_of(given + " --ttl1 4 --domain 9 --save"), 1, "not saved: addresses, VLANs, TOS and TTL");
    EXPECT_EQ(parsed(configuration_.read())["ptp"]["domainNumber"], 9);
    EXPECT_EQ(parsed(configuration_.read())["site"], "Studio 4") << "keys that are not known stay";
    configuration_.write(no_entry);
    expect(words_of(given + " --ttl1 4 --save"), 1, "not kept: the first of several keys site");

    configuration_.write(replaced(ConfigurationFile::sample(), "127,", "300,"));
    expect(words_of(kWithoutVlans), 1, "line 5: ptp.domainNumber: is not between 0 and 255");
    EXPECT_FALSE(has(last_reconfiguration(), "macptp=300"));
    expect(words_of(kWithoutVlans + " --domain 7"), 0, "the change is in the card");

    // The card takes the change, and then the file cannot be kept: a folder stands where the former one goes.
    configuration_.write(ConfigurationFile::sample());
    const std::string in_the_way = configuration_.path() + ".bak";
    remove(in_the_way.c_str());
    ASSERT_EQ(mkdir(in_the_way.c_str(), 0700), 0);
    write_file(in_the_way + "/file", "");
    const Words change = words_of(kWithoutVlans + " --domain 5 --save");
    const Json both = json_of(change, 1);
    EXPECT_EQ((Json{both["sent"], both["saved"]}), (Json{true, false}));
    EXPECT_TRUE(has(text_of(both["error"]), R"("name":"NOT_SAVED","layer":"configuration")"));
    expect(change, 1, "card 1 has taken the change, but it is not saved");
    EXPECT_EQ(configuration_.read(), ConfigurationFile::sample());
    remove((in_the_way + "/file").c_str());
    remove(in_the_way.c_str());

    add_fault(
        R"({"path": "/hps/control/network/reconfig", "nth": 1, "carried_out": false, "status": 200, "body": "x"})");
    const Json lied = json_of(words_of(kWithoutVlans + " --ip0 10.9.9.9/24 --save"), 1);
    EXPECT_EQ(lied["error"]["name"], "NOT_TAKEN");
    EXPECT_EQ(lied["saved"], false);
    EXPECT_EQ(configuration_.read(), ConfigurationFile::sample());
    control("DELETE", "/http_faults");
    add_fault(R"({"path": "/hps/control/network/reconfig", "status": 500})");
    expect(change, 1, "whether the card took the change is not known");
    EXPECT_EQ(configuration_.read(), ConfigurationFile::sample());
}

TEST_F(KivctlSettings, SaysOfPtpWhereEachValueComesFrom) {
    Json ptp = json_of({"ptp", "1"});
    EXPECT_EQ(ptp["settings"],
              parsed(R"({"announce_receipt_timeout": 3, "domain": 127, "log_announce_interval": -2,
        "log_delay_req_interval": -3, "unicast_delay_req": false, "tos": [46, 46], "ttl": [64, 64]})"));
    const std::string time = ptp["state"]["time"]["text"];
    EXPECT_TRUE(time.ends_with("Z (TAI-UTC 37 s)")) << time;
    ptp["state"].erase("time");
    EXPECT_EQ(ptp["state"], parsed(R"({"master_locking": {"text": "locked", "value": 4}, "register_state": 0,
        "utc_offset": 37, "utc_offset_valid": true, "grandmaster": "0x001DC1FFFE123456", "selected_source": null})"));
    EXPECT_EQ(ptp["sources"]["settings"]["domain"], "file");
    EXPECT_EQ(ptp["sources"]["state"]["grandmaster"], "card");
    EXPECT_EQ(ptp["sources"]["state"]["selected_source"], "process");
    expect({"ptp"}, 0, "Domain                      127 ");

    configuration_.write(R"({"version": 1, "ptp": {"announceReceiptTimeout": 3, "domainNumber": 200,
        "logAnnounceInterval": 0, "logDelayReqInterval": 0, "unicast_delay_req": 1}, "devices": [],
        "mactun": {"ip_addr": "127.0.0.1", "server_port": 80}})");
    change({{"ptp_state", nullptr}});
    ptp = json_of({"ptp", "1"});
    EXPECT_TRUE(ptp["state"]["register_state"].is_null());
    EXPECT_EQ(ptp["settings"]["ttl"], parsed("[null, null]"));
    EXPECT_EQ(ptp["settings"]["domain"], 200);

    configuration_.write("{");
    EXPECT_TRUE(json_of({"ptp"})["settings"]["domain"].is_null()) << "nothing is made up";
    expect({"ptp"}, 0, "config check");
}
