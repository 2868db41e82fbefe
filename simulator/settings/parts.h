/// The members of a card that are more than one number, text or list: how each is read and written.
#ifndef KIVSIM_PARTS_H
#define KIVSIM_PARTS_H

#include "card/CardSettings.h"
#include "common/ConfigNode.h"

namespace kivsim {

// Readers throw BadConfig. What an object does not name stays as it is in `card`.

void read_identity(const ConfigNode& node, CardSettings& card);
void read_pci_links(const ConfigNode& node, CardSettings& card);
void read_driver_version(const ConfigNode& node, CardSettings& card);
void read_registers(const ConfigNode& node, CardSettings& card);
void read_links(const ConfigNode& node, CardSettings& card);
void read_ptp_state(const ConfigNode& node, CardSettings& card);
void read_addresses(const ConfigNode& node, CardSettings& card);
void read_resources(const ConfigNode& node, CardSettings& card);
void read_anc(const ConfigNode& node, CardSettings& card);
void read_tunnel(const ConfigNode& node, CardSettings& card);
void read_server(const ConfigNode& node, CardSettings& card);
void read_firmware(const ConfigNode& node, CardSettings& card);
void read_answers(const ConfigNode& node, CardSettings& card);
void read_wrapping(const ConfigNode& node, CardSettings& card);

FunctionSettings function_of(const ConfigNode& node);
InterfaceSettings interface_of(const ConfigNode& node);
Membership membership_of(const ConfigNode& node);

// Writers; a discarded value is to be left out.

Json identity_json(const CardSettings& card);
Json function_types(const CardSettings& card);  ///< Number and type of each function.
Json driver_version_json(const CardSettings& card);
Json registers_json(const CardSettings& card);  ///< Throws BadConfig when they are too many for a cards file.
Json links_json(const CardSettings& card);
Json ptp_state_json(const CardSettings& card);
Json addresses_json(const CardSettings& card);
Json resources_json(const CardSettings& card);
Json anc_json(const CardSettings& card);
Json tunnel_json(const CardSettings& card);
Json server_json(const CardSettings& card);
Json firmware_json(const CardSettings& card);
Json answers_json(const CardSettings& card);
Json wrapping_json(const CardSettings& card);

Json json_of(const FunctionSettings& function);

}  // namespace kivsim

#endif
