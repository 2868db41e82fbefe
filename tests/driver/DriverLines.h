/// What the driver client says in the platform's log.
#ifndef KIV_TEST_DRIVER_LINES_H
#define KIV_TEST_DRIVER_LINES_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

/// The log looks at its environment once: before the first line.
[[maybe_unused]] inline const int kMirrored = setenv("OS_ACTIVITY_DT_MODE", "1", 1);

/// Catches standard error, where the log is mirrored, from its creation to its end.
class DriverLines {
  public:
    DriverLines() { testing::internal::CaptureStderr(); }
    ~DriverLines() { testing::internal::GetCapturedStderr(); }
    DriverLines(const DriverLines&) = delete;
    DriverLines& operator=(const DriverLines&) = delete;

    /// The texts so far, and with them none. A line that does not begin as the client's do comes whole.
    Lines take() {
        std::istringstream captured(testing::internal::GetCapturedStderr());
        testing::internal::CaptureStderr();
        const std::regex start("^" + std::string(program_invocation_short_name) + "\\[" +
                               std::to_string(getpid()) + "\\] \\[com\\.velmora\\.kiv::\\d+\\]LIBKIVXDEV: ");
        Lines texts;
        for (std::string line; std::getline(captured, line);)
            texts.push_back(std::regex_replace(line, start, ""));
        return texts;
    }
};

#endif
