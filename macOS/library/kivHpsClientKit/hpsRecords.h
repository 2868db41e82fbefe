/// What the card's management server speaks of, as records.
/// Needs the version of nlohmann/json that kiv was built with: see kivClient.h.
#ifndef KIV_HPS_RECORDS_H
#define KIV_HPS_RECORDS_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include <kiv/kiv_export.h>

/// One network interface of the card, as the card reports it. Applications use the name so spelt.
struct inteface_info {
    std::string if_name;
    std::string ip_addr;
    std::string netmask;
    std::string hw_addr;
};

/// A multicast group that the card joins or leaves for this process.
struct hps_igmp {
    std::string dst_ip_addr;      ///< The group.
    std::string if_name;          ///< The card's interface.
    std::string ssm_source_addr;  ///< Source, for source-specific multicast; may be empty.
};

/// The PTP master that the card follows, as IEEE 1588 names its data.
struct PtpMaster {
    /// Quality of the grandmaster's clock.
    struct ClockQuality {
        int32_t clockAccuracy = 0;
        int32_t clockClass = 0;
        int32_t offsetScaledLogVariance = 0;
    };
    /// The port that the card follows.
    struct PortIdentity {
        std::string clockIdentity;
        int32_t portNumber = 0;
    };

    int32_t currentUtcOffset = 0;  ///< Seconds.
    int32_t currentUtcOffsetValid = 0;
    int32_t eth_num = 0;
    ClockQuality grandmasterClockQuality;
    std::string grandmasterIdentity;
    int32_t grandmasterPriority1 = 0;
    int32_t grandmasterPriority2 = 0;
    int32_t leap59 = 0;
    int32_t leap61 = 0;
    int32_t logMinDelayReqInterval = 0;  ///< Base-2 logarithm of seconds.
    int32_t logSyncInterval = 0;         ///< Base-2 logarithm of seconds.
    std::string parentIpAddr;
    PortIdentity parentPortIdentity;
    int32_t stepsRemoved = 0;
    int32_t timeSource = 0;
    int32_t two_step_mode = 0;
};

/// Synchronisation metadata of SMPTE ST 2059-2, as the card reports it.
struct PtpManagement {
    /// Daylight saving time now, at the next change and at the last jam.
    struct DaylightSaving {
        int32_t curr_dst = 0;
        int32_t dst_at_next_discontinuity = 0;
        int32_t dst_at_prev_jam_event = 0;
    };
    /// Frames a second.
    struct FrameRate {
        int32_t denominator = 0;
        int32_t numerator = 0;
    };
    /// Flags of the time code.
    struct TimeAddressFlags {
        int32_t color_frame = 0;
        int32_t drop_frame = 0;
    };

    int32_t currentLocalOffset = 0;
    DaylightSaving daylightSaving;
    FrameRate defaultSystemFrameRate;
    int32_t jumpSeconds = 0;
    int32_t leapSecondJump = 0;
    int32_t masterLockingStatus = 0;
    int32_t previousJamLocalOffset = 0;
    TimeAddressFlags timeAddressFlags;
    uint64_t timeOfNextJam = 0;
    uint64_t timeOfNextJump = 0;
    uint64_t timeOfPreviousJam = 0;
};

/// What the polling thread keeps of the two documents above; a value that the card does not report is 0.
struct hps_ptp_sm {
    int32_t currentLocalOffset = 0;
    int32_t jumpSeconds = 0;
    uint64_t timeOfNextJump = 0;
    uint64_t timeOfNextJam = 0;
    uint64_t timeOfPreviousJam = 0;
    int32_t previousJamLocalOffset = 0;
    bool dst_at_next_discontinuity = false;
    bool leapSecondJump = false;
    bool drop_frame = false;
    bool master_locked = false;    ///< "masterLockingStatus" is 4.
    int32_t currentUtcOffset = 0;  ///< Of the master; all else is of the management data.
};

/// Every key is required: a missing one throws the JSON library's out_of_range, a value of a wrong type its
/// type_error.
KIV_API void from_json(const nlohmann::ordered_json& json, PtpMaster& master);
KIV_API void from_json(const nlohmann::ordered_json& json, PtpManagement& management);

/// Lenient: takes the keys that are there; a value of a wrong type throws type_error.
void read_digest_of_master(const nlohmann::ordered_json& master, hps_ptp_sm& digest);
void read_digest_of_management(const nlohmann::ordered_json& management, hps_ptp_sm& digest);

#endif
