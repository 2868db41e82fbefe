#include "commands.h"

namespace kivctl {

namespace {

constexpr int kShort = 30;  ///< Seconds: a card's server has 7 for each request.
constexpr int kFlash = 600;
constexpr int kNone = 0;

// clang-format off
constexpr Command kCommands[] = {
    {nullptr,  "scan",    "List the cards of this machine",                             Takes::NoCard,    kShort, scan},
    {nullptr,  "info",    "Show one card: identity, ports, addresses",                  Takes::OnlyOrOne, kShort, info},
    {nullptr,  "status",  "Show temperatures, board power and PCI link",                Takes::OnlyOrOne, kShort, status},
    {nullptr,  "net",     "Show the media network configuration",                       Takes::OnlyOrOne, kShort, net},
    {nullptr,  "link",    "Show link and load of the media ports",                      Takes::OnlyOrOne, kShort, link},
    {nullptr,  "ptp",     "Show PTP settings and state, or change settings (ptp set)",  Takes::OnlyOrOne, kShort, ptp},
    {"ptp",    "set",     "Change network and PTP settings of one card",                Takes::NamedCard, kShort, ptp_set, ptp_set_options},
    {nullptr,  "streams", "Show the use of the transmit and receive streams",           Takes::OnlyOrOne, kShort, streams},
    {nullptr,  "time",    "Show PTP time and the system clock around it",               Takes::OnlyOrOne, kShort, time},
    {nullptr,  "driver",  "Show what the driver says: versions, functions, resource use, PCI link", Takes::OnlyOrOne, kShort, driver},
    {nullptr,  "registers", "Show the registers that the library looks at, as they are", Takes::OnlyOrOne, kShort, registers},
    {nullptr,  "flash",   "Show the flash, or change it (flash write, wait, select)",   Takes::OnlyOrOne, kShort, flash},
    {"flash",  "write",   "Write a firmware image; Ctrl-C ends the waiting, not the writing", Takes::NamedCard, kFlash, flash_write, flash_write_options},
    {"flash",  "wait",    "Wait until a write that goes on has ended",                  Takes::NamedCard, kFlash, flash_wait},
    {"flash",  "select",  "Choose the slot that the card boots next",                   Takes::NamedCard, kShort, flash_select, flash_select_options},
    {nullptr,  "watch",   "Print the state and then events of the cards, or a screen of all, until Ctrl-C", Takes::AllOrOne, kNone, watch, watch_options},
    {nullptr,  "serve",   "Serve the values of all cards to browsers and Prometheus, until Ctrl-C", Takes::NoCard, kNone, serve, serve_options},
    {nullptr,  "doctor",  "Check machine, driver and cards, and say what to do",         Takes::AllOrOne,  kDoctorLimit, doctor},
    {nullptr,  "support", "Collect what tells about machine and cards into one file",   Takes::NoCard,    kSupportLimit, support, support_options},
    {nullptr,  "config",  "Look at the card configuration of this machine",             Takes::NoCard,    kShort, nullptr},
    {"config", "check",   "Say what is wrong in the configuration, and on which line",  Takes::NoCard,    kShort, config_check},
    {"config", "init",    "Make a first configuration; never over one that exists",     Takes::NoCard,    kShort, config_init},
    {"config", "show",    "Show what the configuration says",                           Takes::NoCard,    kShort, config_show},
    {nullptr,  "explain", "Say what a result code or an exit status means",             Takes::NoCard,    kShort, explain, explain_options},
    {nullptr,  "completion", "Print the completion script of a shell",                 Takes::NoCard,    kShort, completion, completion_options},
    {nullptr,  "version", "Show the versions of tool, library, driver client and driver", Takes::NoCard,  kShort, version},
};
// clang-format on

}  // namespace

std::span<const Command> commands() {
    return kCommands;
}

Options common_options(Request& request) {
    Option json{"--json", "Print one JSON object (watch: one a line), failures too", "", nullptr,
                &request.json};
    Option verbose{"-v,--verbose", "Show the library's log on standard error", "", nullptr, &request.verbose};
    Option timeout = number_option("--timeout", "Longest time that the command may take", "SECONDS", 1,
                                   86'400, request.timeout);
    // For the help: it may stand without its FILE, so that it is taken off the line before the parser sees
    // it.
    Option simulation{
        "--sim", "Before the command: run it with two simulated cards, or those of a cards file or scenario",
        "[FILE]", [](const std::string&) { return ""; }};
    return {{json, verbose, timeout, simulation}};
}

Option number_option(std::string name, std::string help, std::string type, int64_t least, int64_t most,
                     std::optional<int64_t>& value) {
    const auto take = [least, most, &value](const std::string& text) -> std::string {
        value = number_of(text, least, most);
        if (value) return "";
        return quoted(text) + " is no decimal number from " + std::to_string(least) + " to " +
               std::to_string(most);
    };
    return {std::move(name), std::move(help), std::move(type), take};
}

Option text_option(std::string name, std::string help, std::string type, std::string& value) {
    const auto take = [&value](const std::string& text) -> std::string {
        value = text;
        return text.empty() ? "the text is empty: a shell variable that is not set?" : "";
    };
    return {std::move(name), std::move(help), std::move(type), take};
}

}  // namespace kivctl
