#include "samples.h"

#include <fmt/format.h>
#include <kiv/kiv_types.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

#include "device/statusRegister.h"

#include "flash.h"
#include "functions.h"
#include "numbers.h"
#include "records.h"

namespace kivctl {

namespace {

namespace registers = kiv::registers;

using std::chrono::seconds;

uint64_t read(kivDriverClientList& functions, const registers::Register& where) {
    if (const std::optional<uint64_t> value = read_register(functions, where)) return *value;
    throw Failure(Layer::Driver, "DRIVER_STATUS", "its registers cannot be read");
}

/// PCI function 0, which serves all but the registers of the status.
kivDriverClient& media(kivDriverClientList& functions) {
    return function_of(functions, kivDriverClient::pf0_st2110_id);
}

Json read_ports(kivDriverClientList& functions) {
    const uint64_t bits = read(functions, registers::kStatus);
    const auto load = [&](const registers::Register& counter, const registers::Register& reference) {
        const auto against = static_cast<double>(read(functions, reference));
        return static_cast<double>(read(functions, counter)) / against * 2 * 100;
    };
    kiv_net_status_t status{};
    status.link_up_0 = kiv::device::bit(bits, registers::kStatusLink0);
    status.link_up_1 = kiv::device::bit(bits, registers::kStatusLink1);
    status.load_a[0] = load(registers::kCounterA0, registers::kReference0);
    status.load_a[1] = load(registers::kCounterA1, registers::kReference1);
    status.load_b[0] = load(registers::kCounterB0, registers::kReference0);
    status.load_b[1] = load(registers::kCounterB1, registers::kReference1);
    return ports_json(status);
}

int64_t host_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/// The card is asked between two readings of the host's clock, and its time belongs to their middle: the
/// error is at most half of what the call takes, some tens of microseconds. The shortest of some calls
/// counts, for one may be held up on a busy machine.
Json read_clock(kivDriverClientList& functions) {
    constexpr int kCalls = 3;
    const std::optional<uint32_t> state = kiv::device::ptp_state(read(functions, registers::kStatus));
    kivDriverClient& client = media(functions);
    Json json{{"register_state", state ? Json(*state) : Json()}};
    int64_t shortest = INT64_MAX;
    for (int i = 0; i < kCalls; ++i) {
        uint64_t tai = 0;
        const int64_t before = host_ns();
        check_driver(client.get_ptp_epoch_time(&tai), "asking for its PTP time",
                     client.device_conf.device_index);
        const int64_t took = host_ns() - before;
        if (took >= shortest) continue;
        shortest = took;
        json["tai_ns"] = tai;
        json["host_ns"] = before + took / 2;
    }
    return json;
}

Json read_pci_link(kivDriverClientList& functions) {
    kivDriverClient& client = media(functions);
    kivDriverClient::pci_link_info link{};
    check_driver(client.get_pci_link_info(link), "asking for its PCI link", client.device_conf.device_index);
    return pci_link_json(link.value[0], link.value[1]);
}

Json read_streams(kivDriverClientList& functions) {
    kivDriverClient& client = media(functions);
    kivDriverClient::use_resource use{};
    check_driver(client.get_use_resource_data(use), "asking for its resource use",
                 client.device_conf.device_index);
    const auto status_of = [&](const registers::Register& control, const registers::Register& reg_404,
                               const registers::Register& reg_804, const uint16_t(&resources)[3]) {
        const auto low_byte = [](uint64_t value) { return static_cast<uint8_t>(value); };
        const uint64_t bits = read(functions, control);
        kiv_stream_status_t status{};
        status.control = low_byte(bits);
        status.control_bit_25 = kiv::device::bit(bits, registers::kStreamBit25);
        status.control_bit_26 = kiv::device::bit(bits, registers::kStreamBit26);
        status.reg_404 = low_byte(read(functions, reg_404));
        status.reg_804 = low_byte(read(functions, reg_804));
        status.resource_0 = low_byte(resources[0]);
        status.resource_1 = low_byte(resources[1]);
        status.resource_2 = low_byte(resources[2]);
        return stream_json(status);
    };
    return {{"tx", status_of(registers::kTxControl, registers::kTxReg404, registers::kTxReg804, use.tx)},
            {"rx", status_of(registers::kRxControl, registers::kRxReg404, registers::kRxReg804, use.rx)}};
}

Json read_sensors(const Server& server) {
    return report_json(server.get("/hps/hwmon/info"));
}

Json read_flash_state(const Server& server) {
    return state_json(read_state(server));
}

Json read_flash_slots(const Server& server) {
    Json slots;
    add_to(slots, read_slots(server));
    return slots;
}

Json read_locking(const Server& server) {
    return locking_json(server.get_number("/hps/ptp/management", "masterLockingStatus"));
}

/// The identity as the library reads it: hexadecimal digits, perhaps with separators among them. A master
/// that is not in use may have none.
Json read_master(const Server& server) {
    const Json master = server.get("/hps/ptp/master");
    const auto number = [&](const char* key) {
        return master.is_object() && master.contains(key) ? whole_number(master[key]) : std::nullopt;
    };
    const std::optional<int32_t> offset = number("currentUtcOffset");
    const std::optional<int32_t> valid = number("currentUtcOffsetValid");
    std::string digits = master.is_object() ? master.value("grandmasterIdentity", "") : "";
    std::erase_if(digits, [](char letter) { return letter == ':' || letter == '.' || letter == '-'; });
    const std::optional<uint64_t> identity = code_of(digits.starts_with("0x") ? digits : "0x" + digits);
    if (!offset || !valid)
        throw Failure(Layer::Server, "SERVER_ANSWER", server.url() + "/hps/ptp/master: tells no TAI-UTC");
    return {{"utc_offset", *offset},
            {"utc_offset_valid", *valid != 0},
            {"grandmaster", identity ? Json(hex64(*identity)) : Json()}};
}

constexpr DriverRead kDriverReads[] = {
    {kPorts, read_ports}, {kClock, read_clock}, {kPciLink, read_pci_link}, {kStreams, read_streams}};
constexpr ServerRead kServerReads[] = {{kSensorsOf, seconds(0), read_sensors},
                                       {kFlashState, seconds(3), read_flash_state},
                                       {kLocking, seconds(5), read_locking},
                                       {kMaster, seconds(10), read_master},
                                       {kSlots, seconds(30), read_flash_slots}};

}  // namespace

std::span<const DriverRead> driver_reads() {
    return kDriverReads;
}

std::span<const ServerRead> server_reads() {
    return kServerReads;
}

}  // namespace kivctl
