/// What a virtual card is, as cards.json describes it.
#ifndef KIVSIM_CARD_SETTINGS_H
#define KIVSIM_CARD_SETTINGS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "card/HttpFault.h"
#include "common/ConfigNode.h"

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
};

struct InterfaceSettings {
    std::string if_name;
    std::string ip_addr;
    std::string netmask;
    std::string hw_addr;
};

/// What goes wrong with a driver call, for tests of the layers above.
struct DriverFault {
    uint32_t selector = 0;
    /// The nth call of that selector to the card, from 1; every call when absent.
    std::optional<uint32_t> nth;
    int32_t status = 0;                  ///< Non-zero: the call fails with it.
    uint32_t delay_ms = 0;               ///< The reply comes that much later.
    std::optional<uint32_t> reply_size;  ///< The reply is cut to so many bytes.
};

struct CardSettings {
    uint8_t id = 0;
    uint8_t identity_kind = 0;  ///< Non-zero: the card is known by `identity`; zero: by `identity_text`.
    uint64_t identity = 0;
    std::string identity_text;
    uint8_t bus = 0;     ///< Boot bytes 32 ...
    uint8_t device = 0;  ///< ... and 33.
    std::vector<FunctionSettings> functions;
    std::vector<RegisterSettings> registers;
    uint32_t addresses[2] = {0, 0};  ///< Media ports, IPv4, first octet in the most significant byte.
    uint32_t tunnel_address = 0;     ///< Likewise.
    uint16_t tunnel_port = 0;        ///< 0: a free port is taken.
    bool external_server = false;    ///< Somebody else serves the tunnel address.
    std::vector<InterfaceSettings> interfaces;
    std::vector<DriverFault> driver_faults;
    std::vector<HttpFault> http_faults;
    Wrapping wrapping = Wrapping::Object;
    uint32_t interrupt_ms = 0;  ///< Period of the messages for enabled interrupts; 0: none.
    uint32_t flash_ms = 3000;   ///< How long the write of a firmware image takes.
};

/// Reads cards.json (see docs/simulator.md for its keys). Throws BadConfig.
std::vector<CardSettings> load_cards(const std::string& path);

/// Values of registers by BAR and offset. Throws BadConfig.
std::vector<RegisterSettings> registers_of(const ConfigNode& node);

/// A card with believable values for everything that cards.json may leave out.
CardSettings believable_card(uint8_t id);

/// Two cards.
std::vector<CardSettings> default_cards();

}  // namespace kivsim

#endif
