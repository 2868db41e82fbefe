// The card configuration of this machine, as far as the interface shows it.
#include <nlohmann/json.hpp>

#include "cards.h"
#include "commands.h"

namespace kivctl {

void config_show(const Request& request, Output& output) {
    Json list = Json::array();
    for (const Found& found : scan_cards()) {
        list.push_back({{"id", found.card.device_id}});
        list.back().update(to_json(ptp_settings(found.card.device_id)));
    }
    if (request.json) return output.print_json(list);
    if (list.empty()) return;
    output.print_table({{"id", "ID"},
                        {"announce_receipt_timeout", "ANNOUNCE TIMEOUT"},
                        {"domain", "DOMAIN"},
                        {"log_announce_interval", "LOG ANNOUNCE"},
                        {"log_delay_req_interval", "LOG DELAY REQ"},
                        {"unicast_delay_req", "UNICAST"},
                        {"tos", "TOS"},
                        {"ttl", "TTL"}},
                       list);
}

void config_save(const Request& request, Output& output) {
    check(kiv_configure_save(), "save");
    if (request.json) return output.print_json(Json{{"saved", true}});
    output.print("the card configuration is saved\n");
}

}  // namespace kivctl
