// The file of the card configuration: read, mapped to the records, written and read again.
#include <kiv/CardConfig.h>

#include <cstring>
#include <stdexcept>

#include <kiv/kiv_json.h>
#include "base/jsonText.h"
#include "config/recordMapping.h"
#include "input.h"
#include "support/TemporaryDirectory.h"

namespace {

using fuzz::expect;
using kiv::config::CardConfig;

/// What is stored for a card is what is read for it.
void try_records(CardConfig config, uint8_t id) {
    kiv_ptp_config_t ptp{};
    kiv::config::read_ptp_settings(config, id, ptp);
    kiv_net_config_t net{};
    net.port_0.ip_address_0 = 0xC0A80A01;
    net.port_0.prefix_length_0 = 24;
    kiv::config::store_settings(config, id, net, ptp);
    kiv_ptp_config_t again{};
    kiv::config::read_ptp_settings(config, id, again);
    expect(std::memcmp(ptp.global_params, again.global_params, sizeof ptp.global_params) == 0 &&
               std::memcmp(ptp.port_params, again.port_params, sizeof ptp.port_params) == 0 &&
               ptp.enabled == again.enabled,
           "settings survive the configuration");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static const TemporaryDirectory directory;
    static const std::string given = directory / "given";
    static const std::string first = directory / "first";
    static const std::string second = directory / "second";
    write_file(given, fuzz::text_of(data, size));
    CardConfig config;
    try {
        config = CardConfig::load_from_file(given);
    } catch (const std::runtime_error&) {
        return 0;
    }
    for (const int id : {0, 1, 255})
        try_records(config, static_cast<uint8_t>(id));
    config.save_to_file(first);
    const CardConfig saved = CardConfig::load_from_file(first);
    expect(nlohmann::ordered_json(saved) == nlohmann::ordered_json(config),
           "what is saved is what is loaded");
    saved.save_to_file(second);
    expect(read_file(first) == read_file(second), "a file that was saved does not change any more");
    return 0;
}
