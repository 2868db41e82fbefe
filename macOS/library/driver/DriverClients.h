/// The driver clients that the library keeps for the process.
#ifndef KIV_DRIVER_CLIENTS_H
#define KIV_DRIVER_CLIENTS_H

#include <mutex>
#include <utility>

#include "kivDriverClient.h"

namespace kiv {

struct DriverClients {
    std::mutex mutex;               ///< Guards the lists.
    kivDriverClientList kivDev_;    ///< What the last enumeration for the device layer found.
    kivDriverClientList g_clients;  ///< What kivDext_new() found.

    /// Puts `fresh` in place of `list`; those that go take leave of the driver without the lock.
    void replace(kivDriverClientList DriverClients::*list, kivDriverClientList fresh) {
        const std::lock_guard lock(mutex);
        (this->*list).swap(fresh);
    }
};

/// Those of this process; null when it must not use the driver: while it exits, and in a forked child of the
/// process that has used it, whose lists and locks it inherited in whatever state. Defined with the state of
/// the process.
DriverClients* driver_clients();

}  // namespace kiv

#endif
