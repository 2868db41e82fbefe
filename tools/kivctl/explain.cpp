// What codes mean.
#include <fmt/format.h>
#include <kiv/kiv_types.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "commands.h"

namespace kivctl {

namespace {

struct Meaning {
    uint64_t code;
    const char* name;
    const char* text;
};

// clang-format off
#define KIV_ROW(code, text) {code, #code, text},
constexpr Meaning kResults[] = {KIV_RESULT_CODES(KIV_ROW)};
#undef KIV_ROW
constexpr Meaning kExits[] = {
    {kDone,        "DONE",        "done"},
    {kFailed,      "FAILED",      "the operation failed, or could be done in part only; the message says what was done"},
    {kUsage,       "USAGE",       "wrong usage: nothing was asked of any card"},
    {kAttention,   "ATTENTION",   "done, and what was found needs attention: a sensor at its limit, a warning of the doctor"},
    {kTimeIsUp,    "TIMEOUT",     "the time limit of the command came first"},
    {kInterrupted, "INTERRUPTED", "a signal ended the waiting; what the card was doing goes on"},
};
/// Statuses of driver calls, as the platform defines them.
constexpr Meaning kStatuses[] = {
    {0xE00002BC, "kIOReturnError",            "the driver failed and says no more"},
    {0xE00002BD, "kIOReturnNoMemory",         "memory ran out"},
    {0xE00002BE, "kIOReturnNoResources",      "the driver lacks a resource"},
    {0xE00002C0, "kIOReturnNoDevice",         "the card is not there any more"},
    {0xE00002C1, "kIOReturnNotPrivileged",    "this user or program may not do that"},
    {0xE00002C2, "kIOReturnBadArgument",      "the driver does not take the argument"},
    {0xE00002C5, "kIOReturnExclusiveAccess",  "another program has the driver for itself"},
    {0xE00002C7, "kIOReturnUnsupported",      "the driver does not know the call"},
    {0xE00002CA, "kIOReturnIOError",          "input or output failed"},
    {0xE00002CD, "kIOReturnNotOpen",          "the connection is not open"},
    {0xE00002D5, "kIOReturnBusy",             "the driver is busy"},
    {0xE00002D6, "kIOReturnTimeout",          "the driver waited too long"},
    {0xE00002D8, "kIOReturnNotReady",         "the card is not ready"},
    {0xE00002EB, "kIOReturnAborted",          "the call was aborted"},
    {0x10000003, "MACH_SEND_INVALID_DEST",    "the driver's process is gone"},
    {0xFFFFFFFF, "-1",                        "there is no connection to the driver"},
};
// clang-format on

Json to_json(const char* kind, uint64_t code, const char* name, const char* text) {
    // The three kinds do not overlap: an exit status has one digit.
    return {{"kind", kind},
            {"code", code < 10 ? std::to_string(code) : fmt::format("0x{:08X}", code)},
            {"name", name},
            {"text", text}};
}

template <std::size_t count>
void add(Json& meanings, const Request& request, const char* kind, const Meaning (&rows)[count]) {
    for (const Meaning& row : rows) {
        const bool named = request.word == row.name || "KIV_ERR_" + request.word == row.name;
        if (request.code ? row.code == *request.code : named)
            meanings.push_back(to_json(kind, row.code, row.name, row.text));
    }
}

}  // namespace

Options explain_options(Request& request) {
    const auto take = [&request](const std::string& text) {
        request.word = text;
        request.code = code_of(text);
        return text.empty() ? "the code is empty" : "";
    };
    return {{{"CODE", "A decimal number, a hexadecimal one behind 0x, or a name, with or without KIV_ERR_",
              " ", take}}};
}

Exit explain(const Request& request, Output& output) {
    Json meanings = Json::array();
    add(meanings, request, "exit status", kExits);
    add(meanings, request, "result", kResults);
    add(meanings, request, "driver status", kStatuses);
    if (meanings.empty())
        throw Failure(
            Layer::Argument, "UNKNOWN_CODE", quoted(request.word) + " is no code that this program knows",
            request.code ? "a code that begins with 0xE0000 is the driver's or the platform's" : "");
    if (request.json) {
        Json json = document("explain");
        json["meanings"] = meanings;
        output.print_json(json);
    } else {
        for (const Json& meaning : meanings)
            output.print(fmt::format("{} {}, {}: {}\n", text_of(meaning["kind"]), text_of(meaning["code"]),
                                     text_of(meaning["name"]), text_of(meaning["text"])));
    }
    return kDone;
}

}  // namespace kivctl
