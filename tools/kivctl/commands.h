/// The commands of kivctl: a row and a function each.
#ifndef KIVCTL_COMMANDS_H
#define KIVCTL_COMMANDS_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "output.h"

namespace CLI {
class App;
}

namespace kivctl {

/// What "ptp set" is to change; what is absent keeps its value.
struct PtpChange {
    std::array<std::optional<int>, 8> numbers;  ///< In the order of global_params, then of port_params.
    std::optional<std::string> unicast_delay_req;
    std::array<std::optional<std::string>, 2> address;  ///< "A.B.C.D/N", by port.
    std::array<std::optional<std::string>, 2> vlan;     ///< A number or "off", by port.
    bool save = false;
};

/// What the command line said.
struct Request {
    uint8_t id = 0;
    bool has_id = false;
    bool json = false;
    std::string file;
    bool no_wait = false;
    kiv_flash_slot_t slot = 0;
    PtpChange ptp;
};

enum class Takes { NoCard, AnyCard, OneCard };

struct Command {
    const char* group;  ///< The command that this one belongs to, which stands before it; or null.
    const char* name;
    const char* help;
    Takes card;
    void (*run)(const Request& request, Output& output);         ///< Throws Failure; null: only a group.
    void (*options)(CLI::App& app, Request& request) = nullptr;  ///< What it takes beside ID and --json.
};

std::span<const Command> commands();

void scan(const Request& request, Output& output);
void info(const Request& request, Output& output);
void status(const Request& request, Output& output);
void net(const Request& request, Output& output);
void link(const Request& request, Output& output);
void streams(const Request& request, Output& output);
void time(const Request& request, Output& output);
void driver(const Request& request, Output& output);

void ptp(const Request& request, Output& output);
void ptp_set(const Request& request, Output& output);
void ptp_set_options(CLI::App& app, Request& request);

void flash(const Request& request, Output& output);
void flash_write(const Request& request, Output& output);
void flash_write_options(CLI::App& app, Request& request);
void flash_select(const Request& request, Output& output);
void flash_select_options(CLI::App& app, Request& request);

void watch(const Request& request, Output& output);

void config_show(const Request& request, Output& output);
void config_save(const Request& request, Output& output);

}  // namespace kivctl

#endif
