/// A screen of all cards, drawn anew every second.
#ifndef KIVCTL_WATCH_STATUS_H
#define KIVCTL_WATCH_STATUS_H

#include <optional>

#include "commands.h"
#include "log_file.h"

namespace kivctl {

/// Until a signal ends the process. Log and JSON are lines of the schema kivctl.cards/1.
[[noreturn]] void show_status(const Request& request, std::optional<LogFile> log, Output& output);

}  // namespace kivctl

#endif
