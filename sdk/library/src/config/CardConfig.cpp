#include <kiv/CardConfig.h>

#include <fstream>
#include <stdexcept>

#include "base/jsonFields.h"
#include "base/jsonText.h"

namespace kiv::config {

namespace {

using json::Field;
using json::Json;
using json::read_fields;
using json::write_fields;

// clang-format off
constexpr std::tuple kPtpFields{
    Field{"announceReceiptTimeout", &PtpConfig::announceReceiptTimeout},
    Field{"domainNumber",           &PtpConfig::domainNumber},
    Field{"logAnnounceInterval",    &PtpConfig::logAnnounceInterval},
    Field{"logDelayReqInterval",    &PtpConfig::logDelayReqInterval},
    Field{"unicast_delay_req",      &PtpConfig::unicast_delay_req},
};
constexpr std::tuple kMacEthFields{
    Field{"ip_addr", &MacEthConfig::ip_addr},
    Field{"netmask", &MacEthConfig::netmask},
    Field{"tos",     &MacEthConfig::tos},
    Field{"ttl",     &MacEthConfig::ttl},
    Field{"vlan_id", &MacEthConfig::vlan_id},
};
constexpr std::tuple kDeviceFields{
    Field{"device_id", &DeviceConfig::device_id},
    Field{"chip_id",   &DeviceConfig::chip_id},
    Field{"maceth0",   &DeviceConfig::maceth0},
    Field{"maceth1",   &DeviceConfig::maceth1},
};
constexpr std::tuple kMactunFields{
    Field{"ip_addr",     &MactunConfig::ip_addr},
    Field{"server_port", &MactunConfig::server_port},
};
constexpr std::tuple kCardFields{
    Field{"version", &CardConfig::version},
    Field{"ptp",     &CardConfig::ptp},
    Field{"devices", &CardConfig::devices},
    Field{"mactun",  &CardConfig::mactun},
};
// clang-format on

}  // namespace

// clang-format off
void to_json(Json& json, const PtpConfig& value)    { write_fields(json, value, kPtpFields); }
void to_json(Json& json, const MacEthConfig& value) { write_fields(json, value, kMacEthFields); }
void to_json(Json& json, const DeviceConfig& value) { write_fields(json, value, kDeviceFields); }
void to_json(Json& json, const MactunConfig& value) { write_fields(json, value, kMactunFields); }
void to_json(Json& json, const CardConfig& value)   { write_fields(json, value, kCardFields); }
void from_json(const Json& json, PtpConfig& value)    { read_fields(json, value, kPtpFields); }
void from_json(const Json& json, MacEthConfig& value) { read_fields(json, value, kMacEthFields); }
void from_json(const Json& json, DeviceConfig& value) { read_fields(json, value, kDeviceFields); }
void from_json(const Json& json, MactunConfig& value) { read_fields(json, value, kMactunFields); }
void from_json(const Json& json, CardConfig& value)   { read_fields(json, value, kCardFields); }
// clang-format on

std::string CardConfig::getPath() {
    return "/Library/Application Support/Velmora/config/hps_boot.json";
}

CardConfig CardConfig::load_from_file(const std::string& path) {
    std::ifstream file(path);
    if (!file.is_open()) throw std::runtime_error("Error: Could not open JSON file for reading: " + path);
    const auto not_parsed = [&](const std::exception& error) {
        return std::runtime_error("Error: JSON parsing failed in " + path + " - " + error.what());
    };
    try {
        return json::parse(file).get<CardConfig>();
    } catch (const json::LimitError& error) {
        throw not_parsed(error);
    } catch (const Json::parse_error& error) {
        throw not_parsed(error);
    } catch (const std::exception& error) {
        // Without the path: docs/oddities.md.
        throw std::runtime_error(std::string("Error during JSON deserialization: ") + error.what());
    }
}

void CardConfig::save_to_file(const std::string& path) const {
    std::string text;
    try {
        text = Json(*this).dump(4);
    } catch (const Json::exception& error) {
        throw std::runtime_error(error.what());
    }
    std::ofstream file(path);
    if (!file.is_open()) throw std::runtime_error("Error: Could not open JSON file for writing: " + path);
    file << text << std::endl;
}

}  // namespace kiv::config
