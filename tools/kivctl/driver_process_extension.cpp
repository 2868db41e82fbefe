// The driver extension: only the library can tell whether it publishes cards.
#include <kiv/kivDriverService.h>

#include "driver_process.h"

namespace kivctl {

DriverProcess look_for_driver() {
    return {true, std::string("driver extension ") + KIV_DRIVER_SERVICE_NAME, "",
            "\"systemextensionsctl list\" shows whether the extension is activated and enabled; then see "
            "whether a card "
            "is installed"};
}

}  // namespace kivctl
