#include "Simulator.h"

#include <kivplatform/driver_process.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "card/VirtualCard.h"
#include "driver/DriverProcess.h"
#include "server/ManagementServers.h"
#include "settings/control.h"

namespace kivsim {

namespace {

/// Many cards and programs need many descriptors.
void raise_descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) == 0) return;
    // Some systems refuse what their own maximum allows.
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 10240);
    setrlimit(RLIMIT_NOFILE, &limit);
}

/// The socket that programs of this user look at; makes its directory unless the environment names the
/// socket.
std::string usual_socket() {
    char path[KIVPLATFORM_SOCKET_PATH_SIZE];
    const char* const chosen = getenv("KIVSIM_SOCKET");
    const bool named = chosen != nullptr && *chosen != '\0';
    bool usable = kivplatform_driver_socket(path);
    if (usable && !named) {
        mkdir(std::filesystem::path(path).parent_path().c_str(), 0700);
        usable = kivplatform_driver_socket(path);  // Somebody else may have made it in between.
    }
    if (!usable && named) throw std::runtime_error("the path in KIVSIM_SOCKET is too long");
    if (!usable)
        throw std::runtime_error("/tmp/kivsim-" + std::to_string(getuid()) +
                                 " is not this user's own directory with mode 0700: remove it");
    return path;
}

}  // namespace

Simulator::Simulator(const std::vector<CardSettings>& cards, const std::string& socket_path,
                     const std::string& trace_path, const std::string& request_log, uint16_t control_port)
    : socket_path_(socket_path.empty() ? usual_socket() : socket_path) {
    raise_descriptor_limit();
    for (const CardSettings& card : cards)
        cards_.push_back(std::make_shared<VirtualCard>(card));
    servers_ = std::make_unique<ManagementServers>(
        cards_, [this](const HttpRequest& request) { return answer_control(cards_, request); }, control_port,
        request_log);
    driver_ = std::make_unique<DriverProcess>(cards_, socket_path_, trace_path);
}

Simulator::~Simulator() = default;

std::string Simulator::control_address() const {
    return "127.0.0.1:" + std::to_string(servers_->control_port());
}

std::vector<std::string> Simulator::server_addresses() const {
    std::vector<std::string> addresses;
    for (const auto& card : cards_)
        addresses.push_back(card->server_address());
    return addresses;
}

}  // namespace kivsim
