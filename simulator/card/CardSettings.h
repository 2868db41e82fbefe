/// What a virtual card is and holds: what the cards file describes, and what can be changed while it runs.
#ifndef KIVSIM_CARD_SETTINGS_H
#define KIVSIM_CARD_SETTINGS_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "card/faults.h"

namespace kivsim {

struct FunctionSettings {
    uint8_t number = 0;             ///< PCI function number.
    uint32_t connection_type = 0;   ///< The one type of connection that the function takes.
    uint8_t pci_link[2] = {16, 4};  ///< Lanes and generation.
};

struct RegisterSettings {
    uint32_t bar = 0;
    uint64_t offset = 0;
    uint64_t value = 0;

    /// Bytes that it sets: a value of up to 32 bits leaves the register after it alone.
    std::size_t size() const { return value >> 32 == 0 ? sizeof(uint32_t) : sizeof(uint64_t); }
};

struct InterfaceSettings {
    std::string if_name;
    std::string ip_addr;
    std::string netmask;
    std::string hw_addr;
};

/// A multicast group that a process has joined.
struct Membership {
    int64_t pid = 0;
    std::string dst_ip_addr;
    std::string if_name;
    std::string ssm_source_addr;
    bool operator==(const Membership&) const = default;
};

struct FirmwareSettings {
    std::string slots[2];  ///< Identifiers of the images, 32 hexadecimal digits.
    uint8_t next_boot_slot = 0;
    /// The word that is reported; absent: that of the write under way, or "idle".
    std::optional<std::string> status;
    std::string fails_while{};  ///< The phase in which the next write fails; empty: in none.
};

/// Use of the streams' resources.
struct ResourceSettings {
    uint16_t tx[3] = {4, 8, 16};
    uint16_t rx[3] = {2, 4, 8};
};

/// What programs have last told the ANC engine.
struct AncSettings {
    bool direction = false;
    std::vector<std::array<uint64_t, 2>> descriptors;
    uint8_t a = 0;  ///< The three values of the engine's control.
    uint32_t b = 0;
    uint16_t c = 0;
};

/// How a payload P stands in an answer: {"data": P}, {"data": "the text of P"}, or P alone.
enum class Wrapping { Object, Text, None };

inline constexpr int kNoPtpState = -1;

struct CardSettings {
    uint8_t id = 0;
    uint8_t identity_kind = 0;  ///< Non-zero: the card is known by `identity`; zero: by `identity_text`.
    uint64_t identity = 0;
    std::string identity_text;
    uint8_t bus = 0;     ///< Boot bytes 32 ...
    uint8_t device = 0;  ///< ... and 33.
    std::vector<FunctionSettings> functions;
    std::vector<RegisterSettings> registers;   ///< To be set; others stay.
    std::optional<std::array<bool, 2>> links;  ///< Likewise, in the status register.
    std::optional<int> ptp_state;              ///< Likewise: 0, 1, 3 or kNoPtpState.
    uint32_t addresses[2] = {0, 0};  ///< Media ports, IPv4, first octet in the most significant byte.
    uint8_t ptp_selected = 0;        ///< As the driver reports it.
    uint32_t tunnel_address = 0;     ///< As `addresses`.
    uint16_t tunnel_port = 0;        ///< 0: a free port is taken.
    bool external_server = false;    ///< Somebody else serves the tunnel address.
    std::array<uint16_t, 3> driver_version = {1, 4, 0};
    ResourceSettings resources;
    AncSettings anc;
    std::vector<InterfaceSettings> interfaces;
    std::string hwmon = "null";       ///< Sensors, as the management server reports them: JSON.
    std::string ptp_master = "null";  ///< The two PTP documents, likewise.
    std::string ptp_management = "null";
    std::vector<Membership> memberships;
    FirmwareSettings firmware;
    std::string log;                             ///< Lines of the card's own log.
    std::map<std::string, std::string> answers;  ///< By path: the payload in place of the card's own, JSON.
    Wrapping wrapping = Wrapping::Object;
    std::vector<DriverFault> driver_faults;
    std::vector<HttpFault> http_faults;
    uint32_t interrupt_ms = 0;  ///< Period of the messages for enabled interrupts; 0: none.
    uint32_t flash_ms = 3000;   ///< How long the write of a firmware image takes.
    bool removed = false;       ///< Out of its slot: no service, no server.
};

/// A card with believable values for everything.
CardSettings believable_card(uint8_t id);

/// The two media interfaces and the tunnel, as a card with these addresses lists them.
std::vector<InterfaceSettings> believable_interfaces(const CardSettings& card);

/// Two cards.
std::vector<CardSettings> default_cards();

}  // namespace kivsim

#endif
