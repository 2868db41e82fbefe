/// The gate in front of every entry point: exceptions become a code, and a call for one card finds its
/// Device.
#ifndef KIV_GATE_H
#define KIV_GATE_H

#include <memory>

#include "guarded.h"
#include "kivLogDispatch.h"
#include "state.h"

namespace kiv::api {

/// Logs and returns the code for a null pointer that was required.
inline kiv_result_t null_argument() {
    kivLog_dispatch(KIV_LOG_LEVEL_ERROR, kApiSource, __LINE__, "Argument is NULL");
    return KIV_ERR_NULL_ARGUMENT;
}

/// The gate of the queries of one card: manager, id, output, Device; then `operation`. A null output is a
/// success.
template <typename Output, typename Operation>
kiv_result_t query_device(uint8_t id, Output* output, Operation operation) noexcept {
    return guarded([&]() -> kiv_result_t {
        if (!g_DeviceManager) return KIV_ERR_NOT_OPENED;
        const std::shared_ptr<device::Device> device = g_DeviceManager->getDeviceShared(id);
        if (!device) return KIV_ERR_NO_DEVICE;
        if (output == nullptr) return KIV_OK;
        return operation(*device, *output);
    });
}

}  // namespace kiv::api

#endif
