#include "CardConfig.h"

#include <algorithm>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <tuple>

namespace kiv::config {

namespace {

using Json = nlohmann::ordered_json;

/// A JSON key and the member that it fills. A type's rows are read and written in their order.
template <typename Record, typename Value>
struct Field {
    const char* key;
    Value Record::*member;
};
template <typename Record, typename Value>
Field(const char*, Value Record::*) -> Field<Record, Value>;

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

template <typename Value>
void read(const Json& json, Value& value) {
    json.get_to(value);
}

/// Fractions are cut off; a floating value beyond 32 bits, which no C++ conversion takes, becomes the nearest
/// one.
void read(const Json& json, int32_t& value) {
    if (!json.is_number_float()) {
        json.get_to(value);
        return;
    }
    using Limits = std::numeric_limits<int32_t>;
    value = static_cast<int32_t>(std::clamp<double>(json.get<double>(), static_cast<double>(Limits::min()),
                                                    static_cast<double>(Limits::max())));
}

template <typename Record, typename Fields>
void read_fields(const Json& json, Record& record, const Fields& fields) {
    std::apply([&](const auto&... field) { (read(json.at(field.key), record.*field.member), ...); }, fields);
}

template <typename Record, typename Fields>
void write_fields(Json& json, const Record& record, const Fields& fields) {
    json = Json::object();
    std::apply([&](const auto&... field) { ((json[field.key] = record.*field.member), ...); }, fields);
}

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
    try {
        return Json::parse(file).get<CardConfig>();
    } catch (const Json::parse_error& error) {
        throw std::runtime_error("Error: JSON parsing failed in " + path + " - " + error.what());
    } catch (const std::exception& error) {
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
