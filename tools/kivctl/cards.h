/// What several commands ask of the cards.
#ifndef KIVCTL_CARDS_H
#define KIVCTL_CARDS_H

#include <kiv/kiv_api.h>

#include <array>
#include <cstdint>
#include <vector>

#include "output.h"

namespace kivctl {

struct Found {
    kiv_scan_card_device_t card;
    kiv_scan_card_device_internal_t tunnel;
};

/// The cards of this machine, by id. Says so when there are none.
std::vector<Found> scan_cards();

/// Address of a media port. A port that the card does not list has the prefix kNotListed.
struct PortAddress {
    uint32_t address;
    uint32_t prefix;
};
constexpr uint32_t kNotListed = UINT32_MAX;

std::array<PortAddress, 2> port_addresses(uint8_t id);

/// "ip_address" and "prefix_length", null for a port that is not listed.
Json to_json(const PortAddress& port);

/// PTP settings of a card. The ports' are unknown when the card configuration has no entry for the card.
struct PtpSettings {
    kiv_ptp_config_t config;
    bool ports_known;
};

PtpSettings ptp_settings(uint8_t id);
Json to_json(const PtpSettings& settings);

/// In the order of kiv_card_status_t.
constexpr const char* kSensorNames[] = {"FPGA fabric", "Board near FPGA", "Board near CVL", "Board rear",
                                        "Board front", "QSFP1 case",      "QSFP2 case"};

}  // namespace kivctl

#endif
