/// What is asked of a card again and again: one part of its values at a time.
#ifndef KIVCTL_SAMPLES_H
#define KIVCTL_SAMPLES_H

#include <kiv/kivDriverClient.h>

#include <chrono>
#include <cstddef>
#include <span>

#include "failure.h"
#include "server.h"

namespace kivctl {

/// A part fails and grows old by itself. Those of the driver stand before those of the server, and in each
/// first the one that tells whether the source is there at all.
enum Part : std::size_t {
    kPorts,    ///< As ports_json().
    kClock,    ///< "register_state", "tai_ns" and "host_ns": what the host's clock, UTC, said at that moment.
    kPciLink,  ///< As pci_link_json().
    kStreams,  ///< "tx" and "rx".
    kSensorsOf,  ///< As report_json().
    kFlashState,
    kLocking,  ///< As locking_json().
    kMaster,   ///< "utc_offset", "utc_offset_valid" and "grandmaster".
    kSlots,    ///< "slots" and "next_boot_slot".
    kParts
};

/// A part of the driver's. Throws Failure. Each takes up to 7 calls of the driver.
struct DriverRead {
    Part part;
    Json (*read)(kivDriverClientList& functions);
};
std::span<const DriverRead> driver_reads();

/// A part of the server's, one request each. Throws Failure.
struct ServerRead {
    Part part;
    std::chrono::seconds period;  ///< How often; 0: with every sample.
    Json (*read)(const Server& server);
};
std::span<const ServerRead> server_reads();

}  // namespace kivctl

#endif
