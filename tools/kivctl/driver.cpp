// The command that asks the driver itself, beside the C interface.
#include <fmt/format.h>
#include <kiv/kivDriverClient.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "commands.h"

namespace kivctl {

namespace {

void check_call(int32_t status, const char* what) {
    if (status != 0)
        throw Failure(fmt::format("{} failed: driver status 0x{:08X}; see the system log", what,
                                  static_cast<uint32_t>(status)));
}

/// The PCI functions of the card, in the driver's order.
kivDriverClientList functions_of(uint8_t id) {
    kivDriverClientList clients = kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME);
    std::erase_if(clients, [&](const auto& client) { return client->device_conf.device_index != id; });
    if (clients.empty()) check(KIV_ERR_NO_DEVICE, "driver");
    return clients;
}

std::string version_text(uint16_t major, uint16_t minor, uint16_t patch) {
    return fmt::format("{}.{}.{}", major, minor, patch);
}

std::string driver_version(kivDriverClient& client) {
    uint16_t major = 0;
    uint16_t minor = 0;
    uint16_t patch = 0;
    check_call(client.get_version_dext(major, minor, patch), "driver version");
    return version_text(major, minor, patch);
}

std::string client_version(const kivDriverClient& client) {
    uint16_t major = 0;
    uint16_t minor = 0;
    uint16_t patch = 0;
    client.get_version(major, minor, patch);
    return version_text(major, minor, patch);
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

void driver(const Request& request, Output& output) {
    const kivDriverClientList clients = functions_of(request.id);
    kivDriverClient& first = *clients.front();
    kivDriverClient::use_resource resources{};
    kivDriverClient::pci_link_info link{};
    check_call(first.get_use_resource_data(resources), "resource use");
    check_call(first.get_pci_link_info(link), "PCI link");
    const kivDriverClient::device_conf_t& conf = first.device_conf;

    Json json{{"id", request.id},
              {"client_version", client_version(first)},
              {"driver_version", driver_version(first)},
              {"functions", Json::array()},
              {"ports", {dotted(conf.ip[0]), dotted(conf.ip[1])}},
              {"tunnel", fmt::format("{}:{}", dotted(conf.tun), conf.port)},
              {"resources", {{"tx", resources.tx}, {"rx", resources.rx}}},
              {"pci_link", link.value}};
    for (const auto& client : clients)
        json["functions"].push_back(to_json(*client));
    if (request.json) {
        output.print_json(json);
        return;
    }
    std::vector<std::vector<std::string>> rows{{"Card", std::to_string(request.id)},
                                               {"Client version", client_version(first)},
                                               {"Driver version", json["driver_version"]}};
    for (const auto& client : clients) {
        const kivDriverClient::boot_conf_t& boot = client->boot_conf;
        rows.push_back({fmt::format("Function {}", boot.function),
                        fmt::format("id {}, bus {}, device {}, identity {} \"{}\"", client->get_func_id(),
                                    boot.bus, boot.device, hex64(boot.identity), boot.identity_text)});
    }
    rows.push_back({"Ports", fmt::format("{}, {}", dotted(conf.ip[0]), dotted(conf.ip[1]))});
    rows.push_back({"Tunnel", json["tunnel"]});
    rows.push_back({"Transmit use", fmt::format("{}", fmt::join(resources.tx, ", "))});
    rows.push_back({"Receive use", fmt::format("{}", fmt::join(resources.rx, ", "))});
    rows.push_back({"PCI link", fmt::format("{}, {}", link.value[1], link.value[0])});
    output.print_table(rows);
}

}  // namespace kivctl
