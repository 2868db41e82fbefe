/// What went wrong, for a person and for a program, and the exit statuses.
#ifndef KIVCTL_FAILURE_H
#define KIVCTL_FAILURE_H

#include <kiv/kiv_types.h>

#include <cstdint>
#include <exception>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>

namespace kivctl {

using Json = nlohmann::ordered_json;

enum Exit : int {
    kDone = 0,
    kFailed = 1,       ///< The operation failed, or only a part of it could be done.
    kUsage = 2,        ///< Nothing was asked of any card.
    kAttention = 3,    ///< Done; what was found needs attention.
    kTimeIsUp = 4,     ///< The time limit came first.
    kInterrupted = 5,  ///< A signal ended the waiting.
};

/// Where it went wrong.
enum class Layer { Argument, Configuration, Driver, Network, Server, Card, Program };
const char* name_of(Layer layer);

class Failure : public std::exception {
  public:
    /// `word` is a name for programs, such as "NO_CARD", that stays from version to version.
    Failure(Layer where, std::string word, std::string what_happened, std::string what_to_try = "")
        : layer(where),
          name(std::move(word)),
          message(std::move(what_happened)),
          remedy(std::move(what_to_try)) {}

    const char* what() const noexcept override { return message.c_str(); }

    /// Copies: what is thrown is a value of its own.
    Failure of_card(uint8_t id) const {
        Failure copy(*this);
        copy.card = id;
        return copy;
    }
    Failure ends_with(Exit status) const {
        Failure copy(*this);
        copy.exit = status;
        return copy;
    }

    /// Members "code", "name", "layer", "card", "message" and "remedy".
    Json json() const;

    /// The message and, behind it, what to try.
    std::string text() const;

    Layer layer;
    std::string name;
    std::string message;
    std::string remedy;
    std::optional<uint32_t> code = {};  ///< Of the library or the driver.
    std::optional<uint8_t> card = {};
    Exit exit = kFailed;
};

/// Wrong usage: the message says what is wrong with which word.
Failure usage(std::string message, std::string remedy = "");

/// What a result of the library says; `operation` is what was tried.
Failure failure_of(kiv_result_t result, const std::string& operation, uint8_t card);

/// Throws the Failure of a result other than KIV_OK.
void check(kiv_result_t result, const std::string& operation, uint8_t card);

/// The Failure of a driver call, or nothing for the status 0.
void check_driver(int32_t status, const std::string& operation, uint8_t card);

}  // namespace kivctl

#endif
