// The compiled part of the Python package: calls of the C interface without the interpreter lock, each giving
// its result code and what it found. The package makes the rest of it.
#include <kiv/kiv_api.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <exception>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "records.h"

namespace kivpython {

namespace {

/// The thread that ends the interpreter, once it does.
std::atomic<std::thread::id> ending_thread{};

/// Threads that are about to take the interpreter's lock.
std::atomic<int> entering{0};

/// Whether this thread may ask for the lock. An interpreter that ends would unwind it, through C++.
bool enter() {
    ++entering;
    const std::thread::id ending = ending_thread;
    if (ending == std::thread::id() || ending == std::this_thread::get_id()) return true;
    --entering;
    return false;
}

/// Runs a call while other threads of Python run.
template <typename Call>
kiv_result_t without_interpreter(Call call) {
    kiv_result_t result = KIV_OK;
    std::exception_ptr error;
    // Not by an object: its destructor cannot do without the lock.
    PyThreadState* const state = PyEval_SaveThread();
    try {
        result = call();
    } catch (...) {
        error = std::current_exception();
    }
    while (!enter())
        pause();  // Until the process ends.
    PyEval_RestoreThread(state);
    --entering;
    if (error) std::rethrow_exception(error);
    return result;
}

/// Threads that are about to take the lock get it now, within a second. The library itself ends with the
/// process.
void at_exit() {
    ending_thread = std::this_thread::get_id();
    const py::gil_scoped_release others;
    for (int i = 0; i < 1000 && entering > 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

/// Hands an event over to its subscription, `user`, which lives until the callbacks have ended.
void on_event(uint8_t id, kiv_event_type_t type, const void* data, void* user) {
    if (!enter()) return;
    const py::gil_scoped_acquire interpreter;
    --entering;
    // A finalizer that the collector runs might wait for this very callback.
    const bool collecting = PyGC_Disable() != 0;
    try {
        const py::object what =
            type == KIV_EVENT_LINK    ? to_python(*static_cast<const kiv_event_link_t*>(data))
            : type == KIV_EVENT_HWMON ? to_python(*static_cast<const kiv_event_hwmon_t*>(data))
                                      : to_python(*static_cast<const uint32_t*>(data));
        py::handle(static_cast<PyObject*>(user)).attr("_put")(id, type, what);
    } catch (py::error_already_set& error) {
        error.discard_as_unraisable("an event");
    }
    if (collecting) PyGC_Enable();
}

/// A call that gives a code alone.
template <typename... Argument>
void command(py::module_& module, const char* name, kiv_result_t (*function)(Argument...)) {
    module.def(name, [function](Argument... argument) {
        return std::pair(without_interpreter([&] { return function(argument...); }), py::none());
    });
}

template <typename Record>
void query(py::module_& module, const char* name, kiv_result_t (*get)(uint8_t, Record*)) {
    module.def(name, [get](uint8_t id) {
        Record record{};
        const kiv_result_t result = without_interpreter([&] { return get(id, &record); });
        return std::pair(result, to_python(record));
    });
}

/// A scan. Its list is the library's: the package lets nobody scan before this has copied it.
template <typename Scan, typename Card, typename Call>
std::pair<kiv_result_t, py::list> found_by(const Card* Scan::*cards, Call call) {
    Scan scan{};
    const kiv_result_t result = without_interpreter([&] { return call(&scan); });
    py::list found;
    for (uint32_t i = 0; result == KIV_OK && i < scan.count; ++i)
        found.append(to_python((scan.*cards)[i]));
    return {result, found};
}

using NetPort = std::tuple<uint32_t, uint32_t, uint8_t, uint16_t>;
using PtpConfig = std::tuple<std::array<int8_t, 4>, uint8_t, std::array<uint8_t, 4>>;

/// Records of the caller come as tuples.
auto set_ptp_config(uint8_t id, const std::pair<NetPort, NetPort>& net, const PtpConfig& ptp) {
    kiv_net_config_t to_net{};
    kiv_ptp_config_t to_ptp{};
    auto& [port_0, port_1] = to_net;
    std::tie(port_0.ip_address_0, port_0.prefix_length_0, port_0.vlan_enable, port_0.vlan_id) = net.first;
    std::tie(port_1.ip_address_1, port_1.prefix_length_1, port_1.vlan_enable, port_1.vlan_id) = net.second;
    std::copy_n(std::get<0>(ptp).begin(), 4, to_ptp.global_params);
    to_ptp.enabled = std::get<1>(ptp);
    std::copy_n(std::get<2>(ptp).begin(), 4, to_ptp.port_params);
    return std::pair(without_interpreter([&] { return kiv_set_ptp_config(id, &to_net, &to_ptp); }),
                     py::none());
}

// clang-format off
void define_calls(py::module_& module) {
    query(module, "card_info",          kiv_get_card_info);
    query(module, "card_status",        kiv_get_card_status);
    query(module, "flash_config",       kiv_get_flash_config);
    query(module, "flash_write_status", kiv_get_flash_write_status);
    query(module, "media_net_config",   kiv_get_media_net_config);
    query(module, "net_status",         kiv_get_net_status);
    query(module, "ptp_config",         kiv_get_ptp_config);
    query(module, "ptp_net_config",     kiv_get_ptp_net_config);
    query(module, "ptp_status",         kiv_get_ptp_status);
    query(module, "rx_stream_status",   kiv_get_rx_stream_status);
    query(module, "tx_stream_status",   kiv_get_tx_stream_status);
    query(module, "epoch_and_2point",   +[](uint8_t id, uint64_t (*times)[3]) { return kiv_get_epoch_and_2point(id, &(*times)[0], &(*times)[1], &(*times)[2]); });

    command(module, "open",              +[](kiv_log_level_t level) { const kiv_log_config_t log{level}; return kiv_open(&log); });
    command(module, "close",             kiv_close);
    command(module, "configure_save",    kiv_configure_save);
    command(module, "write_flash_image", +[](uint8_t id, const std::string& path) { return kiv_write_flash_image(id, path.c_str()); });
    command(module, "select_flash_slot", +[](uint8_t id, kiv_flash_slot_t slot) { return kiv_select_flash_slot(id, &slot); });
    command(module, "register_callback", +[](uint8_t id, py::handle events) { return kiv_register_callback_func(id, on_event, events.ptr()); });
    command(module, "unregister_callback", kiv_unregister_callback_func);
    command(module, "enable_event",      kiv_enable_event);
    command(module, "disable_event",     kiv_disable_event);
    module.def("result_name", kiv_result_name);
    module.def("result_text", kiv_result_text);
    module.def("sw_version", [] { kiv_sw_version_t version{}; kiv_get_sw_version(&version); return to_python(version); });
    module.def("set_ptp_config", set_ptp_config);
    module.def("scan", [] { return found_by(&kiv_scan_t::devices, kiv_scan); });
    module.def("scan_each", [](std::optional<uint8_t> only, uint32_t limit_ms) {
        return found_by(&kiv_scan_each_t::cards, [&](kiv_scan_each_t* scan) { return kiv_scan_each(only ? &*only : nullptr, limit_ms, scan); });
    });
}
// clang-format on

}  // namespace

}  // namespace kivpython

PYBIND11_MODULE(_kiv, module) {
    using namespace kivpython;
    define_calls(module);
    py::module_::import("atexit").attr("register")(py::cpp_function(at_exit));
}
