/// A card as a cards file of the simulator has it, from what was collected of a real one.
#ifndef KIVCTL_CARDS_FILE_H
#define KIVCTL_CARDS_FILE_H

#include <map>
#include <string>

#include "failure.h"
#include "server.h"

namespace kivctl {

/// What GET of these paths tells of a card. The last one is its log, which is plain text.
constexpr const char* kNetworks = "/hps/info/networks";
constexpr const char* kSensors = "/hps/hwmon/info";
constexpr const char* kPtpMaster = "/hps/ptp/master";
constexpr const char* kPtpManagement = "/hps/ptp/management";
constexpr const char* kMemberships = "/hps/control/igmp";
constexpr const char* kFirmware = "/hps/firmware/info";
constexpr const char* kFirmwareState = "/hps/firmware/status";
constexpr const char* kLog = "/hps/download/log";
constexpr const char* kAnswers[] = {kNetworks,    kSensors,  kPtpMaster,     kPtpManagement,
                                    kMemberships, kFirmware, kFirmwareState, kLog};

/// The simulated card gives the same answers: what no member can hold becomes a fault that puts it there.
/// `driver` and `registers` are what the commands of these names print.
Json cards_file_entry(const Json& driver, const Json& registers,
                      const std::map<std::string, Answer>& answers);

}  // namespace kivctl

#endif
