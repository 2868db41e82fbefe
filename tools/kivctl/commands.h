/// The commands of kivctl: a row and a function each.
#ifndef KIVCTL_COMMANDS_H
#define KIVCTL_COMMANDS_H

#include <cstdint>
#include <span>

#include "output.h"

namespace kivctl {

/// What the command line said.
struct Request {
    uint8_t id = 0;
    bool json = false;
};

struct Command {
    const char* name;
    const char* help;
    bool takes_id;
    void (*run)(const Request& request, Output& output);  ///< Throws Failure.
};

std::span<const Command> commands();

}  // namespace kivctl

#endif
