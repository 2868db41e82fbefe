/// What depends on the kind of machine that the program runs on.
#ifndef KIVCTL_HOST_H
#define KIVCTL_HOST_H

#include <string>

namespace kivctl {

/// Starts a simulator that nobody else sees and that ends with this process, however that ends, and has the
/// library find its driver. `cards`: the cards file; empty for the simulator's own cards. Throws Failure.
void start_simulation(const std::string& cards);

}  // namespace kivctl

#endif
