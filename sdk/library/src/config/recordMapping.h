/// The card configuration as the records of the C interface, and back. Its caller holds the configuration's
/// lock.
#ifndef KIV_RECORD_MAPPING_H
#define KIV_RECORD_MAPPING_H

#include <kiv/CardConfig.h>
#include <kiv/kiv_types.h>

namespace kiv::config {

/// The PTP settings that the configuration holds for a card. Without an entry for it those of its ports stay
/// untouched.
void read_ptp_settings(const CardConfig& from, uint8_t id, kiv_ptp_config_t& out);

/// Into every entry of the card, and into the PTP parameters of all cards; in memory only.
void store_settings(CardConfig& to, uint8_t id, const kiv_net_config_t& net, const kiv_ptp_config_t& ptp);

}  // namespace kiv::config

#endif
