/// The gate in front of every entry point: exceptions become a code, and a call for one card finds its
/// Device.
#ifndef KIV_GATE_H
#define KIV_GATE_H

#include <functional>
#include <memory>

#include "base/guarded.h"
#include "log/kivLogDispatch.h"
#include "state.h"

namespace kiv::api {

/// Logs and returns the code for a null pointer that was required.
inline kiv_result_t null_argument() {
    log_error(kApiSource, "Argument is NULL");
    return KIV_ERR_NULL_ARGUMENT;
}

/// The gate of every call for one card: manager, id; then `operation` on the Device.
template <typename Operation>
kiv_result_t call_device(uint8_t id, Operation operation) noexcept {
    return guarded([&]() -> kiv_result_t {
        // Shares of both: a scan or close of another thread does not end them before this call has returned.
        const std::shared_ptr<device::DeviceManager> manager = Process::instance().manager();
        if (!manager) return KIV_ERR_NOT_OPENED;
        const std::shared_ptr<device::Device> device = manager->getDeviceShared(id);
        return device ? operation(*device) : KIV_ERR_NO_DEVICE;
    });
}

/// A query: with a null output it does nothing and succeeds.
template <typename Operation, typename... Output>
kiv_result_t query_device(uint8_t id, Operation operation, Output*... output) noexcept {
    return call_device(id, [&](device::Device& device) -> kiv_result_t {
        return (... && (output != nullptr)) ? std::invoke(operation, device, *output...) : KIV_OK;
    });
}

/// A command: its arguments are required.
template <typename Operation, typename... Argument>
kiv_result_t command_device(uint8_t id, Operation operation, Argument*... argument) noexcept {
    return call_device(id, [&](device::Device& device) -> kiv_result_t {
        return (... && (argument != nullptr)) ? std::invoke(operation, device, *argument...)
                                              : null_argument();
    });
}

}  // namespace kiv::api

#endif
