/// The commands of kivctl: a row and a function each.
#ifndef KIVCTL_COMMANDS_H
#define KIVCTL_COMMANDS_H

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "output.h"

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

/// What a command takes beside ID and --json.
struct Option {
    using Value = std::variant<bool*, int*, std::string*, std::optional<int>*, std::optional<std::string>*>;

    std::string name;  ///< One without dashes stands for itself on the command line, and is required.
    std::string help;
    Value value;            ///< Where it goes; bool: a flag.
    std::string type = "";  ///< As the help shows it.

    /// Why a text is refused, or an empty text.
    std::function<std::string(const std::string& text)> check = nullptr;
    std::optional<std::array<int, 2>> range = {};  ///< Least and greatest number.
};

struct Options {
    std::vector<Option> options;
    const char* footer = "";  ///< Below them in the help.
};

enum class Takes { NoCard, AnyCard, OneCard };

struct Command {
    const char* group;  ///< The command that this one belongs to, which stands before it; or null.
    const char* name;
    const char* help;
    Takes card;
    void (*run)(const Request& request, Output& output);  ///< Throws Failure; null: only a group.
    Options (*options)(Request& request) = nullptr;
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
Options ptp_set_options(Request& request);

void flash(const Request& request, Output& output);
void flash_write(const Request& request, Output& output);
Options flash_write_options(Request& request);
void flash_select(const Request& request, Output& output);
Options flash_select_options(Request& request);

void watch(const Request& request, Output& output);

void config_show(const Request& request, Output& output);
void config_save(const Request& request, Output& output);

}  // namespace kivctl

#endif
