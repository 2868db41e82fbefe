#include <kivplatform/driver_process.h>

#include "no_card.h"

namespace kivctl {

const char* why_no_card() {
    return kivplatform_driver_running() ? "no card found: the driver is running, but has no cards"
                                        : "no card found: no driver process is running; start kivsim, or set "
                                          "KIVSIM_SOCKET to the socket of the one that runs";
}

}  // namespace kivctl
