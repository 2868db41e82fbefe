/// What the C interface holds for the process. No locks but one: see the rules of kiv_api.h.
#ifndef KIV_STATE_H
#define KIV_STATE_H

#include <mutex>
#include <optional>
#include <vector>

#include "CardConfig.h"
#include "DeviceManager.h"
#include "kiv_types.h"

/// Source of every log line of the C interface.
inline constexpr const char* kApiSource = "sdk/library/src/kiv_api";

extern kiv::config::CardConfig g_CardConfig;
extern std::mutex g_CardConfigMutex;  ///< Guards `g_CardConfig`, which calls for several cards share.

/// Empty until the first scan, and after a close.
extern std::optional<kiv::device::DeviceManager> g_DeviceManager;

/// Results of the last scan, and of all internal scans of the process.
extern std::vector<kiv_scan_card_device_t> g_ScanInfo;
extern std::vector<kiv_scan_card_device_internal_t> g_ScanInfo_in;

#endif
