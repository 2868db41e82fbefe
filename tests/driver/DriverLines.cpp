#include "driver/DriverLines.h"

#include <unistd.h>

#include <cstdlib>

#include "support/Patterns.h"

namespace {

/// The log looks at its environment once: before the first line.
[[maybe_unused]] const int kMirrored = setenv("OS_ACTIVITY_DT_MODE", "1", 1);

}  // namespace

DriverLines::DriverLines() : usual_(dup(STDERR_FILENO)) {
    dup2(fileno(file_.get()), STDERR_FILENO);
}

DriverLines::~DriverLines() {
    dup2(usual_.get(), STDERR_FILENO);
}

Lines DriverLines::take() {
    const std::string start =
        "^[^\\[]+\\[" + std::to_string(getpid()) + "\\] \\[com\\.velmora\\.kiv::\\d+\\]LIBKIVXDEV: ";
    Lines texts;
    // Reading through the file's stream would move the place where others write.
    for (char c = 0; pread(fileno(file_.get()), &c, 1, read_) == 1; ++read_) {
        if (c != '\n') {
            line_ += c;
            continue;
        }
        texts.push_back(replaced(line_, start, ""));
        line_.clear();
    }
    return texts;
}
