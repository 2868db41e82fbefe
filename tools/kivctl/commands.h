/// The commands of kivctl: a row and a function each.
#ifndef KIVCTL_COMMANDS_H
#define KIVCTL_COMMANDS_H

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "numbers.h"
#include "output.h"

namespace kivctl {

/// What "ptp set" is to change; what is absent keeps its value.
struct PtpChange {
    std::array<std::optional<int64_t>, 8> numbers;  ///< In the order of global_params, then of port_params.
    std::optional<bool> unicast_delay_req;
    std::array<std::optional<Network>, 2> address;  ///< By port.
    std::array<std::optional<int64_t>, 2> vlan;     ///< 0: off.
    bool save = false;
    bool dry_run = false;
    bool force = false;
};

/// What the command line said.
struct Request {
    std::optional<uint8_t> card;
    bool json = false;
    bool verbose = false;
    std::optional<int64_t> timeout;         ///< Seconds.
    std::optional<std::string> simulation;  ///< The cards file, which may be empty.
    std::string file;
    bool no_wait = false;
    bool show_status = false;
    bool select_written = false;
    std::optional<int64_t> select;  ///< Slot.
    std::optional<uint64_t> code;
    std::string word;
    std::string listen = "127.0.0.1:9644";
    PtpChange ptp;
};

/// What a command takes beside ID.
struct Option {
    std::string name;  ///< One without dashes stands for itself on the command line, and is required.
    std::string help;
    std::string type;  ///< As the help shows it, empty for a flag: "N|off", lower case for words as they are.

    /// Takes the text, or says why not.
    std::function<std::string(const std::string& text)> take = nullptr;
    bool* flag = nullptr;
};

struct Options {
    std::vector<Option> options;
    const char* footer = "";  ///< Below them in the help.
};

/// An option that takes a decimal number into `value`.
Option number_option(std::string name, std::string help, std::string type, int64_t least, int64_t most,
                     std::optional<int64_t>& value);

/// An option that takes a text that is not empty.
Option text_option(std::string name, std::string help, std::string type, std::string& value);

enum class Takes {
    NoCard,
    AllOrOne,   ///< No id means all cards.
    OnlyOrOne,  ///< The id may be left out where there is one card.
    NamedCard   ///< What changes a card is told which.
};

struct Command {
    const char* group;  ///< The command that this one belongs to, which stands before it; or null.
    const char* name;
    const char* help;
    Takes card;
    int timeout;                                          ///< Seconds; 0: none.
    Exit (*run)(const Request& request, Output& output);  ///< Throws Failure; null: only a group.
    Options (*options)(Request& request) = nullptr;
};

std::span<const Command> commands();

/// Options of every command.
Options common_options(Request& request);

Exit scan(const Request& request, Output& output);
Exit info(const Request& request, Output& output);
Exit status(const Request& request, Output& output);
Exit net(const Request& request, Output& output);
Exit link(const Request& request, Output& output);
Exit streams(const Request& request, Output& output);
Exit time(const Request& request, Output& output);
Exit driver(const Request& request, Output& output);
Exit registers(const Request& request, Output& output);

Exit ptp(const Request& request, Output& output);
Exit ptp_set(const Request& request, Output& output);
Options ptp_set_options(Request& request);

Exit flash(const Request& request, Output& output);
Exit flash_write(const Request& request, Output& output);
Options flash_write_options(Request& request);
Exit flash_wait(const Request& request, Output& output);
Exit flash_select(const Request& request, Output& output);
Options flash_select_options(Request& request);

constexpr int kDoctorLimit = 30;  ///< Seconds: a third for the machine, a third for the cards.
Exit doctor(const Request& request, Output& output);

constexpr int kSupportLimit = 300;  ///< Seconds: a thirtieth for each command that it runs.
Exit support(const Request& request, Output& output);
Options support_options(Request& request);

Exit watch(const Request& request, Output& output);
Options watch_options(Request& request);

Exit serve(const Request& request, Output& output);
Options serve_options(Request& request);

Exit config_check(const Request& request, Output& output);
Exit config_init(const Request& request, Output& output);
Exit config_show(const Request& request, Output& output);

Exit explain(const Request& request, Output& output);
Options explain_options(Request& request);
Exit completion(const Request& request, Output& output);
Options completion_options(Request& request);
Exit version(const Request& request, Output& output);

}  // namespace kivctl

#endif
