/// The records of the C interface as the package's named tuples: a row each, from which both directions are
/// made.
#ifndef KIV_PYTHON_RECORDS_H
#define KIV_PYTHON_RECORDS_H

#include <kiv/kiv_api.h>
#include <pybind11/pybind11.h>

#include <cstring>
#include <iterator>
#include <tuple>
#include <type_traits>
#include <utility>

namespace kivpython {

namespace py = pybind11;

using HwmonEntry = std::remove_extent_t<decltype(kiv_event_hwmon_t::entry)>;

/// Name of the named tuple; names and members of its fields.
template <typename Record>
struct Row;

// clang-format off
#define F(member) std::pair{#member, &R::member}
#define RECORD(type, python, ...)                                     \
    template <>                                                       \
    struct Row<type> {                                                \
        using R = type;                                               \
        static constexpr const char* name = python;                   \
        static constexpr auto fields = std::make_tuple(__VA_ARGS__);  \
    }
RECORD(kiv_sw_version_t, "SwVersion", F(major), F(minor), F(revision));
RECORD(kiv_card_port_t, "CardPort", F(mac_address), F(link_speed_gbps));
RECORD(kiv_card_info_t, "CardInfo", F(reg_00), F(reg_08), F(reg_10), F(reg_18), F(port));
RECORD(kiv_net_port_0_t, "NetPort", std::pair{"ip_address", &R::ip_address_0},
       std::pair{"prefix_length", &R::prefix_length_0}, F(vlan_enable), F(vlan_id));
RECORD(kiv_net_port_1_t, "NetPort", std::pair{"ip_address", &R::ip_address_1},
       std::pair{"prefix_length", &R::prefix_length_1}, F(vlan_enable), F(vlan_id));
RECORD(kiv_net_config_t, "NetConfig", F(port_0), F(port_1));
RECORD(kiv_net_status_t, "NetStatus", F(link_up_0), F(load_a), F(link_up_1), F(load_b));
RECORD(kiv_ptp_config_t, "PtpConfig", F(global_params), F(enabled), F(port_params));
RECORD(kiv_ptp_status_t, "PtpStatus", F(state), F(tai_time), F(is_master), F(master_value), F(clock_identity));
RECORD(kiv_flash_config_t, "FlashConfig", F(slot0_id), F(slot1_id), F(next_boot_slot));
RECORD(kiv_stream_status_t, "StreamStatus", F(control), F(resource_0), F(control_bit_25), F(control_bit_26),
       F(reg_404), F(resource_1), F(reg_804), F(resource_2));
RECORD(kiv_sensor_t, "Sensor", F(input), F(max), F(critical));
RECORD(kiv_card_status_t, "CardStatus", F(sensor), F(board_power), F(pci_link_b), F(pci_link_a));
RECORD(kiv_scan_card_device_t, "ScanCardDevice", F(device_id), F(card_word), F(ip_address_0), F(ip_address_1));
RECORD(kiv_scan_card_device_internal_t, "Tunnel", F(tunnel_address), F(tunnel_value));
RECORD(kiv_scan_each_card_t, "ScanEachCard", F(result), F(device), F(tunnel));
RECORD(kiv_event_link_t, "EventLink", F(port_0_changed), F(port_0_link), F(port_1_changed), F(port_1_link));
RECORD(HwmonEntry, "HwmonEntry", F(alarm), F(sensor));
RECORD(kiv_event_hwmon_t, "EventHwmon", F(entry));
#undef RECORD
#undef F
// clang-format on

/// Numbers, texts, arrays (tuples) and records.
template <typename Value>
py::object to_python(const Value& value) {
    if constexpr (std::is_arithmetic_v<Value>) {
        return py::cast(value);
    } else if constexpr (std::is_same_v<std::remove_extent_t<Value>, char>) {
        const auto length = static_cast<py::ssize_t>(strnlen(value, sizeof value));
        return py::reinterpret_steal<py::object>(PyUnicode_DecodeUTF8(value, length, "replace"));
    } else if constexpr (std::is_array_v<Value>) {
        py::tuple elements(std::size(value));
        for (std::size_t i = 0; i < std::size(value); ++i)
            elements[i] = to_python(value[i]);
        return elements;
    } else {
        py::dict fields;
        std::apply(
            [&](const auto&... field) { ((fields[field.first] = to_python(value.*field.second)), ...); },
            Row<Value>::fields);
        return py::module_::import("kiv").attr(Row<Value>::name)(**fields);
    }
}

}  // namespace kivpython

#endif
