#include "server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <kiv/HpsHttpHelper.h>
#include <kiv/kivClient.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "numbers.h"

namespace kivctl {

namespace {

constexpr int kLimit = 2;  ///< Seconds for each of connection and answer.
constexpr const char* kRemedy =
    "see whether the card's processor has started; \"kivctl driver\" shows the tunnel address";

/// Why no connection can be made; 0 when one can.
int connection_error(uint32_t host, uint32_t port) {
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    if (socket < 0) return errno;
    fcntl(socket, F_SETFD, FD_CLOEXEC);
    fcntl(socket, F_SETFL, O_NONBLOCK);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(host);
    address.sin_port = htons(static_cast<uint16_t>(port));
    int error = connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
        pollfd entry{socket, POLLOUT, 0};
        socklen_t size = sizeof error;
        if (poll(&entry, 1, kLimit * 1000) > 0) {
            getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size);
        } else {
            error = ETIMEDOUT;
        }
    }
    close(socket);
    return error;
}

/// An answer, and whether it, or the end of waiting for it, came before the limit.
struct Timed {
    HttpResult result;
    bool in_time;
};

Timed ask_server(const std::string& url, const std::string& path, int seconds = kLimit) {
    HttpClient client(url);
    client.set_timeout(seconds);
    client.set_retry(1, 0);
    const auto start = std::chrono::steady_clock::now();
    HttpResult result = client.get(path);
    // The end of waiting may come a little before its time.
    constexpr std::chrono::milliseconds kEarly{50};
    return {std::move(result),
            std::chrono::steady_clock::now() - start < std::chrono::seconds(seconds) - kEarly};
}

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

/// The variable of the environment that sends requests to a card through a proxy; null when there is none.
const char* proxy_variable(const std::string& url) {
    constexpr size_t kHost = 7;  // Behind "http://".
    const std::string host = url.substr(kHost, url.find(':', kHost) - kHost);
    for (const char* name : {"no_proxy", "NO_PROXY"})
        if (variable(name) == "*" || variable(name).find(host) != std::string::npos) return nullptr;
    for (const char* name : {"http_proxy", "all_proxy", "ALL_PROXY"})
        if (!variable(name).empty()) return name;
    return nullptr;
}

/// What went wrong though a connection can be made. That goes straight to the card; libcurl sends the
/// requests to the environment's proxy.
Failure server_failure(const char* name, const std::string& url, const std::string& what) {
    if (const char* proxy = proxy_variable(url))
        return {Layer::Server, name, fmt::format("{}: {} (through the proxy in {})", url, what, proxy),
                "set no_proxy to the card's address"};
    return {Layer::Server, name, url + ": " + what, kRemedy};
}

Failure bad_answer(const std::string& url, const std::string& what) {
    return server_failure("SERVER_ANSWER", url, what);
}

std::optional<Failure> problem_of(const Timed& answer, const std::string& url) {
    if (answer.result.success) return std::nullopt;
    if (answer.result.status != 0)
        return bad_answer(url, fmt::format("answered with HTTP status {}", answer.result.status));
    if (answer.in_time) return bad_answer(url, "hung up before the end of its answer");
    return server_failure("SERVER_TIMEOUT", url,
                          fmt::format("took the connection, but gave no whole answer within {} s", kLimit));
}

}  // namespace

std::optional<int32_t> whole_number(const Json& value) {
    if (!value.is_number_integer()) return std::nullopt;
    constexpr auto kMost = static_cast<uint64_t>(std::numeric_limits<int32_t>::max());
    if (value.is_number_unsigned() && value.get<uint64_t>() > kMost) return std::nullopt;
    const auto number = value.get<int64_t>();
    if (number < std::numeric_limits<int32_t>::min()) return std::nullopt;
    return static_cast<int32_t>(number);
}

std::string Server::address() const {
    return fmt::format("{}:{}", dotted(address_), port_);
}

std::string Server::url() const {
    return "http://" + address() + "/api/v1.0";
}

std::optional<Failure> Server::connection_problem() const {
    const int error = connection_error(address_, port_);
    if (error == 0) return std::nullopt;
    const bool slow = error == ETIMEDOUT;
    return Failure(Layer::Network, slow ? "SERVER_TIMEOUT" : "SERVER_REFUSED",
                   fmt::format("{}: {}", url(),
                               slow ? "no connection within 2 s" : std::generic_category().message(error)),
                   kRemedy);
}

std::optional<Failure> Server::problem() const {
    if (std::optional<Failure> unreachable = connection_problem()) return unreachable;
    try {
        const Json networks = get("/hps/info/networks");
        const auto is_interface = [](const Json& entry) {
            constexpr const char* kTexts[] = {"if_name", "ip_addr", "netmask", "hw_addr"};
            return entry.is_object() &&
                   std::all_of(std::begin(kTexts), std::end(kTexts), [&](const char* key) {
                       return entry.contains(key) && entry[key].is_string();
                   });
        };
        if (!networks.is_object() || !networks.contains("interfaces") || !networks["interfaces"].is_array() ||
            !std::all_of(networks["interfaces"].begin(), networks["interfaces"].end(), is_interface))
            return bad_answer(url() + "/hps/info/networks",
                              "the answer lists no interfaces as they should be");
    } catch (const Failure& failure) {
        return failure;
    }
    return std::nullopt;
}

Json Server::get(const std::string& path) const {
    const Timed answer = ask_server(url(), path);
    if (const std::optional<Failure> problem = problem_of(answer, url() + path)) throw Failure(*problem);
    Json payload;
    if (!HpsHttpHelper::handle_json(answer.result, payload))
        throw bad_answer(url() + path, "the answer is no JSON");
    return payload;
}

int32_t Server::get_number(const std::string& path, const std::string& key) const {
    const Json payload = get(path);
    const std::optional<int32_t> number =
        payload.is_object() && payload.contains(key) ? whole_number(payload[key]) : std::nullopt;
    if (!number) throw bad_answer(url() + path, "has no whole number \"" + key + "\"");
    return *number;
}

Answer Server::ask(const std::string& path, int seconds) const {
    HttpResult result = ask_server(url(), path, seconds).result;
    return {result.status, std::move(result.body)};
}

}  // namespace kivctl
