/// The host's card configuration as a file: what is wrong with it, and how to change it without losing it.
#ifndef KIVCTL_CONFIGURATION_H
#define KIVCTL_CONFIGURATION_H

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"

namespace kivctl {

/// The one place where the file lives.
std::string configuration_path();

/// Why a file must not even be opened: a pipe would hang the reader, a huge file fill the memory. Nothing for
/// any other file, nor for none.
std::optional<Failure> unreadable(const std::string& path);

/// All of the file. Throws Failure.
std::string read_text(const std::string& path);

struct Finding {
    int line = 0;     ///< From 1; 0 for the file as a whole.
    std::string key;  ///< Such as "devices[0].maceth1.tos"; empty for the file as a whole.
    std::string problem;
    bool fatal = true;      ///< The library cannot load the file.
    bool repeated = false;  ///< The key stands there more than once: only the last counts.

    std::string text() const;  ///< In one line, as a terminal may show it.
};

/// What is wrong with a file; nothing for a good one. Throws Failure when it cannot be read.
std::vector<Finding> check_configuration(const std::string& path);

/// The same for `text`, which was read from `path`.
std::vector<Finding> check_text(const std::string& path, const std::string& text);

/// What is wrong with the values that a change of a card's settings takes from the file: below "ptp", and TOS
/// and TTL in the entry of the card. The library takes another number than the one that stands there. Throws
/// Failure when it cannot load the file.
std::vector<Finding> check_settings(const std::string& path, uint8_t id);

/// The document of the file. Throws Failure, which names the first finding, when the library cannot load it.
Json read_configuration(const std::string& path);

/// Whether the library takes an entry of "devices" for the card's.
bool is_entry_of(const Json& entry, uint8_t id);

/// Reads the file, lets `change` change its document, and puts that into its place: at every moment there is
/// a whole file. The former one stays as "PATH.bak"; owner and mode stay. One change at a time: others wait,
/// on a lock of the folder. Throws Failure; the former file is in its place then.
void change_configuration(const std::string& path, const std::function<void(Json&)>& change);

/// Makes the file, and its folders, unless it exists. Throws Failure.
void create_configuration(const std::string& path, const std::string& text);

/// The sample.
extern const char* const kSampleConfiguration;

}  // namespace kivctl

#endif
