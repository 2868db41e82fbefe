#include <kiv/Device.h>

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string_view>

#include <kiv/SystemMonitorData.h>
#include "base/addressText.h"
#include "base/regularFile.h"
#include "device/fileDigest.h"
#include "device/registers.h"
#include "device/statusRegister.h"
#include "log/kivLogDispatch.h"

namespace kiv::device {

/// What tells of the transmit or of the receive streams.
struct StreamRegisters {
    registers::Register control, reg_404, reg_804;
    int32_t (access::IDeviceAccess::*resources)(uint8_t&, uint8_t&, uint8_t&);
};

namespace {

constexpr StreamRegisters kTransmit{registers::kTxControl, registers::kTxReg404, registers::kTxReg804,
                                    &access::IDeviceAccess::getTxUseResourceData};
constexpr StreamRegisters kReceive{registers::kRxControl, registers::kRxReg404, registers::kRxReg804,
                                   &access::IDeviceAccess::getRxUseResourceData};
constexpr uint32_t kLinkSpeedGbps = 100;

/// At most 17 characters and a terminator.
void copy_mac(char (&to)[20], std::string_view text) {
    const std::size_t length = std::min<std::size_t>(text.size(), 17);
    std::memcpy(to, text.data(), length);
    to[length] = '\0';
}

/// A clock identity as the card writes it: 1 to 16 hexadecimal digits, "0x" before them and separators among
/// them allowed. Throws std::invalid_argument for anything else.
uint64_t clock_identity(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    std::string digits;
    std::copy_if(text.begin(), text.end(), std::back_inserter(digits),
                 [](char c) { return c != ':' && c != '.' && c != '-'; });
    uint64_t value = 0;
    const char* const last = digits.data() + digits.size();
    const auto [end, error] = std::from_chars(digits.data(), last, value, 16);
    if (digits.size() > 16 || error != std::errc{} || end != last)
        throw std::invalid_argument("no clock identity: " + std::string(text));
    return value;
}

/// The card's report has no flag that says "master": what it says of the master is whether its UTC offset is
/// valid, and that offset comes first in the report.
void take_master(const PtpMaster& master, kiv_ptp_status_t& status) {
    status.clock_identity = clock_identity(master.grandmasterIdentity);
    status.is_master = master.currentUtcOffsetValid != 0;
    status.master_value = static_cast<uint32_t>(master.currentUtcOffset);
}

/// The command's numbers of one port: address and prefix, VLAN, TTL, TOS.
std::string port_text(uint32_t address, uint32_t prefix, uint8_t vlan_enable, uint16_t vlan_id, uint8_t ttl,
                      uint8_t tos) {
    return fmt::format("{}/{},{},{},{}", hpsClient::convert2string(address), prefix,
                       vlan_enable != 0 ? vlan_id & 0xFFF : 0, ttl, tos);
}

}  // namespace

Device::Device(DeviceInfo info, AccessList accesses, std::unique_ptr<rest::IRestApiClient> rest)
    : info_(std::move(info)), accesses_(std::move(accesses)), rest_(std::move(rest)) {}

access::IDeviceAccess* Device::access(uint32_t function) const {
    for (const auto& candidate : accesses_) {
        if (candidate && candidate->function() == function) return candidate.get();
    }
    return nullptr;
}

bool Device::read_register(const registers::Register& where, uint32_t& value) const {
    access::IDeviceAccess* const function = access(where.function);
    return function != nullptr &&
           function->readRegister32(static_cast<uint8_t>(where.bar), where.offset, value) == 0;
}

bool Device::read_register(const registers::Register& where, uint64_t& value) const {
    access::IDeviceAccess* const function = access(where.function);
    return function != nullptr &&
           function->readRegister64(static_cast<uint8_t>(where.bar), where.offset, value) == 0;
}

// ---- Queries ----------------------------------------------------------------------------------------------

kiv_result_t Device::get_card_info(kiv_card_info_t& info) {
    // The last one's value is dropped: docs/oddities.md.
    constexpr registers::Register kRead[] = {registers::kIdentity0, registers::kIdentity1,
                                             registers::kCardWord, registers::kIdentity3,
                                             registers::kReadable};
    uint64_t words[std::size(kRead)] = {};
    for (std::size_t i = 0; i < std::size(kRead); ++i) {
        if (!read_register(kRead[i], words[i])) return KIV_ERR_FAILED;
    }
    info.reg_00 = words[0];
    info.reg_08 = words[1];
    info.reg_10 = words[2];
    info.reg_18 = words[3];
    info.reserved = 0;
    for (kiv_card_port_t& port : info.port)
        port.link_speed_gbps = kLinkSpeedGbps;
    if (!rest_) return KIV_OK;
    for (const inteface_info& entry : rest_->interfaces()) {
        if (entry.if_name == "maceth0") copy_mac(info.port[0].mac_address, entry.hw_addr);
        if (entry.if_name == "maceth1") copy_mac(info.port[1].mac_address, entry.hw_addr);
    }
    return KIV_OK;
}

kiv_result_t Device::get_card_status(kiv_card_status_t& status) {
    std::string json;
    if (!rest_ || rest_->get_hwmon_info(json, true) != 0) {
        log_error(kDeviceSource, "Fail get_hwmon_info");
        return KIV_ERR_REST;
    }
    SystemMonitorData data;
    if (!parse_json_to_struct_cpp(json, data)) {
        log_error(kDeviceSource, "Fail parse_json_to_struct_cpp");
        return KIV_ERR_FAILED;
    }
    for (std::size_t i = 0; i < std::size(status.sensor); ++i) {
        status.sensor[i].input = data.sensors[i].input;
        status.sensor[i].max = data.sensors[i].max;
        status.sensor[i].critical = data.sensors[i].critical;
    }
    status.board_power = data.board_power;
    uint8_t first = 0;
    if (access::IDeviceAccess* const function_0 = access(0))
        function_0->getLinkStatus(first, status.pci_link_b);
    status.pci_link_a = first;
    return KIV_OK;
}

kiv_result_t Device::get_media_net_config(kiv_net_config_t& config) {
    std::vector<inteface_info> interfaces;
    if (!rest_ || rest_->get_interface_info(interfaces) != 0) {
        log_error(kDeviceSource, "Fail get_interface_info");
        return KIV_ERR_REST;
    }
    for (const inteface_info& entry : interfaces) {
        if (entry.if_name == "maceth0") {
            config.port_0.ip_address_0 = ip_string_to_uint32(entry.ip_addr);
            config.port_0.prefix_length_0 = static_cast<uint32_t>(netmaskToBitCount(entry.netmask));
        } else if (entry.if_name == "maceth1") {
            config.port_1.ip_address_1 = ip_string_to_uint32(entry.ip_addr);
            config.port_1.prefix_length_1 = static_cast<uint32_t>(netmaskToBitCount(entry.netmask));
        }
    }
    return KIV_OK;
}

kiv_result_t Device::get_net_status(kiv_net_status_t& status) {
    uint64_t bits = 0;
    if (!read_register(registers::kStatus, bits)) return KIV_ERR_FAILED;
    // A link that is down is not written: docs/oddities.md.
    if (bit(bits, registers::kStatusLink0)) status.link_up_0 = 1;
    if (bit(bits, registers::kStatusLink1)) status.link_up_1 = 1;

    constexpr struct {
        registers::Register reference, counter_a, counter_b;
    } kCounters[] = {{registers::kReference0, registers::kCounterA0, registers::kCounterB0},
                     {registers::kReference1, registers::kCounterA1, registers::kCounterB1}};
    double load_a[2];
    double load_b[2];
    for (std::size_t port = 0; port < std::size(kCounters); ++port) {
        uint32_t reference = 0;
        uint32_t a = 0;
        uint32_t b = 0;
        if (!read_register(kCounters[port].reference, reference) ||
            !read_register(kCounters[port].counter_a, a) || !read_register(kCounters[port].counter_b, b)) {
            return KIV_ERR_FAILED;
        }
        load_a[port] = static_cast<double>(a) / reference * 2 * 100;
        load_b[port] = static_cast<double>(b) / reference * 2 * 100;
    }
    std::copy(std::begin(load_a), std::end(load_a), status.load_a);
    std::copy(std::begin(load_b), std::end(load_b), status.load_b);
    return KIV_OK;
}

kiv_result_t Device::get_ptp_config(kiv_ptp_config_t& config) {
    const std::lock_guard lock(ptp_mutex_);
    if (ptp_saved_) config = *ptp_saved_;
    return KIV_OK;
}

kiv_result_t Device::get_ptp_status(kiv_ptp_status_t& status) {
    uint64_t bits = 0;
    if (!read_register(registers::kStatus, bits)) return KIV_ERR_FAILED;
    if (const std::optional<uint32_t> state = ptp_state(bits)) status.state = *state;
    access::IDeviceAccess* const function_0 = access(0);
    uint64_t tai = 0;
    if (function_0 == nullptr || function_0->getPtpTai(tai) != 0) return KIV_ERR_FAILED;
    status.tai_time = tai;
    PtpMaster master;
    if (!rest_ || rest_->get_ptp_master(master) != 0) return KIV_ERR_REST;
    take_master(master, status);
    return KIV_OK;
}

kiv_result_t Device::get_tun_config(uint32_t& address, uint32_t& mask) {
    access::IDeviceAccess* const function_0 = access(0);
    if (function_0 == nullptr) return KIV_ERR_FAILED;
    return static_cast<kiv_result_t>(function_0->getTunIP(address, mask));
}

kiv_result_t Device::selected_ptp_card() {
    access::IDeviceAccess* const function_0 = access(0);
    const int32_t selected = function_0 == nullptr ? -1 : function_0->selected_ptp_card();
    return selected < 0 ? KIV_ERR_FAILED : static_cast<kiv_result_t>(selected);
}

kiv_result_t Device::get_epoch_and_2point(uint64_t& a, uint64_t& b, uint64_t& c) {
    a = b = c = 0;  // An access whose client is gone writes nothing.
    access::IDeviceAccess* const function_0 = access(0);
    if (function_0 == nullptr) return KIV_ERR_FAILED;
    return static_cast<kiv_result_t>(function_0->getEpochAnd2point(a, b, c));
}

kiv_result_t Device::get_tx_stream_status(kiv_tx_stream_status_t& status) {
    return get_stream_status(kTransmit, status);
}

kiv_result_t Device::get_rx_stream_status(kiv_rx_stream_status_t& status) {
    return get_stream_status(kReceive, status);
}

kiv_result_t Device::get_stream_status(const StreamRegisters& from, kiv_stream_status_t& status) {
    uint32_t control = 0;
    uint32_t reg_404 = 0;
    uint32_t reg_804 = 0;
    if (!read_register(from.control, control) || !read_register(from.reg_404, reg_404) ||
        !read_register(from.reg_804, reg_804)) {
        return KIV_ERR_FAILED;
    }
    access::IDeviceAccess& function_0 = *access(0);
    kiv_stream_status_t read{};
    const int32_t failed = (function_0.*from.resources)(read.resource_0, read.resource_1, read.resource_2);
    if (failed != 0) {
        // Only this one, and on standard output: docs/oddities.md.
        if (&from == &kTransmit) std::cout << "getTxUseResourceData" << std::endl;
        return KIV_ERR_FAILED;
    }
    read.control = static_cast<uint8_t>(control);
    read.control_bit_25 = bit(control, registers::kStreamBit25);
    read.control_bit_26 = bit(control, registers::kStreamBit26);
    read.reg_404 = static_cast<uint8_t>(reg_404);
    read.reg_804 = static_cast<uint8_t>(reg_804);
    status = read;
    return KIV_OK;
}

// ---- Settings and flash -----------------------------------------------------------------------------------

kiv_result_t Device::reconfig_net_work(const kiv_net_config_t& net, const kiv_ptp_config_t& ptp) {
    uint32_t tunnel = 0;
    uint32_t ignored = 0;
    // 0 is what a driver says that was never told, or could not be asked.
    if (get_tun_config(tunnel, ignored) != KIV_OK || tunnel == 0) return KIV_ERR_FAILED;
    const kiv_net_port_0_t& p = net.port_0;
    const kiv_net_port_1_t& s = net.port_1;
    // The tunnel's numbers are fixed, and a blank ends the command: docs/oddities.md.
    // port_params: TOS of both ports, then TTL of both. The first two PTP numbers are unsigned on the wire.
    const std::string command =
        fmt::format("macethP={} macethS={} macptp={},{},{},{},{} mactun={}/30,0,100us ",
                    port_text(p.ip_address_0, p.prefix_length_0, p.vlan_enable, p.vlan_id, ptp.port_params[2],
                              ptp.port_params[0]),
                    port_text(s.ip_address_1, s.prefix_length_1, s.vlan_enable, s.vlan_id, ptp.port_params[3],
                              ptp.port_params[1]),
                    static_cast<uint8_t>(ptp.global_params[1]), ptp.global_params[2],
                    static_cast<uint8_t>(ptp.global_params[0]), ptp.enabled, ptp.global_params[3],
                    hpsClient::convert2string(tunnel));
    if (!rest_ || rest_->reconfig_network(command) != 0) {
        log_error(kDeviceSource, "Fail reconfig_network");
        return KIV_ERR_REST;
    }
    const std::lock_guard lock(ptp_mutex_);
    ptp_saved_ = ptp;
    return KIV_OK;
}

kiv_result_t Device::upload_image(const std::string& path) {
    return upload_image(path, nullptr);
}

kiv_result_t Device::upload_image(const std::string& path, const UploadProgress& progress) {
    // Upload and digest each read the file. A write must not start when they may have read different bytes.
    const std::optional<FileState> before = state_of_file(path);
    if (!rest_ || rest_->fw_upload(path, progress) != 0) return KIV_ERR_REST;
    const std::optional<std::string> md5 = md5_of_file(path);
    if (!md5 || state_of_file(path) != before) return KIV_ERR_REST;
    return rest_->fw_start(true, *md5) == 0 ? KIV_OK : KIV_ERR_REST;
}

kiv_result_t Device::get_flash_write_status(kiv_flash_status_t& status) {
    const std::string text = rest_ ? rest_->get_fw_status() : "";
    if (text.empty()) return KIV_ERR_REST;
    status = text == "idle" ? 0 : 1;
    return KIV_OK;
}

kiv_result_t Device::select_flash_slot(const kiv_flash_slot_t& slot) {
    if (slot < 0 || slot > 1) return KIV_ERR_INVALID_PARAM;
    return rest_ && rest_->fw_switch(static_cast<uint8_t>(slot)) == 0 ? KIV_OK : KIV_ERR_REST;
}

kiv_result_t Device::get_flash_config(kiv_flash_config_t& config) {
    std::string texts[2];
    if (!rest_ || rest_->get_firmware_info(texts[0], texts[1]) != 0) return KIV_ERR_REST;
    const HexWithFlag slot_0 = parse_hex_string_with_flag(texts[0]);
    const HexWithFlag slot_1 = parse_hex_string_with_flag(texts[1]);
    config.slot0_id[0] = slot_0.high;
    config.slot0_id[1] = slot_0.low;
    config.slot1_id[0] = slot_1.high;
    config.slot1_id[1] = slot_1.low;
    config.next_boot_slot = slot_0.flag ? 0 : slot_1.flag ? 1 : 2;
    return KIV_OK;
}

}  // namespace kiv::device
