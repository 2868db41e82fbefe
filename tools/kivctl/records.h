/// The JSON objects that several commands print of a card.
#ifndef KIVCTL_RECORDS_H
#define KIVCTL_RECORDS_H

#include <kiv/kiv_types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "failure.h"

namespace kivctl {

/// "port", "link" and both loads of each media port. A load that is infinite or no number says nothing: null.
Json ports_json(const kiv_net_status_t& status);

/// Use of the transmit or of the receive streams.
Json stream_json(const kiv_stream_status_t& status);

/// "text", "width" and "generation" of a PCI link, null when nobody tells it.
Json pci_link_json(unsigned width, unsigned generation);

/// How a master is locked to its reference, in the words of SMPTE ST 2059-2: "text" and "value".
Json locking_json(int32_t status);
std::string locking_text(int64_t status);

constexpr std::size_t kSensorCount = 7;
const char* sensor_name(std::size_t number);

/// A sensor of a report: "name", "input", "max", "critical" and "state", null for what is not reported.
/// Readings are signed: the record carries one below zero as an unsigned number.
Json sensor_json(unsigned number, const kiv_sensor_t& sensor);

/// Makes null of the readings that the server reports as no whole number: the record has a 0 for them.
void leave_out_unreadable(const Json& report, Json& sensors);

/// "sensors", all of them, and "board_power" of a server's report. Throws Failure when it is no report.
Json report_json(const Json& report);

/// Null for a board whose power is 0: the record does not tell that from one that does not report it.
Json power_json(uint32_t power);

/// Whether a sensor's "state" asks for attention.
bool is_alarm(const Json& sensor);

}  // namespace kivctl

#endif
