#include "driver/DriverLines.h"

#include <regex>
#include <sstream>

#include "support/Test.h"

namespace {

/// The log looks at its environment once: before the first line.
[[maybe_unused]] const int kMirrored = setenv("OS_ACTIVITY_DT_MODE", "1", 1);

}  // namespace

DriverLines::DriverLines() {
    testing::internal::CaptureStderr();
}

DriverLines::~DriverLines() {
    testing::internal::GetCapturedStderr();
}

Lines DriverLines::take() {
    std::istringstream captured(testing::internal::GetCapturedStderr());
    testing::internal::CaptureStderr();
    const std::regex start("^[^\\[]+\\[" + std::to_string(getpid()) +
                           "\\] \\[com\\.velmora\\.kiv::\\d+\\]LIBKIVXDEV: ");
    Lines texts;
    for (std::string line; std::getline(captured, line);)
        texts.push_back(std::regex_replace(line, start, ""));
    return texts;
}
