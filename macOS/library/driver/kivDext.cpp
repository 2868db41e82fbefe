#include <kiv/kivDext.h>

#include <algorithm>
#include <mutex>
#include <utility>

#include <kiv/kivDriverService.h>
#include "driver/DriverClients.h"

using kiv::driver_clients;
using kiv::DriverClients;

int32_t kivDext_new() try {
    DriverClients* const clients = driver_clients(true);
    if (clients == nullptr) return 1;
    kivDriverClientList found = kivDriverClient::enumerateDevices(KIV_DRIVER_SERVICE_NAME);
    const bool none = found.empty();
    clients->replace(&DriverClients::g_clients, std::move(found));
    return none ? 1 : 0;
} catch (...) {
    return 1;
}

uint16_t kivDext_get_selected_ptp_card() try {
    DriverClients* const shared = driver_clients(false);
    if (shared == nullptr) return 0;
    const std::lock_guard lock(shared->mutex);
    const auto first = shared->g_clients.begin();
    const auto selected = std::find_if(first, shared->g_clients.end(), [](const auto& client) {
        return (client->device_conf.ptp_selected & 1) != 0;
    });
    return static_cast<uint16_t>(selected - first);
} catch (...) {
    return 0;
}

int32_t kivDext_open_hps(...) {
    return -1;
}
int32_t kivDext_open_st2110(...) {
    return -1;
}
int32_t kivDext_close(...) {
    return -1;
}
int32_t kivDext_free(...) {
    return -1;
}
int32_t kivDext_get_epoch_and_system_time(...) {
    return -1;
}
int32_t kivDext_hps_pciread64(...) {
    return -1;
}
int32_t kivDext_st2110_pciread64(...) {
    return -1;
}
