/// The gate in front of every entry point: exceptions become a code, and a call for one card finds its
/// Device.
#ifndef KIV_GATE_H
#define KIV_GATE_H

#include <memory>

#include "kivLogDispatch.h"
#include "state.h"

namespace kiv::api {

/// Runs the body of an entry point. Whatever it throws is KIV_ERR_FAILED.
template <typename Body>
kiv_result_t guarded(Body body) noexcept {
    try {
        return body();
    } catch (...) {
        return KIV_ERR_FAILED;
    }
}

/// Logs and returns the code for a null pointer that was required.
inline kiv_result_t null_argument() {
    kivLog_dispatch(KIV_LOG_LEVEL_ERROR, kApiSource, __LINE__, "Argument is NULL");
    return KIV_ERR_NULL_ARGUMENT;
}

/// The pointers of a call for one card, and what a null among them means.
struct Pointers {
    bool complete;
    bool required;
};

/// Null: the call does nothing and succeeds.
template <typename... Pointer>
Pointers optional(Pointer... pointers) {
    return {(... && (pointers != nullptr)), false};
}

/// Null: the call is refused.
template <typename... Pointer>
Pointers required(Pointer... pointers) {
    return {(... && (pointers != nullptr)), true};
}

/// The gate of the calls for one card: manager, id, pointers, Device; then `operation`.
template <typename Operation>
kiv_result_t with_device(uint8_t id, Pointers pointers, Operation operation) noexcept {
    return guarded([&]() -> kiv_result_t {
        if (!g_DeviceManager) return KIV_ERR_NOT_OPENED;
        const std::shared_ptr<device::Device> device = g_DeviceManager->getDeviceShared(id);
        if (!device) return KIV_ERR_NO_DEVICE;
        if (!pointers.complete) return pointers.required ? null_argument() : KIV_OK;
        return operation(*device);
    });
}

}  // namespace kiv::api

#endif
