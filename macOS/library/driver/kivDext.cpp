#include "kivDext.h"

#include <algorithm>
#include <mutex>

#include "kivDriverClient.h"
#include "wire.h"

namespace {

struct Shared {
    std::mutex mutex;
    kivDriverClientList g_clients;  ///< Guarded by the mutex.
};

Shared& shared() {
    static Shared instance;
    return instance;
}

}  // namespace

int32_t kivDext_new() try {
    kivDriverClientList found = kivDriverClient::enumerateDevices(kiv::wire::kServiceName);
    const bool none = found.empty();
    const std::lock_guard lock(shared().mutex);
    shared().g_clients.swap(found);
    return none ? 1 : 0;
} catch (...) {
    return 1;
}

uint16_t kivDext_get_selected_ptp_card() {
    const std::lock_guard lock(shared().mutex);
    const kivDriverClientList& clients = shared().g_clients;
    const auto selected = std::find_if(clients.begin(), clients.end(), [](const auto& client) {
        return (client->device_conf.ptp_selected & 1) != 0;
    });
    return static_cast<uint16_t>(selected - clients.begin());
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
