/// The host's card configuration as a file: what is wrong with it, and how to change it without losing it.
#ifndef KIVCTL_CONFIGURATION_H
#define KIVCTL_CONFIGURATION_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "failure.h"

namespace kivctl {

/// The one place where the file lives.
std::string configuration_path();

struct Finding {
    int line = 0;     ///< From 1; 0 for the file as a whole.
    std::string key;  ///< Such as "devices[0].maceth1.tos"; empty for the file as a whole.
    std::string problem;
    bool fatal = true;      ///< The library cannot load the file.
    bool repeated = false;  ///< The key stands there more than once: only the last counts.
};

/// What is wrong with a file; nothing for a good one. Throws Failure when it cannot be read.
std::vector<Finding> check_configuration(const std::string& path);

/// The document of the file. Throws Failure, which names the first finding, when the library cannot load it.
Json read_configuration(const std::string& path);

/// Writes the document to a new file beside `path`, reads that back, keeps the former file as "PATH.bak", and
/// gives the new one its name: at every moment there is a whole file. Throws Failure; the former file is in
/// its place then.
void replace_configuration(const std::string& path, const Json& document);

/// Makes the file, and its folders, unless it exists. Throws Failure.
void create_configuration(const std::string& path, const std::string& text);

/// The sample.
extern const char* const kSampleConfiguration;

}  // namespace kivctl

#endif
