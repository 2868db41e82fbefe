#include "card/VirtualCard.h"

#include <algorithm>
#include <utility>

#include "base/ipText.h"
#include "device/registers.h"

namespace kivsim {

namespace {

namespace registers = kiv::registers;

constexpr uint32_t kAncMemorySize = 64u << 10;  ///< Bytes.

struct StatusBit {
    int state;
    unsigned bit;
};
constexpr unsigned kLinkBits[] = {registers::kStatusLink0, registers::kStatusLink1};
constexpr StatusBit kPtpBits[] = {
    {0, registers::kStatusPtp0}, {1, registers::kStatusPtp1}, {3, registers::kStatusPtp3}};

uint64_t mask(unsigned bit) {
    return uint64_t{1} << bit;
}

void put(uint64_t& status, unsigned bit, bool on) {
    status = on ? status | mask(bit) : status & ~mask(bit);
}

}  // namespace

VirtualCard::VirtualCard(CardSettings given) : id(given.id) {
    driver.next_bus_address *= id + uint64_t{1};
    for (const uint32_t memory : kAncMemories)
        driver.allocate(memory, kAncMemorySize, 1, 0);
    device_conf.device_index = id;
    device_conf.tun = given.tunnel_address;
    apply(std::move(given));
    serve_at(settings.tunnel_port);
}

void VirtualCard::serve_at(uint16_t port) {
    device_conf.port = port;
    server_address_ = uint32ToIp(settings.tunnel_address) + ":" + std::to_string(port);
}

DriverFault VirtualCard::next_driver_fault(uint32_t selector) {
    const std::lock_guard lock(mutex);
    const DriverFault* const fault = next_fault(
        settings.driver_faults, [&](const DriverFault& candidate) { return candidate.selector == selector; });
    return fault == nullptr ? DriverFault{} : *fault;
}

bool VirtualCard::is_present() {
    const std::lock_guard lock(mutex);
    return !settings.removed;
}

void VirtualCard::apply(CardSettings given) {
    settings = std::move(given);
    for (const RegisterSettings& entry : std::exchange(settings.registers, {})) {
        if (entry.size() == sizeof(uint32_t)) {
            bars.write(entry.bar, entry.offset, static_cast<uint32_t>(entry.value));
        } else {
            bars.write(entry.bar, entry.offset, entry.value);
        }
    }
    const auto links = std::exchange(settings.links, {});
    const auto ptp_state = std::exchange(settings.ptp_state, {});
    if (links || ptp_state) {
        uint64_t status = 0;
        bars.read(registers::kStatus.bar, registers::kStatus.offset, status);
        for (std::size_t port = 0; links && port < links->size(); ++port)
            put(status, kLinkBits[port], (*links)[port]);
        for (const StatusBit& entry : kPtpBits) {
            if (ptp_state) put(status, entry.bit, entry.state == *ptp_state);
        }
        bars.write(registers::kStatus.bar, registers::kStatus.offset, status);
    }
    std::copy(std::begin(settings.addresses), std::end(settings.addresses), device_conf.ip);
    device_conf.ptp_selected = settings.ptp_selected;
}

CardSettings VirtualCard::with_status() {
    CardSettings whole = settings;
    uint64_t status = 0;
    bars.read(registers::kStatus.bar, registers::kStatus.offset, status);
    whole.links = {(status & mask(kLinkBits[0])) != 0, (status & mask(kLinkBits[1])) != 0};
    whole.ptp_state = kNoPtpState;
    for (const StatusBit& entry : kPtpBits) {
        if ((status & mask(entry.bit)) == 0) continue;
        if (whole.ptp_state != kNoPtpState) {
            whole.ptp_state.reset();  // Several bits: only the register tells it whole.
            break;
        }
        whole.ptp_state = entry.state;
    }
    return whole;
}

CardSettings VirtualCard::present() {
    const std::string firmware_status = firmware.status();  // Completes a write whose time is over.
    CardSettings whole = with_status();
    whole.firmware.status = firmware_status;
    whole.registers = bars.registers();
    return whole;
}

}  // namespace kivsim
