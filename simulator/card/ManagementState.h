/// What a card's management server knows and changes.
#ifndef KIVSIM_MANAGEMENT_STATE_H
#define KIVSIM_MANAGEMENT_STATE_H

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "card/CardSettings.h"
#include "card/Firmware.h"

namespace kivsim {

struct Membership {
    int64_t pid = 0;
    std::string dst_ip_addr;
    std::string if_name;
    std::string ssm_source_addr;
    bool operator==(const Membership&) const = default;
};

/// Not synchronised: its card locks.
struct ManagementState {
    explicit ManagementState(const CardSettings& settings);

    std::vector<InterfaceSettings> interfaces;
    std::string hwmon;       ///< Sensors, as reported: JSON.
    std::string ptp_master;  ///< The two PTP documents, likewise.
    std::string ptp_management;
    std::vector<Membership> memberships;
    /// Registered processes and when they expire.
    std::map<int64_t, std::chrono::steady_clock::time_point> alive;
    Firmware firmware;
    std::vector<HttpFault> faults;
    Wrapping wrapping;
    std::string log;  ///< Lines of the card's own log.
};

/// Carries out "macethP=ADDRESS/PREFIX,VLAN,TTL,TOS macethS=... macptp=A,B,C,D,E
/// mactun=ADDRESS/PREFIX,VLAN,TIME" on the interface list. Returns an empty text, or why the command is
/// refused; then nothing changes.
std::string reconfigure(std::vector<InterfaceSettings>& interfaces, const std::string& command);

}  // namespace kivsim

#endif
