/// The command line, made from the rows of commands().
#ifndef KIVCTL_COMMAND_LINE_H
#define KIVCTL_COMMAND_LINE_H

#include <memory>
#include <string>
#include <vector>

#include "commands.h"

namespace kivctl {

/// Raised when the help was asked for: its text.
struct HelpWanted {
    std::string text;
};

/// Fills `request` and gives the command to run. Throws HelpWanted, and the Failure of wrong usage; then
/// `request.json` is as the line says all the same. `words` are without the program's name.
const Command& parse(std::vector<std::string> words, Request& request);

}  // namespace kivctl

#endif
