// The registers that the library looks at, as they are.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "functions.h"

namespace kivctl {

namespace {

struct Row {
    const char* name;
    kiv::registers::Register where;
};

// clang-format off
namespace registers = kiv::registers;
constexpr Row kRows[] = {
    {"identity 0",       registers::kIdentity0}, {"identity 1",       registers::kIdentity1},
    {"card word",        registers::kCardWord},  {"identity 3",       registers::kIdentity3},
    {"readable",         registers::kReadable},  {"status",           registers::kStatus},
    {"ANC mode",         registers::kAncMode},
    {"transmit control", registers::kTxControl}, {"transmit 0x404",   registers::kTxReg404},
    {"transmit 0x804",   registers::kTxReg804},
    {"receive control",  registers::kRxControl}, {"receive 0x404",    registers::kRxReg404},
    {"receive 0x804",    registers::kRxReg804},
    {"port 0 reference", registers::kReference0}, {"port 0 counter A", registers::kCounterA0},
    {"port 0 counter B", registers::kCounterB0},
    {"port 1 reference", registers::kReference1}, {"port 1 counter A", registers::kCounterA1},
    {"port 1 counter B", registers::kCounterB1},
};
// clang-format on

/// Null when the card has no such function, or the driver cannot read the register.
Json value_of(const kivDriverClientList& functions, const registers::Register& where) {
    const std::optional<uint64_t> value = read_register(functions, where);
    if (!value) return nullptr;
    return where.width == 64 ? hex64(*value) : fmt::format("0x{:08X}", *value);
}

}  // namespace

Exit registers(const Request& request, Output& output) {
    const kivDriverClientList functions = functions_of(request.card);
    const uint8_t id = functions.front()->device_conf.device_index;
    Json json = document("registers");
    json["card"] = id;
    json["registers"] = Json::array();
    for (const Row& row : kRows) {
        json["registers"].push_back({{"name", row.name},
                                     {"function", row.where.function},
                                     {"bar", row.where.bar},
                                     {"offset", fmt::format("0x{:05X}", row.where.offset)},
                                     {"value", value_of(functions, row.where)}});
    }
    const bool whole = std::none_of(json["registers"].begin(), json["registers"].end(),
                                    [](const Json& row) { return row["value"].is_null(); });
    if (request.json) {
        output.print_json(json);
    } else {
        output.print_table({{"name", "REGISTER"},
                            {"function", "FUNCTION"},
                            {"bar", "BAR"},
                            {"offset", "OFFSET"},
                            {"value", "VALUE"}},
                           json["registers"]);
    }
    if (!whole) Output::note(fmt::format("card {}: some registers cannot be read", id));
    return whole ? kDone : kFailed;
}

}  // namespace kivctl
