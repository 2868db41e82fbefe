/// The driver of this machine, as far as it can be looked for without the library.
#ifndef KIVCTL_DRIVER_PROCESS_H
#define KIVCTL_DRIVER_PROCESS_H

#include <string>

namespace kivctl {

struct DriverProcess {
    bool found = false;
    std::string where;    ///< What was looked for: a path, or the name of a driver extension.
    std::string problem;  ///< What went wrong; empty when it is found, or when only the library can tell.
    std::string remedy;
};

DriverProcess look_for_driver();

}  // namespace kivctl

#endif
