// The real driver is there, the simulator is not.
#include "failure.h"
#include "host.h"

namespace kivctl {

void start_simulation(const std::string&) {
    throw Failure(Layer::Argument, "NO_SIMULATOR",
                  "this kivctl talks to the driver extension: it has no simulator",
                  "a build with -DKIV_PLATFORM=simulated has one, and --sim")
        .ends_with(kUsage);
}

}  // namespace kivctl
