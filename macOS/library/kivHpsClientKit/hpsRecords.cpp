#include <kiv/hpsRecords.h>

#include "base/jsonFields.h"

namespace {

using kiv::json::Field;
using kiv::json::Json;
using kiv::json::read;
using kiv::json::read_fields;

// clang-format off
constexpr std::tuple kClockQualityFields{
    Field{"clockAccuracy",           &PtpMaster::ClockQuality::clockAccuracy},
    Field{"clockClass",              &PtpMaster::ClockQuality::clockClass},
    Field{"offsetScaledLogVariance", &PtpMaster::ClockQuality::offsetScaledLogVariance},
};
constexpr std::tuple kPortIdentityFields{
    Field{"clockIdentity", &PtpMaster::PortIdentity::clockIdentity},
    Field{"portNumber",    &PtpMaster::PortIdentity::portNumber},
};
constexpr std::tuple kMasterFields{
    Field{"currentUtcOffset",        &PtpMaster::currentUtcOffset},
    Field{"currentUtcOffsetValid",   &PtpMaster::currentUtcOffsetValid},
    Field{"eth_num",                 &PtpMaster::eth_num},
    Field{"grandmasterClockQuality", &PtpMaster::grandmasterClockQuality},
    Field{"grandmasterIdentity",     &PtpMaster::grandmasterIdentity},
    Field{"grandmasterPriority1",    &PtpMaster::grandmasterPriority1},
    Field{"grandmasterPriority2",    &PtpMaster::grandmasterPriority2},
    Field{"leap59",                  &PtpMaster::leap59},
    Field{"leap61",                  &PtpMaster::leap61},
    Field{"logMinDelayReqInterval",  &PtpMaster::logMinDelayReqInterval},
    Field{"logSyncInterval",         &PtpMaster::logSyncInterval},
    Field{"parentIpAddr",            &PtpMaster::parentIpAddr},
    Field{"parentPortIdentity",      &PtpMaster::parentPortIdentity},
    Field{"stepsRemoved",            &PtpMaster::stepsRemoved},
    Field{"timeSource",              &PtpMaster::timeSource},
    Field{"two_step_mode",           &PtpMaster::two_step_mode},
};
constexpr std::tuple kDaylightSavingFields{
    Field{"curr_dst",                  &PtpManagement::DaylightSaving::curr_dst},
    Field{"dst_at_next_discontinuity", &PtpManagement::DaylightSaving::dst_at_next_discontinuity},
    Field{"dst_at_prev_jam_event",     &PtpManagement::DaylightSaving::dst_at_prev_jam_event},
};
constexpr std::tuple kFrameRateFields{
    Field{"denominator", &PtpManagement::FrameRate::denominator},
    Field{"numerator",   &PtpManagement::FrameRate::numerator},
};
constexpr std::tuple kTimeAddressFields{
    Field{"color_frame", &PtpManagement::TimeAddressFlags::color_frame},
    Field{"drop_frame",  &PtpManagement::TimeAddressFlags::drop_frame},
};
constexpr std::tuple kManagementFields{
    Field{"currentLocalOffset",     &PtpManagement::currentLocalOffset},
    Field{"daylightSaving",         &PtpManagement::daylightSaving},
    Field{"defaultSystemFrameRate", &PtpManagement::defaultSystemFrameRate},
    Field{"jumpSeconds",            &PtpManagement::jumpSeconds},
    Field{"leapSecondJump",         &PtpManagement::leapSecondJump},
    Field{"masterLockingStatus",    &PtpManagement::masterLockingStatus},
    Field{"previousJamLocalOffset", &PtpManagement::previousJamLocalOffset},
    Field{"timeAddressFlags",       &PtpManagement::timeAddressFlags},
    Field{"timeOfNextJam",          &PtpManagement::timeOfNextJam},
    Field{"timeOfNextJump",         &PtpManagement::timeOfNextJump},
    Field{"timeOfPreviousJam",      &PtpManagement::timeOfPreviousJam},
};
// clang-format on

/// The member at `outer` (and below it at `inner`, when given) of a JSON object, or null.
const Json* find(const Json& json, const char* outer, const char* inner = nullptr) {
    if (!json.is_object()) return nullptr;
    const auto found = json.find(outer);
    if (found == json.end()) return nullptr;
    return inner == nullptr ? &*found : find(*found, inner);
}

template <typename Value>
void take(const Json* json, Value& value) {
    if (json != nullptr) read(*json, value);
}

/// True for any number other than 0: none is cut off or wraps to it on the way.
void take(const Json* json, bool& value) {
    if (json == nullptr) return;
    value = json->is_boolean() ? json->get<bool>() : json->get<double>() != 0;
}

}  // namespace

// The nested records' conversions, which the JSON library finds by their types.
void from_json(const Json& json, PtpMaster::ClockQuality& value) {
    read_fields(json, value, kClockQualityFields);
}
void from_json(const Json& json, PtpMaster::PortIdentity& value) {
    read_fields(json, value, kPortIdentityFields);
}
void from_json(const Json& json, PtpManagement::DaylightSaving& value) {
    read_fields(json, value, kDaylightSavingFields);
}
void from_json(const Json& json, PtpManagement::FrameRate& value) {
    read_fields(json, value, kFrameRateFields);
}
void from_json(const Json& json, PtpManagement::TimeAddressFlags& value) {
    read_fields(json, value, kTimeAddressFields);
}

void from_json(const Json& json, PtpMaster& master) {
    read_fields(json, master, kMasterFields);
}
void from_json(const Json& json, PtpManagement& management) {
    read_fields(json, management, kManagementFields);
}

void read_digest_of_master(const Json& master, hps_ptp_sm& digest) {
    take(find(master, "currentUtcOffset"), digest.currentUtcOffset);
}

void read_digest_of_management(const Json& management, hps_ptp_sm& digest) {
    take(find(management, "currentLocalOffset"), digest.currentLocalOffset);
    take(find(management, "jumpSeconds"), digest.jumpSeconds);
    take(find(management, "timeOfNextJump"), digest.timeOfNextJump);
    take(find(management, "timeOfNextJam"), digest.timeOfNextJam);
    take(find(management, "timeOfPreviousJam"), digest.timeOfPreviousJam);
    take(find(management, "previousJamLocalOffset"), digest.previousJamLocalOffset);
    take(find(management, "daylightSaving", "dst_at_next_discontinuity"), digest.dst_at_next_discontinuity);
    take(find(management, "leapSecondJump"), digest.leapSecondJump);
    take(find(management, "timeAddressFlags", "drop_frame"), digest.drop_frame);
    int32_t locking = 0;
    take(find(management, "masterLockingStatus"), locking);
    digest.master_locked = locking == 4;
}
