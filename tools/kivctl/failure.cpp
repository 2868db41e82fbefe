#include "failure.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

namespace kivctl {

namespace {

struct Advice {
    kiv_result_t code;
    Layer layer;
    const char* remedy;
};

// clang-format off
constexpr Advice kAdvice[] = {
    {KIV_ERR_NOT_OPENED,    Layer::Card,     "this is a defect of the program"},
    {KIV_ERR_NO_DEVICE,     Layer::Argument, "\"kivctl scan\" lists the cards"},
    {KIV_ERR_BUSY,          Layer::Card,     "\"kivctl flash wait\" waits until the card's flash is idle"},
    {KIV_ERR_INVALID_PARAM, Layer::Argument, "flash slots are 0 and 1"},
    {KIV_ERR_NULL_ARGUMENT, Layer::Card,     "this is a defect of the program"},
    {KIV_ERR_REST,          Layer::Server,   "\"kivctl doctor\" looks at the card's management server; -v shows the log"},
    {KIV_ERR_FAILED,        Layer::Card,     "\"kivctl doctor\" looks at driver and card; -v shows the log"},
    {KIV_ERR_LOG_BUSY,      Layer::Card,     "try again"},
};
// clang-format on

}  // namespace

const char* name_of(Layer layer) {
    constexpr const char* kNames[] = {"argument", "configuration", "driver", "network",
                                      "server",   "card",          "program"};
    return kNames[static_cast<int>(layer)];
}

Json Failure::json() const {
    return {{"code", code ? Json(fmt::format("0x{:08X}", *code)) : Json()},
            {"name", name},
            {"layer", name_of(layer)},
            {"card", card ? Json(*card) : Json()},
            {"message", message},
            {"remedy", remedy.empty() ? Json() : Json(remedy)}};
}

std::string Failure::text() const {
    return remedy.empty() ? message : message + "\n        " + remedy;
}

Failure usage(std::string message, std::string remedy) {
    if (remedy.empty())
        remedy = "\"kivctl --help\" lists the commands, \"kivctl COMMAND --help\" their options";
    return Failure(Layer::Argument, "USAGE", std::move(message), std::move(remedy)).ends_with(kUsage);
}

Failure failure_of(kiv_result_t result, const std::string& operation, uint8_t card) {
    const auto known = std::find_if(std::begin(kAdvice), std::end(kAdvice),
                                    [&](const Advice& advice) { return advice.code == result; });
    const bool found = known != std::end(kAdvice);
    Failure failure(
        found ? known->layer : Layer::Driver, found ? kiv_result_name(result) : "DRIVER_STATUS",
        fmt::format("card {}: {} failed: {} (0x{:08X})", card, operation, kiv_result_text(result), result),
        found ? known->remedy : "see whether the driver is running; -v shows the log");
    failure.code = result;
    return failure.of_card(card);
}

void check(kiv_result_t result, const std::string& operation, uint8_t card) {
    if (result != KIV_OK) throw failure_of(result, operation, card);
}

void check_driver(int32_t status, const std::string& operation, uint8_t card) {
    if (status == 0) return;
    Failure failure(Layer::Driver, "DRIVER_STATUS",
                    fmt::format("card {}: {} failed: driver status 0x{:08X}", card, operation,
                                static_cast<uint32_t>(status)),
                    "see whether the driver is running; -v shows the log");
    failure.code = static_cast<uint32_t>(status);
    throw failure.of_card(card);
}

}  // namespace kivctl
