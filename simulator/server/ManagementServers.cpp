#include "server/ManagementServers.h"

#include <arpa/inet.h>
#include <kivos/sockets.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/ipText.h"
#include "common/json.h"

namespace kivsim {

ManagementServers::ManagementServers(const std::vector<std::shared_ptr<VirtualCard>>& cards,
                                     Answering control, uint16_t control_port,
                                     const std::string& request_log) {
    if (stop_.descriptor() < 0) throw std::runtime_error("pipe: " + std::generic_category().message(errno));
    if (!request_log.empty()) log_.open(request_log);
    if (!log_) throw std::runtime_error(request_log + ": cannot be written");
    for (const auto& card : cards) {
        const CardSettings& settings = card->settings;  // Nobody else has the card yet.
        if (settings.external_server) continue;
        card->serve_at(
            add_server([this, card](const HttpRequest& request) { return answer_card(*card, request); },
                       settings.tunnel_address, settings.tunnel_port, "card " + std::to_string(card->id)));
    }
    control_port_ = add_server(std::move(control), INADDR_LOOPBACK, control_port, "control");
    waiting_.watch(servers_.size(), stop_.descriptor(), POLLIN);
    thread_ = std::thread([this] { accept_connections(); });
}

ManagementServers::~ManagementServers() {
    stop_.wake();
    thread_.join();
}

/// Returns the port that the new server listens on.
uint16_t ManagementServers::add_server(Answering handler, uint32_t host, uint16_t port,
                                       const std::string& name) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(host);
    address.sin_port = htons(port);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    const int on = 1;
    Descriptor listener = kivos::stream_socket(AF_INET);
    if (!listener || !kivos::do_not_wait(listener.get()) ||
        setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener.get(), generic, size) != 0 || listen(listener.get(), SOMAXCONN) != 0 ||
        getsockname(listener.get(), generic, &size) != 0) {
        throw std::runtime_error(name + ", server " + uint32ToIp(host) + ":" + std::to_string(port) + ": " +
                                 std::generic_category().message(errno));
    }
    waiting_.watch(servers_.size(), listener.get(), POLLIN);
    listeners_.push_back(std::move(listener));
    servers_.push_back(std::make_unique<HttpServer>(std::move(handler), stop_.descriptor()));
    return ntohs(address.sin_port);
}

/// Logged before it is sent: who has the answer finds the line.
Answer ManagementServers::answer_card(VirtualCard& card, const HttpRequest& request) {
    if (!card.is_present()) return {503, "", "", 0, Cut::BeforeAnswer};
    Answer answer = answer_request(card, request);
    const std::lock_guard lock(log_mutex_);
    if (!log_.is_open()) return answer;
    log_ << R"({"card":)" << unsigned{card.id} << R"(,"method":)" << quoted(request.method) << R"(,"path":)"
         << quoted(request.path) << R"(,"body":)" << quoted(request.body) << R"(,"status":)" << answer.status
         << R"(,"carried_out":)" << (answer.carried_out ? "true" : "false") << R"(,"answer":)"
         << quoted(answer.body) << "}" << std::endl;
    return answer;
}

void ManagementServers::accept_connections() {
    for (;;) {
        for (const uint64_t number : waiting_.wait(-1)) {
            if (number == servers_.size()) return;
            Descriptor socket = accept_or_refuse(listeners_[number].get(), spare_);
            if (!socket) continue;
            const int on = 1;
            setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            servers_[number]->take(std::move(socket));
        }
    }
}

}  // namespace kivsim
