// What a card's server answers, read by every operation of its client; and the requests that go out.
//
// Input: a byte for the operation, a byte for the status, then texts between lines of two dashes: the answers
// in their order (the last one again and again). An operation that sends texts sends the first one.
#include <kiv/kivLog.h>

#include <algorithm>
#include <iterator>

#include <kiv/HpsHttpHelper.h>
#include <kiv/RestApiClient.h>
#include <kiv/kiv_json.h>
#include "base/jsonText.h"
#include "input.h"
#include "requests.h"
#include "support/TemporaryDirectory.h"

namespace {

using fuzz::expect;
using Json = nlohmann::ordered_json;
using Texts = std::vector<std::string>;

const std::string kBase = "http://10.0.0.1:8080/api/v1.0/";
const std::string kKept = "what was there before";

const TemporaryDirectory& directory() {
    static const TemporaryDirectory folder;
    return folder;
}

/// An operation that gives one text or none.
template <auto operation, typename... More>
int32_t text_of(hpsClient& client, More... more) {
    std::string text = kKept;
    const int32_t result = (client.*operation)(text, more...);
    expect(result == 0 || text == kKept, "a failure leaves the output alone");
    return result;
}

int32_t master(hpsClient& client, const Texts&) {
    PtpMaster record;
    record.grandmasterIdentity = kKept;
    const int32_t result = client.get_ptp_master(record);
    expect(result == 0 || record.grandmasterIdentity == kKept, "a failure leaves the record alone");
    return result;
}

int32_t management(hpsClient& client, const Texts&) {
    PtpManagement record;
    record.jumpSeconds = 4711;
    const int32_t result = client.get_ptp_management(record);
    expect(result == 0 || record.jumpSeconds == 4711, "a failure leaves the record alone");
    return result;
}

int32_t interfaces(hpsClient& client, const Texts&) {
    std::vector<inteface_info> list(1);
    const int32_t result = client.get_interface_info(list);
    expect(result == 0 || list.size() == 1, "a failure leaves the list alone");
    return result;
}

int32_t slots(hpsClient& client, const Texts&) {
    std::string one = kKept;
    std::string two = kKept;
    const int32_t result = client.get_firmware_info(one, two);
    expect(result == 0 || (one == kKept && two == kKept), "a failure leaves the slots alone");
    return result;
}

int32_t payload(hpsClient& client, const Texts&) {
    Json json = kKept;
    const bool handled = HpsHttpHelper::handle_json(client.http_get("/hps"), json);
    expect(handled || json == kKept, "a failure leaves the payload alone");
    return handled ? 0 : -1;
}

/// What the polling thread keeps of both documents.
int32_t digest(hpsClient& client, const Texts&) {
    Json json;
    if (!HpsHttpHelper::handle_json(client.http_get("/hps"), json)) return -1;
    hps_ptp_sm kept{};
    read_digest_of_master(json, kept);
    read_digest_of_management(json, kept);
    return 0;
}

int32_t upload(hpsClient& client, const Texts& texts) {
    const std::string file = directory() / "image";
    write_file(file, texts[0]);
    return client.fw_upload(file);
}

int32_t saved_log(hpsClient& client, const Texts& texts) {
    const std::string file = directory() / "log";
    const int32_t result = client.get_log_tmp(file);
    expect(result != 0 || read_file(file) == texts[0], "a download is the body");
    return result;
}

int32_t status_of(const HttpResult& result) {
    expect(result.success == result.error.empty(), "a success has no error");
    expect(result.success == (result.status >= 200 && result.status <= 299), "the status tells a success");
    return result.success ? 0 : -1;
}

#define KIV_CALL(...) [](hpsClient& c, [[maybe_unused]] const Texts& t) -> int32_t { __VA_ARGS__; }

int32_t (*const kOperations[])(hpsClient& client, const Texts& texts) = {
    master,
    management,
    interfaces,
    slots,
    payload,
    upload,
    saved_log,
    KIV_CALL(return text_of<&hpsClient::get_hwmon_info>(c, false)),
    KIV_CALL(return text_of<&hpsClient::get_hwmon_info>(c, true)),
    KIV_CALL(std::string out; return c.get_ptp_master(out)),
    KIV_CALL(std::string out; return c.get_ptp_management(out)),
    KIV_CALL(return c.get_interface_info()),
    KIV_CALL(return c.exist_ip_address(t[0]) ? 0 : -1),
    KIV_CALL(return c.get_igmp_list().empty() ? -1 : 0),
    KIV_CALL(return c.get_fw_status().empty() ? -1 : 0),
    KIV_CALL(return c.igmp_join({t[0], t.back(), ""})),
    KIV_CALL(return c.igmp_leave({t[0], t.back(), ""})),
    KIV_CALL(return c.reconfig_network(t[0])),
    KIV_CALL(return c.start_tcpdump(t[0], 1)),
    KIV_CALL(return c.fw_start(true, t[0])),
    KIV_CALL(return c.registry_alive(7)),
    KIV_CALL(return status_of(c.http_post("/x", t[0]))),
    KIV_CALL(return status_of(c.http_patch("/x", t[0]))),
    KIV_CALL(return status_of(c.http_delete("/x", t[0]))),
    KIV_CALL(return c.open_config("10.0.0.1", "8080", false)),
    KIV_CALL(return c.open_config_ipaddr(directory() / "configuration", false, t.back())),
    KIV_CALL(return c.open_config_ifname(directory() / "configuration", false, t.back())),
    digest,
};

constexpr long kStatus[] = {200, 200, 200, 201, 299, 300, 400, 401, 404, 500, 100, 0};

/// What goes out is a request to the card, with a body that the card can read.
void check_request(const fuzz::Sent& sent) {
    if (sent.method.empty()) {
        expect(sent.body.empty(), "what asks sends no body");
    } else if (sent.url.ends_with("upload")) {
        expect(sent.body.starts_with("------WebKit") && sent.body.ends_with("--\r\n"),
               "a file goes in a form");
    } else {
        expect(Json::accept(sent.body), "a command is JSON");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    fuzz::be_quiet();
    const auto operation = kOperations[data[0] % std::size(kOperations)];
    const long status = kStatus[data[1] % std::size(kStatus)];
    const Texts texts = fuzz::parts_of(fuzz::text_of(data + 2, size - 2));

    hpsClient client;
    fuzz::set_server([](const fuzz::Sent&) { return fuzz::Answer{200, R"({"interfaces": []})"}; });
    expect(client.open_config("10.0.0.1", "8080", false) == 0, "a good answer opens the client");
    // The client has sent the lines elsewhere.
    const kiv_log_config_t level{KIV_LOG_LEVEL_DEBUG};
    const auto take = [](kiv_log_level_t, const char* line, void*) {
        expect(line != nullptr, "a line is a text");
    };
    kivLog_open(&level, KIV_LOG_SINK_CALLBACK, take, nullptr);
    write_file(directory() / "configuration", texts[0]);
    std::size_t asked = 0;
    fuzz::set_server([&](const fuzz::Sent& sent) -> fuzz::Answer {
        check_request(sent);
        return {status, texts[std::min(asked++, texts.size() - 1)]};
    });
    try {
        const int32_t result = operation(client, texts);
        expect(result == 0 || result == -1, "an operation gives 0 or -1");
    } catch (const Json::exception&) {  // Of a wrong shape.
    } catch (const kiv::json::LimitError&) {
    }
    return 0;
}
