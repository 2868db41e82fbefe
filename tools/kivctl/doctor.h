/// The checks of the doctor.
#ifndef KIVCTL_DOCTOR_H
#define KIVCTL_DOCTOR_H

#include <kiv/kivDriverClient.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"

namespace kivctl {

enum class Result { Skip, Ok, Warn, Fail };  ///< The worse, the greater.

struct Outcome {
    Result result;
    std::string message;
    std::string remedy = {};
};

/// A check. What it throws is a Result::Fail.
struct Step {
    const char* name;
    std::function<Outcome()> run;
};

/// What the checks of the machine leave for those of the cards.
struct Machine {
    std::optional<Json> configuration;  ///< When it can be loaded.
    bool has_driver = false;
    kivDriverClientList functions;  ///< Of all cards, in the driver's order.
};

/// Ids of the cards among the functions, each once, in ascending order.
std::vector<uint8_t> cards_of(const kivDriverClientList& functions);

/// Ids in the configuration that no function has, while the driver has others, in ascending order.
std::vector<uint8_t> missing_cards(const Machine& machine);

/// In their order. They fill `machine`, which lasts for ever; `only`: the card that is asked for.
std::vector<Step> machine_checks(Machine& machine, std::optional<uint8_t> only);

/// The checks of one card, in their order. Functions are those of this card.
std::vector<Step> card_checks(const Machine& machine, uint8_t id);

}  // namespace kivctl

#endif
