/// The events of watch, and what of a card has been printed.
#ifndef KIVCTL_WATCH_EVENTS_H
#define KIVCTL_WATCH_EVENTS_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "server.h"

namespace kivctl {

/// An event for a program, and for a person.
struct Described {
    Json json;
    std::string text;

    void add(const std::string& part) { text += (text.empty() ? "" : ", ") + part; }
};

/// What has been printed of a card.
struct Known {
    bool state = false;  ///< Whether anything has.
    std::optional<bool> link[2];
    std::optional<uint32_t> ptp_state;
    bool card_lost = false;
    bool server_lost = false;
};

/// The sensors that a card reports, and a text of those that are at a limit.
struct Sensors {
    Json list;
    std::string alarms;
};

/// Nothing when the server does not tell them.
std::optional<Sensors> sensors_of(const Server& server);

/// The first event of a card: all that its status register and its sensors tell.
Described describe_state(uint64_t status, const std::optional<Sensors>& sensors, Known& known);

/// Nothing when both links are as they are known.
std::optional<Described> describe_links(uint64_t status, Known& known);

/// Nothing when the PTP state is as it is known.
std::optional<Described> describe_ptp(uint64_t status, Known& known);

/// Nothing when no sensor is at a limit.
std::optional<Described> describe_alarms(const std::optional<Sensors>& sensors);

/// "lost" or "found", of a card, its server or the driver.
Described turn(const char* what, bool lost, const std::string& reason);

}  // namespace kivctl

#endif
