/// The host's card configuration: the model and its JSON file. Plain values; no locks.
/// Needs the version of nlohmann/json that kiv was built with: see kivClient.h.
#ifndef KIV_CARD_CONFIG_H
#define KIV_CARD_CONFIG_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include <kiv/kiv_export.h>

namespace kiv::config {

/// PTP parameters of all cards.
struct PtpConfig {
    int32_t announceReceiptTimeout = 0;
    int32_t domainNumber = 0;
    int32_t logAnnounceInterval = 0;  ///< Base-2 logarithm of seconds.
    int32_t logDelayReqInterval = 0;  ///< Base-2 logarithm of seconds.
    int32_t unicast_delay_req = 0;    ///< Unicast delay requests: non-zero is on.
};

/// One media Ethernet port.
struct MacEthConfig {
    std::string ip_addr;  ///< Dotted IPv4 address.
    std::string netmask;  ///< Dotted IPv4 netmask.
    int32_t tos = 0;      ///< IP type-of-service byte.
    int32_t ttl = 0;      ///< IP time to live.
    int32_t vlan_id = 0;
};

/// One card.
struct DeviceConfig {
    int32_t device_id = 0;
    std::string chip_id;
    MacEthConfig maceth0;
    MacEthConfig maceth1;
};

/// The tunnel endpoint.
struct MactunConfig {
    std::string ip_addr;      ///< Dotted IPv4 address.
    int32_t server_port = 0;  ///< TCP port.
};

/// The whole file. A fresh value is all zero.
struct KIV_API CardConfig {
    int32_t version = 0;  ///< As found in the file; not interpreted.
    PtpConfig ptp;
    std::vector<DeviceConfig> devices;  ///< In file order.
    MactunConfig mactun;

    /// The one place where the file lives on a host.
    static std::string getPath();

    /// Reads the file at `path`. Every key is required; extra keys are ignored. Throws std::runtime_error
    /// when the file cannot be opened, is not JSON (or JSON of more than 100 levels, 1000 keys in one object
    /// or 64 MiB), or lacks a key or has one of a wrong type.
    static CardConfig load_from_file(const std::string& path);

    /// Writes the file at `path`: keys in a fixed order, four spaces of indentation, one line end. Keys of
    /// the former file that this model does not have ("hps_access" of a card) are lost. Throws
    /// std::runtime_error when it cannot be opened (or, before it is touched, when a text is not UTF-8).
    void save_to_file(const std::string& path) const;
};

/// The JSON of the file and of its parts. Reading throws the JSON library's exceptions.
KIV_API void to_json(nlohmann::ordered_json& json, const PtpConfig& value);
KIV_API void to_json(nlohmann::ordered_json& json, const MacEthConfig& value);
KIV_API void to_json(nlohmann::ordered_json& json, const DeviceConfig& value);
KIV_API void to_json(nlohmann::ordered_json& json, const MactunConfig& value);
KIV_API void to_json(nlohmann::ordered_json& json, const CardConfig& value);
KIV_API void from_json(const nlohmann::ordered_json& json, PtpConfig& value);
KIV_API void from_json(const nlohmann::ordered_json& json, MacEthConfig& value);
KIV_API void from_json(const nlohmann::ordered_json& json, DeviceConfig& value);
KIV_API void from_json(const nlohmann::ordered_json& json, MactunConfig& value);
KIV_API void from_json(const nlohmann::ordered_json& json, CardConfig& value);

}  // namespace kiv::config

#endif
