/// What several commands ask of the cards.
#ifndef KIVCTL_CARDS_H
#define KIVCTL_CARDS_H

#include <kiv/kivDriverClient.h>
#include <kiv/kiv_api.h>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"
#include "server.h"

namespace kivctl {

/// Opens the library, for a command that has so many seconds (0: no limit), of which two thirds are for the
/// scan. A configuration that cannot be loaded is no failure: few commands need it.
void open_library(int seconds);

/// Why the configuration was not loaded, if it was not.
const std::optional<Failure>& configuration_problem();

/// Throws why the configuration was not loaded.
void need_configuration();

using Found = kiv_scan_each_card_t;

inline Server server_of(const Found& card) {
    return {card.tunnel.tunnel_address, card.tunnel.tunnel_value};
}

/// The cards of this machine, by id, also those that cannot be used. Throws when there is no driver; says so
/// when the driver has no cards.
std::vector<Found> scan_cards();

/// The PCI functions of the cards, by id, in the driver's order, without a scan. Throws when there is no
/// driver.
std::map<uint8_t, kivDriverClientList> list_cards();

/// Why a card cannot be used: its server is asked directly.
Failure problem_of(const Found& card);

/// Throws that there is no such card.
[[noreturn]] void throw_no_such_card(uint8_t id);

/// What a command asks: a card whose server does not answer still has a driver.
enum class Asks { Driver, Server };

/// Scans for one card: the one that is said, or the only one of this machine. Throws when it is not there,
/// or cannot be asked.
Found open_card(std::optional<uint8_t> id, Asks asks);

/// Address of a media port. A port that the card does not list has the prefix kNotListed.
struct PortAddress {
    uint32_t address;
    uint32_t prefix;
};
constexpr uint32_t kNotListed = UINT32_MAX;

std::array<PortAddress, 2> port_addresses(uint8_t id);

/// "port", "ip_address" and "prefix_length", null for a port that is not listed.
Json port_json(unsigned number, const PortAddress& port);

/// PTP settings of a card. The ports' are unknown when the card configuration has no entry for the card.
struct PtpSettings {
    kiv_ptp_config_t config;
    bool ports_known;
};

PtpSettings ptp_settings(uint8_t id);
Json to_json(const PtpSettings& settings);

}  // namespace kivctl

#endif
