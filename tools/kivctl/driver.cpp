// Commands that ask the driver itself, beside the C interface.
#include <fmt/format.h>
#include <kiv/kiv_api.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "cards.h"
#include "commands.h"
#include "driver_process.h"
#include "functions.h"
#include "guard.h"
#include "records.h"

namespace kivctl {

namespace {

constexpr int kPatience = 2;  ///< Seconds, with the version of a driver that may hang.

kivDriverClientList all_functions() {
    const DriverProcess driver = look_for_driver();
    if (!driver.found)
        throw Failure(Layer::Driver, "NO_DRIVER",
                      fmt::format("no driver at {}: {}", driver.where, driver.problem), driver.remedy);
    waiting_for(Layer::Driver, "the driver");
    return kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME);
}

std::string version_text(uint16_t major, uint16_t minor, uint16_t patch) {
    return fmt::format("{}.{}.{}", major, minor, patch);
}

std::string driver_version(kivDriverClient& client) {
    uint16_t major = 0;
    uint16_t minor = 0;
    uint16_t patch = 0;
    check_driver(client.get_version_dext(major, minor, patch), "asking the driver for its version",
                 client.device_conf.device_index);
    return version_text(major, minor, patch);
}

std::string client_version(const kivDriverClient& client) {
    uint16_t major = 0;
    uint16_t minor = 0;
    uint16_t patch = 0;
    client.get_version(major, minor, patch);
    return version_text(major, minor, patch);
}

/// Null without a driver or a card.
Json version_of_driver() try {
    const kivDriverClientList clients = all_functions();
    return clients.empty() ? Json() : Json(driver_version(*clients.front()));
} catch (...) {
    return {};
}

Json to_json(const kivDriverClient& client) {
    const kivDriverClient::boot_conf_t& boot = client.boot_conf;
    return {{"function", boot.function},
            {"function_id", client.get_func_id()},
            {"bus", boot.bus},
            {"device", boot.device},
            {"memory_ids", boot.memory_ids},
            {"identity_kind", boot.identity_kind},
            {"identity", hex64(boot.identity)},
            {"identity_text", boot.identity_text}};
}

}  // namespace

kivDriverClientList functions_of(std::optional<uint8_t> card) {
    kivDriverClientList clients = all_functions();
    std::vector<uint8_t> ids;
    for (const auto& client : clients) {
        const uint8_t id = client->device_conf.device_index;
        if (std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
    }
    if (!card && ids.size() > 1)
        throw usage(fmt::format("there are {} cards", ids.size()),
                    "say which one; \"kivctl scan\" lists them");
    if (!card && ids.empty()) throw Failure(Layer::Driver, "NO_CARD", "no card: the driver has none");
    const uint8_t id = card.value_or(ids.empty() ? 0 : ids.front());
    std::erase_if(clients, [&](const auto& client) { return client->device_conf.device_index != id; });
    if (clients.empty()) throw_no_such_card(id);
    return clients;
}

kivDriverClient& function_of(const kivDriverClientList& functions, uint8_t id) {
    const auto found = std::find_if(functions.begin(), functions.end(),
                                    [&](const auto& client) { return client->get_func_id() == id; });
    if (found == functions.end())
        throw Failure(Layer::Driver, "NO_FUNCTION", fmt::format("no connection to function {}", id),
                      "another program may have it for itself, or the driver does not publish it");
    return **found;
}

std::optional<uint64_t> read_register(const kivDriverClientList& functions,
                                      const kiv::registers::Register& where) try {
    kivDriverClient& client = function_of(
        functions, where.function == 0 ? kivDriverClient::pf0_st2110_id : kivDriverClient::pf1_cpeng_id);
    if (where.width == 64) {
        uint64_t value = 0;
        return client.read_pci64(where.bar, where.offset, &value) == 0 ? std::optional(value) : std::nullopt;
    }
    uint32_t value = 0;
    return client.read_pci32(where.bar, where.offset, &value) == 0 ? std::optional<uint64_t>(value)
                                                                   : std::nullopt;
} catch (const Failure&) {
    return std::nullopt;
}

Exit driver(const Request& request, Output& output) {
    const kivDriverClientList clients = functions_of(request.card);
    kivDriverClient& first = *clients.front();
    const kivDriverClient::device_conf_t& conf = first.device_conf;
    kivDriverClient::use_resource resources{};
    kivDriverClient::pci_link_info link{};
    check_driver(first.get_use_resource_data(resources), "asking for the resource use", conf.device_index);
    check_driver(first.get_pci_link_info(link), "asking for the PCI link", conf.device_index);

    Json json = document("driver");
    json["card"] = conf.device_index;
    json["client_version"] = client_version(first);
    json["driver_version"] = driver_version(first);
    json["functions"] = Json::array();
    for (const auto& client : clients)
        json["functions"].push_back(to_json(*client));
    json["ports"] = {{{"port", 0}, {"ip_address", dotted(conf.ip[0])}},
                     {{"port", 1}, {"ip_address", dotted(conf.ip[1])}}};
    json["tunnel"] = fmt::format("{}:{}", dotted(conf.tun), conf.port);
    json["resources"] = {{"tx", resources.tx}, {"rx", resources.rx}};
    json["pci_link"] = pci_link_json(link.value[0], link.value[1]);
    if (request.json) {
        output.print_json(json);
        return kDone;
    }
    std::vector<std::vector<std::string>> rows{{"Card", text_of(json["card"])},
                                               {"Client version", text_of(json["client_version"])},
                                               {"Driver version", text_of(json["driver_version"])}};
    for (const Json& function : json["functions"]) {
        rows.push_back(
            {"Function " + text_of(function["function"]),
             fmt::format("id {}, bus {}, device {}, identity {} \"{}\"", text_of(function["function_id"]),
                         text_of(function["bus"]), text_of(function["device"]), text_of(function["identity"]),
                         text_of(function["identity_text"]))});
    }
    rows.push_back(
        {"Ports", text_of(json["ports"][0]["ip_address"]) + ", " + text_of(json["ports"][1]["ip_address"])});
    rows.push_back({"Tunnel", text_of(json["tunnel"])});
    rows.push_back({"Transmit use", text_of(json["resources"]["tx"])});
    rows.push_back({"Receive use", text_of(json["resources"]["rx"])});
    rows.push_back({"PCI link", text_of(json["pci_link"])});
    output.print_table(rows);
    return kDone;
}

Exit version(const Request& request, Output& output) {
    kiv_sw_version_t library{};
    kiv_get_sw_version(&library);
    Json json = document("version");
    json["tool"] = fmt::format("{}.{}.{}", KIV_VERSION_MAJOR, KIV_VERSION_MINOR, KIV_VERSION_REVISION);
    json["library"] = version_text(library.major, library.minor, library.revision);
    json["client"] = client_version(kivDriverClient(kivDriverClient::pf0_st2110_id, 0));
    json["driver"] = nullptr;
    // Without a driver, or one that hangs, the other versions are worth knowing all the same.
    const auto asked = std::make_shared<std::promise<Json>>();
    std::thread([asked] { asked->set_value(version_of_driver()); }).detach();
    std::future<Json> answer = asked->get_future();
    if (answer.wait_for(std::chrono::seconds(kPatience)) == std::future_status::ready) {
        json["driver"] = answer.get();
    } else {
        Output::note(fmt::format("the driver gives no answer within {} s", kPatience));
    }
    if (request.json) {
        output.print_json(json);
    } else {
        output.print_record(
            {{"tool", "kivctl"}, {"library", "Library"}, {"client", "Driver client"}, {"driver", "Driver"}},
            json);
    }
    return kDone;
}

}  // namespace kivctl
