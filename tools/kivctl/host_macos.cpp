// macOS: the real driver is there, the simulator is not.
#include <mach-o/dyld.h>

#include <cstdint>

#include "failure.h"
#include "host.h"

namespace kivctl {

std::string own_program() {
    uint32_t size = 0;
    _NSGetExecutablePath(nullptr, &size);
    std::string path(size, '\0');
    _NSGetExecutablePath(path.data(), &size);
    return path.c_str();
}

void start_simulation(const std::string&) {
    throw Failure(Layer::Argument, "NO_SIMULATOR", "there is no simulator for this system",
                  "the simulator, and --sim, are for Linux")
        .ends_with(kUsage);
}

}  // namespace kivctl
