/// The card's temperature sensors and board power, as its management server reports them.
#ifndef KIV_SYSTEM_MONITOR_DATA_H
#define KIV_SYSTEM_MONITOR_DATA_H

#include <cstdint>
#include <map>
#include <string>

#include <kiv/kiv_export.h>
#include <kiv/kiv_types.h>

namespace kiv::device {

/// Index of a sensor in every list of them.
enum kiv_temperature_sensor_t {
    KIV_SENSOR_FPGA_FABRIC = 0,
    KIV_SENSOR_BOARD_TOP = 1,
    KIV_SENSOR_BOARD_BOTTOM = 2,
    KIV_SENSOR_BOARD_REAR = 3,
    KIV_SENSOR_BOARD_FRONT = 4,
    KIV_SENSOR_QSFP1 = 5,
    KIV_SENSOR_QSFP2 = 6,
    KIV_SENSOR_COUNT = 7
};

/// Values are the server's own units.
struct KIV_API SystemMonitorData {
    SystemMonitorData();

    kiv_sensor_t sensors[KIV_SENSOR_COUNT];
    uint32_t board_power;
    std::map<std::string, kiv_temperature_sensor_t> labels;  ///< The server's label of each sensor.
};

/// Fills `out` from the server's JSON array; unknown labels are skipped, values that are not integers are 0.
/// False, with a line on standard error, when the text is not such an array: values read before the error
/// stay.
KIV_API bool parse_json_to_struct_cpp(const std::string& json, SystemMonitorData& out);

}  // namespace kiv::device

#endif
