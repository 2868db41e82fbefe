#include "commands.h"

namespace kivctl {

namespace {

// clang-format off
constexpr Command kCommands[] = {
    {nullptr,  "scan",    "List the cards of this machine",                             Takes::NoCard,  scan},
    {nullptr,  "info",    "Show one card: identity, ports, addresses",                  Takes::OneCard, info},
    {nullptr,  "status",  "Show temperatures, board power and PCI link",                Takes::OneCard, status},
    {nullptr,  "net",     "Show the media network configuration",                       Takes::OneCard, net},
    {nullptr,  "link",    "Show link and load of the media ports",                      Takes::OneCard, link},
    {nullptr,  "ptp",     "Show PTP settings and state, or change settings (ptp set)",  Takes::OneCard, ptp},
    {"ptp",    "set",     "Change network and PTP settings of one card",                Takes::OneCard, ptp_set, ptp_set_options},
    {nullptr,  "streams", "Show the use of the transmit and receive streams",           Takes::OneCard, streams},
    {nullptr,  "time",    "Show PTP time and the system clock around it",               Takes::OneCard, time},
    {nullptr,  "driver",  "Show what the driver says: versions, functions, resource use, PCI link", Takes::OneCard, driver},
    {nullptr,  "flash",   "Show the flash, or change it (flash write, flash select)",   Takes::OneCard, flash},
    {"flash",  "write",   "Write a firmware image; Ctrl-C ends the waiting, not the writing", Takes::OneCard, flash_write, flash_write_options},
    {"flash",  "select",  "Choose the slot that the card boots next",                   Takes::OneCard, flash_select, flash_select_options},
    {nullptr,  "watch",   "Print events as they come, of one card or of all, until Ctrl-C", Takes::AnyCard, watch},
    {nullptr,  "config",  "Show or save the card configuration of this machine",        Takes::NoCard,  nullptr},
    {"config", "show",    "Show the PTP settings that the configuration holds for each card", Takes::NoCard, config_show},
    {"config", "save",    "Write the configuration back to its file",                   Takes::NoCard,  config_save},
};
// clang-format on

}  // namespace

std::span<const Command> commands() {
    return kCommands;
}

}  // namespace kivctl
