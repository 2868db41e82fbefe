/// The driver clients that the library keeps for the process.
#ifndef KIV_DRIVER_CLIENTS_H
#define KIV_DRIVER_CLIENTS_H

#include <mutex>

#include <kiv/kivDriverClient.h>
#include <kiv/threadSafety.h>
#include "platform.h"

namespace kiv {

struct DriverClients final : platform::Clients {
    std::mutex mutex;
    /// What the last enumeration for the device layer found.
    kivDriverClientList kivDev_ KIV_GUARDED_BY(mutex);
    /// What kivDext_new() found.
    kivDriverClientList g_clients KIV_GUARDED_BY(mutex);

    /// Puts `fresh` in place of `list`. Those that go take leave of the driver now, also when a call of
    /// another thread still has a share of one: the driver takes a later leave for the whole process.
    void replace(kivDriverClientList DriverClients::*list, kivDriverClientList fresh) {
        {
            const std::lock_guard lock(mutex);
            (this->*list).swap(fresh);
        }
        for (const auto& client : fresh)
            client->close();
    }

    void release() override {
        replace(&DriverClients::kivDev_, {});
        replace(&DriverClients::g_clients, {});
    }
};

/// Those of this process, or null: see platform::clients_of_process().
inline DriverClients* driver_clients(bool to_connect) {
    return static_cast<DriverClients*>(platform::clients_of_process(to_connect));
}

}  // namespace kiv

#endif
