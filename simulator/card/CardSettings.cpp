#include "card/CardSettings.h"

#include <cstdio>
#include <utility>

#include "base/ipText.h"
#include "card/Firmware.h"
#include "device/registers.h"
#include "driver/wire.h"

namespace kivsim {

namespace {

namespace registers = kiv::registers;
namespace wire = kiv::wire;

// What a card reports until it is told otherwise.
// clang-format off
constexpr char kHwmon[] = R"([
    {"label": "FPGA FABRIC Digital Temperature #5", "input": 58, "max": 95, "critical": 100},
    {"label": "Board Top Near FPGA Temperature",    "input": 47, "max": 75, "critical": 85},
    {"label": "Board Bottom Near CVL Temperature",  "input": 45, "max": 75, "critical": 85},
    {"label": "Board Rear Side Temperature",        "input": 39, "max": 70, "critical": 80},
    {"label": "Board Front Side Temperature",       "input": 36, "max": 70, "critical": 80},
    {"label": "QSFP1 Case Temperature",             "input": 41, "max": 70, "critical": 75},
    {"label": "QSFP2 Case Temperature",             "input": 42, "max": 70, "critical": 75},
    {"label": "Board Power",                        "input": 63, "max": 75}
])";
// clang-format on

constexpr char kPtpMaster[] = R"({
    "currentUtcOffset": 37, "currentUtcOffsetValid": 1, "eth_num": 0,
    "grandmasterClockQuality": {"clockAccuracy": 33, "clockClass": 6, "offsetScaledLogVariance": 20061},
    "grandmasterIdentity": "00:1d:c1:ff:fe:12:34:56",
    "grandmasterPriority1": 128, "grandmasterPriority2": 128, "leap59": 0, "leap61": 0,
    "logMinDelayReqInterval": -3, "logSyncInterval": -3, "parentIpAddr": "192.168.10.1",
    "parentPortIdentity": {"clockIdentity": "00:1d:c1:ff:fe:12:34:56", "portNumber": 1},
    "stepsRemoved": 1, "timeSource": 32, "two_step_mode": 1})";

constexpr char kPtpManagement[] = R"({
    "currentLocalOffset": 32400,
    "daylightSaving": {"curr_dst": 0, "dst_at_next_discontinuity": 0, "dst_at_prev_jam_event": 0},
    "defaultSystemFrameRate": {"denominator": 1001, "numerator": 30000},
    "jumpSeconds": 0, "leapSecondJump": 0, "masterLockingStatus": 4, "previousJamLocalOffset": 32400,
    "timeAddressFlags": {"color_frame": 0, "drop_frame": 1},
    "timeOfNextJam": 1767193237, "timeOfNextJump": 0, "timeOfPreviousJam": 1767106837})";

void set_believable_registers(CardSettings& card) {
    const uint64_t serial = 0x20260000u + card.id;
    const std::pair<registers::Register, uint64_t> values[] = {
        {registers::kIdentity0, 0x4B49562D32313130u},
        {registers::kIdentity1, 0x0002000000010000u},
        {registers::kCardWord, 0x5354323131300000u | card.id},
        {registers::kIdentity3, serial},
        {registers::kReadable, 1},
        {registers::kStatus, 0x1C0},  // Both links, PTP state 0.
        // Port 0 and port 1: reference, and two counters of which 0.5 reference is full load.
        {registers::kReference0, 100'000'000},
        {registers::kCounterA0, 21'250'000},
        {registers::kCounterB0, 5'000'000},
        {registers::kReference1, 100'000'000},
        {registers::kCounterA1, 20'000'000},
        {registers::kCounterB1, 2'500'000},
        // Transmit and receive streams.
        {registers::kTxControl, 0x02000010},
        {registers::kTxReg404, 32},
        {registers::kTxReg804, 16},
        {registers::kRxControl, 0x02000010},
        {registers::kRxReg404, 32},
        {registers::kRxReg804, 16},
    };
    for (const auto& [where, value] : values)
        card.registers.push_back({where.bar, where.offset, value});
}

}  // namespace

std::vector<InterfaceSettings> believable_interfaces(const CardSettings& card) {
    const auto mac = [&](unsigned last) {
        char text[18];
        std::snprintf(text, sizeof text, "02:4b:56:00:%02x:%02x", unsigned{card.id}, last);
        return std::string(text);
    };
    return {{"maceth0", uint32ToIp(card.addresses[0]), "255.255.255.0", mac(0)},
            {"maceth1", uint32ToIp(card.addresses[1]), "255.255.255.0", mac(1)},
            {"mactun", uint32ToIp(card.tunnel_address), "255.255.255.252", mac(2)}};
}

CardSettings believable_card(uint8_t id) {
    CardSettings card;
    card.id = id;
    card.identity_kind = 1;
    card.identity = 0x4B49560000000000u | id;
    card.identity_text = "KIV-" + std::to_string(1000 + id);
    card.bus = static_cast<uint8_t>(3 + id);
    card.functions = {{0, wire::kFunctionSt2110}, {1, wire::kFunctionHps}};
    set_believable_registers(card);
    card.addresses[0] = 0xC0A80A00u + 10 + id;
    card.addresses[1] = 0xC0A81400u + 10 + id;
    card.tunnel_address = 0x7F000001u;
    card.interfaces = believable_interfaces(card);
    card.hwmon = kHwmon;
    card.ptp_master = kPtpMaster;
    card.ptp_management = kPtpManagement;
    card.firmware = {{md5_of("card " + std::to_string(id)), md5_of("factory image")}, 0, {}};
    card.log = "management server started\n";
    return card;
}

std::vector<CardSettings> default_cards() {
    return {believable_card(1), believable_card(2)};
}

}  // namespace kivsim
