// Every operation at the wire: what is sent, and what becomes of the answer.

#include "kivHpsClientKit/CardServer.h"
#include "support/LoopbackServer.h"

namespace {

using Call = std::function<std::string(hpsClient&)>;

// clang-format off
constexpr const char* kMaster = R"({"currentUtcOffset":1,"currentUtcOffsetValid":2,"eth_num":3,"grandmasterClockQuality":{"clockAccuracy":4,"clockClass":5,
    "offsetScaledLogVariance":6},"grandmasterIdentity":"seven","grandmasterPriority1":8,"grandmasterPriority2":9,"leap59":10,"leap61":11,"logMinDelayReqInterval":-12,
    "logSyncInterval":-13,"parentIpAddr":"fourteen","parentPortIdentity":{"clockIdentity":"fifteen","portNumber":16},"stepsRemoved":17,"timeSource":18,"two_step_mode":19})";
constexpr const char* kManagement = R"({"currentLocalOffset":-1,"daylightSaving":{"curr_dst":2,"dst_at_next_discontinuity":3,"dst_at_prev_jam_event":4},
    "defaultSystemFrameRate":{"denominator":5,"numerator":6},"jumpSeconds":-7,"leapSecondJump":8,"masterLockingStatus":9,"previousJamLocalOffset":-10,
    "timeAddressFlags":{"color_frame":11,"drop_frame":12},"timeOfNextJam":18446744073709551613,"timeOfNextJump":9007199254740994,"timeOfPreviousJam":15})";

const Call kMasterRecord = [](hpsClient& client) {
    PtpMaster master;
    const int32_t result = client.get_ptp_master(master);
    const auto& [offset, valid, eth, quality, grandmaster, priority1, priority2, leap59, leap61, delay, sync, address, port, steps, source, two] = master;
    return words(result, offset, valid, eth, quality.clockAccuracy, quality.clockClass, quality.offsetScaledLogVariance, grandmaster,
                 priority1, priority2, leap59, leap61, delay, sync, address, port.clockIdentity, port.portNumber, steps, source, two);
};
const Call kManagementRecord = [](hpsClient& client) {
    PtpManagement management;
    const int32_t result = client.get_ptp_management(management);
    const auto& [offset, dst, rate, jump, leap, locking, previous, flags, next_jam, next_jump, previous_jam] = management;
    return words(result, offset, dst.curr_dst, dst.dst_at_next_discontinuity, dst.dst_at_prev_jam_event, rate.denominator, rate.numerator,
                 jump, leap, locking, previous, flags.color_frame, flags.drop_frame, next_jam, next_jump, previous_jam);
};
// clang-format on
Call status(std::function<int32_t(hpsClient&)> operation) {
    return [=](hpsClient& client) { return std::to_string(operation(client)); };
}
Call into_text(std::function<int32_t(hpsClient&, std::string&)> operation) {
    return [=](hpsClient& client) {
        std::string out = "kept";
        const int32_t result = operation(client, out);
        return std::to_string(result) + " " + out;
    };
}
const Call kGroups = [](auto& client) { return client.get_igmp_list(); };
const Call kState = [](auto& client) { return client.get_fw_status(); };
const Call kExists = status([](auto& client) { return client.exist_ip_address("b"); });
const Call kReport = into_text([](auto& client, auto& out) { return client.get_hwmon_info(out, false); });
const Call kMasterText = into_text([](auto& client, auto& out) { return client.get_ptp_master(out); });

/// A client of a server that gives these answers, one each.
struct Connection {
    explicit Connection(std::vector<LoopbackServer::Reply> replies) {
        replies.insert(replies.begin(), LoopbackServer::http(200, R"({"interfaces":[]})"));
        server = std::make_unique<LoopbackServer>(std::move(replies));
        EXPECT_EQ(client.open_config("127.0.0.1", std::to_string(server->port()), false), 0);
        log.again();
    }
    /// The newest request: its line, type and body, with the process's id as PID.
    std::string sent() const {
        const std::string request = server->requests().back();
        std::string all =
            request_line_of(request) + "|" + header_of(request, "Content-Type") + "|" + body_of(request);
        const std::string pid = "\"pid\":" + std::to_string(getpid());
        if (const std::size_t at = all.find(pid); at != std::string::npos) all.replace(at, pid.size(), "PID");
        return all;
    }
    CapturedLog log;
    std::unique_ptr<LoopbackServer> server;
    hpsClient client;
};

TEST(hpsEndpoints, EachSendsItsRequestAndReadsThePayloadHoweverWrapped) {
    const TemporaryDirectory directory;
    const std::string image = directory / "fw.bin", log = directory / "log";
    write_file(image, "\r\nimage");
    const std::string json = "application/json|", line = "------WebKitFormBoundary7MA4YWxkTrZu0gW";
    const std::string document = R"({"z":{"b":[1,"2"]},"a":1.50})", printed = text_of(parsed(document), 4);
    // clang-format off
    const std::string form = "multipart/form-data; boundary=" + line.substr(2) + "|" + line + "\r\nContent-Disposition: form-data; name=\"file\"; "
        "filename=\"fw.bin\"\r\nContent-Type: application/octet-stream\r\n\r\n\r\nimage\r\n" + line + "--\r\n";
    const struct {
        Call call;
        std::string method, path, carried, payload, wanted, failed;  // No payload: only the status counts.
    } rows[] = {
        {status([](auto& c) { std::vector<inteface_info> list; return c.get_interface_info(list) * 10 + static_cast<int32_t>(list.size()); }), "GET", "/hps/info/networks", "|", R"({"interfaces":[{"hw_addr":"d","ip_addr":"b","if_name":"a","netmask":"c"}]})", "1", "-10"},
        {kExists, "GET", "/hps/info/networks", "|", R"({"interfaces":[{"ip_addr":"b"}]})", "1", "0"},
        {status([](auto& c) { return c.igmp_join({"239.1.1.1", "maceth0", ""}); }), "POST", "/hps/control/igmp", json + R"({"settings":[{PID,"dst_ip_addr":"239.1.1.1","if_name":"maceth0","ssm_source_addr":""}]})", "", "0", "-1"},
        {status([](auto& c) { return c.igmp_leave({"232.1.1.1", "eth", "10.0.0.7"}); }), "DELETE", "/hps/control/igmp", json + R"({"settings":[{PID,"dst_ip_addr":"232.1.1.1","if_name":"eth","ssm_source_addr":"10.0.0.7"}]})", "", "0", "-1"},
        {kGroups, "GET", "/hps/control/igmp", "|", R"({"list":[{"pid":7,"dst_ip_addr":"239.1.1.1"},{"dst_ip_addr":"x","pid":-1}]})", "[7]: 239.1.1.1\n[-1]: x\n", "Fail get IGMP List"},
        {into_text([](auto& c, auto& out) { return c.get_hwmon_info(out, true); }), "GET", "/hps/hwmon/info", "|", document, "0 " + printed, "-1 kept"},
        {kReport, "GET", "/hps/hwmon/info", "|", R"([{"label":"Board Power","input":63},{"label":"FPGA","max":95,"input":5.50}])", "0 Temperature\nFPGA: 5.5(95)\n\nPower\nBoard: 63\n", "-1 kept"},
        {status([](auto& c) { return c.start_tcpdump("maceth0", 4294967295u); }), "POST", "/hps/control/tcpdump", json + R"({"if_name":"maceth0","second":4294967295})", "", "0", "-1"},
        {status([=](auto& c) { return c.get_log_tmp(log); }), "GET", "/hps/download/log", "|", "", "0", "-1"},
        {kMasterText, "GET", "/hps/ptp/master", "|", document, "0 " + printed, "-1 kept"},
        {into_text([](auto& c, auto& out) { return c.get_ptp_management(out); }), "GET", "/hps/ptp/management", "|", document, "0 " + printed, "-1 kept"},
        {kMasterRecord, "GET", "/hps/ptp/master", "|", kMaster, "0 1 2 3 4 5 6 seven 8 9 10 11 -12 -13 fourteen fifteen 16 17 18 19 ", "-1 0 0 0 0 0 0  0 0 0 0 0 0   0 0 0 0 "},
        {kManagementRecord, "GET", "/hps/ptp/management", "|", kManagement, "0 -1 2 3 4 5 6 -7 8 9 -10 11 12 18446744073709551613 9007199254740994 15 ", "-1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 "},
        {status([](auto& c) { return c.reconfig_network("macptp=\"1\""); }), "POST", "/hps/control/network/reconfig", json + R"({"reconfig_cmd":"macptp=\"1\""})", "", "0", "-1"},
        {status([](auto& c) { return c.registry_alive(1234); }), "POST", "/alive/1234", json + "null", "", "0", "-1"},
        {status([](auto& c) { return c.keep_alive(-5); }), "PATCH", "/alive/-5", json + "null", "", "0", "-1"},
        {status([=](auto& c) { return c.fw_upload(image); }), "POST", "/hps/firmware/upload", form, "", "0", "-1"},
        {status([](auto& c) { return c.fw_start(true, "D4 as given"); }), "PATCH", "/hps/firmware/control", json + R"({"start":true,"md5hush":"D4 as given"})", "", "0", "-1"},
        {status([](auto& c) { return c.fw_start(false, ""); }), "PATCH", "/hps/firmware/control", json + R"({"start":false,"md5hush":""})", "", "0", "-1"},
        {kState, "GET", "/hps/firmware/status", "|", R"("writing")", "writing", ""},
        {images, "GET", "/hps/firmware/info", "|", R"({"User2":"b","User1":"a"})", "0 a b ", "-1 kept1 kept2 "},
        {status([](auto& c) { return c.fw_switch(255); }), "PATCH", "/hps/firmware/switch", json + R"({"image":255})", "", "0", "-1"},
    };
    // clang-format on
    for (const auto& [call, method, path, carried, payload, wanted, failed] : rows) {
        SCOPED_TRACE(method + path);
        const bool reads = !payload.empty();
        const Json value = reads ? parsed(payload) : Json("ok");
        const auto good = [](const Json& body) { return LoopbackServer::http(200, text_of(body)); };
        Connection to({good({{"data", value}}), good({{"data", text_of(value)}}), good(value),
                       LoopbackServer::http(404, text_of(value)), LoopbackServer::http(299, "OK")});
        for (int wrapping = 0; wrapping < 3; ++wrapping) {
            EXPECT_EQ(call(to.client), wanted) << wrapping;
            EXPECT_EQ(to.sent(), method + " /api/v1.0" + path + " HTTP/1.1|" + carried);
        }
        EXPECT_EQ(to.log.take(), Lines{});
        EXPECT_EQ(call(to.client), failed);
        EXPECT_EQ(to.log.take(), Lines{"HTTP not found"});
        EXPECT_EQ(call(to.client), reads ? failed : wanted);
        EXPECT_EQ(to.log.take().back(), reads ? "body=[OK]" : "invalid json response");
        EXPECT_EQ(to.server->requests().size(), 6u);
    }
    Connection to({LoopbackServer::http(200, "")});
    EXPECT_EQ(to.client.get_log_tmp(log), 0);
    EXPECT_EQ(read_file(log), "");
}

/// What a call gives for a payload, or the kind of error that it raises.
std::string outcome(const Call& call, const Json& payload) try {
    Connection to({LoopbackServer::http(200, text_of({{"data", payload}}))});
    return call(to.client);
} catch (const Json::out_of_range&) {
    return "out_of_range";
} catch (const Json::type_error&) {
    return "type_error";
}

TEST(hpsEndpoints, PayloadsOfOtherShapesAreLeftAloneOrRaise) {
    // clang-format off
    const std::tuple<Call, const char*, std::string> rows[] = {
        {kGroups, R"({"list":[]})", ""}, {kGroups, R"({"list":{"pid":1}})", ""}, {kGroups, R"([{"pid":1}])", ""},
        {kGroups, R"({"list":[{"pid":"1","dst_ip_addr":"x"}]})", "type_error"},
        {kGroups, R"({"list":["x"]})", "type_error"}, {kGroups, R"({"list":[{"pid":1}]})", "out_of_range"},
        {images, R"({"User2":"b","User3":3})", "0 kept1 b "}, {images, R"(["User1"])", "0 kept1 kept2 "},
        {images, R"({"User1":1})", "type_error"},
        {kExists, R"({"interfaces":[{"ip_addr":"bb"},{"ip_addr":1},{"if_name":"b"}]})", "0"}, {kExists, R"([{"ip_addr":"b"}])", "0"},
        {kState, "7", "type_error"}, {kState, R"({"status":"idle"})", "type_error"},
        {kReport, R"({"label":"FPGA"})", "0 kept"}, {kMasterText, "null", "0 null"},
        {kMasterRecord, "[]", "type_error"}, {kManagementRecord, "null", "type_error"},
    };
    // clang-format on
    EXPECT_EQ(hpsClient::convert2string(3232235786u), "192.168.1.10");
    for (const auto& [call, payload, wanted] : rows)
        EXPECT_EQ(outcome(call, parsed(payload)), wanted) << payload;
    // With its indentation a text of 360 KiB would take 70 MiB.
    std::string deep = std::string(98, '[') + "1";
    for (int i = 0; i < 180'000; ++i)
        deep += ",1";
    EXPECT_EQ(outcome(kMasterText, parsed(deep + std::string(98, ']'))), "-1 kept");
}

TEST(hpsEndpoints, ThePtpRecordsNeedEveryKeyInItsType) {
    for (const auto& [call, text] : {std::pair(kMasterRecord, kMaster), {kManagementRecord, kManagement}}) {
        const Json whole = parsed(text);
        const Json leaves = whole.flatten();
        std::vector<Json::json_pointer> keys;
        for (const auto& leaf : leaves.items()) {
            keys.emplace_back(leaf.key());
            if (const auto outer = keys.back().parent_pointer(); !outer.empty()) keys.push_back(outer);
        }
        for (const Json::json_pointer& key : keys) {
            Json changed = whole;
            changed[key] = Json::array();
            EXPECT_EQ(outcome(call, changed), "type_error") << key;
            changed.at(key.parent_pointer()).erase(key.back());
            EXPECT_EQ(outcome(call, changed), "out_of_range") << key;
        }
    }
}

}  // namespace
