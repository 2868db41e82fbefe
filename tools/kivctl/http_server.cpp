#include "http_server.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <httplib.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "failure.h"
#include "numbers.h"
#include "output.h"
#include "stamp.h"

namespace kivctl {

namespace {

constexpr std::chrono::seconds kToAsk{5};      ///< How long a request may take to come,
constexpr std::chrono::seconds kToAnswer{10};  ///< and the answer to go.
constexpr char kBusy[] =
    "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 1\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";

using Address = std::unique_ptr<addrinfo, void (*)(addrinfo*)>;

/// Nothing for a text that is no numeric address.
Address resolve(const Endpoint& where) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* found = nullptr;
    if (getaddrinfo(where.address.c_str(), std::to_string(where.port).c_str(), &hints, &found) != 0)
        found = nullptr;
    return {found, [](addrinfo* list) {
                if (list != nullptr) freeaddrinfo(list);
            }};
}

/// Whatever way the address is written.
bool is_loopback(std::string_view host) {
    if (host == "localhost") return true;
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    const Address address = resolve({std::string(host), 0});
    if (!address) return false;
    if (address->ai_family == AF_INET6)
        return IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6*>(address->ai_addr)->sin6_addr);
    return ntohl(reinterpret_cast<const sockaddr_in*>(address->ai_addr)->sin_addr.s_addr) >> 24 == 127;
}

/// The host of a Host header, without its port.
std::string_view host_of(std::string_view header) {
    const std::size_t colon = header.rfind(':');
    const std::size_t bracket = header.rfind(']');
    const bool has_port = colon != std::string_view::npos &&
                          (bracket == std::string_view::npos ? colon == header.find(':') : colon > bracket);
    return has_port ? header.substr(0, colon) : header;
}

/// A connection as the HTTP library reads and writes it: so many bytes, and until then.
class LimitedStream final : public httplib::Stream {
  public:
    explicit LimitedStream(int socket) : socket_(socket) {}

    // Without "override": which of these the library's class has depends on its version.
    // NOLINTBEGIN(modernize-use-override)
    bool is_readable() const { return next_ < end_ || wait_for(POLLIN, read_end_); }
    bool wait_readable() const { return is_readable(); }
    bool is_writable() const { return wait_for(POLLOUT, read_end_ + kToAnswer); }
    bool wait_writable() const { return is_writable(); }
    time_t duration() const { return 0; }

    /// The library asks for single bytes while it reads header lines: those come from a buffer.
    ssize_t read(char* data, size_t size) {
        if (next_ == end_) {
            if (left_ == 0 || !is_readable()) return -1;
            const ssize_t received = recv(socket_, buffer_.data(), std::min(buffer_.size(), left_), 0);
            if (received <= 0) return received;
            next_ = 0;
            end_ = static_cast<size_t>(received);
            left_ -= end_;
        }
        const size_t count = std::min(size, end_ - next_);
        std::memcpy(data, buffer_.data() + next_, count);
        next_ += count;
        return static_cast<ssize_t>(count);
    }

    /// The socket does not block: what it takes is less than all when the reader is slow.
    ssize_t write(const char* data, size_t size) { return is_writable() ? send(socket_, data, size, 0) : -1; }

    void get_remote_ip_and_port(std::string& ip, int& port) const { nobody(ip, port); }
    void get_local_ip_and_port(std::string& ip, int& port) const { nobody(ip, port); }
    socket_t socket() const { return socket_; }
    // NOLINTEND(modernize-use-override)

    /// Ends the connection so that the answer arrives although not all of the request was read.
    void finish() {
        shutdown(socket_, SHUT_WR);
        constexpr std::chrono::seconds kFarewell{1};
        const Clock::time_point end = Clock::now() + kFarewell;
        while (wait_for(POLLIN, end) && recv(socket_, buffer_.data(), buffer_.size(), 0) > 0) {
        }
    }

  private:
    bool wait_for(short event, Clock::time_point end) const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd entry{socket_, event, 0};
        return left > 0 && poll(&entry, 1, static_cast<int>(left)) > 0;
    }
    static void nobody(std::string& ip, int& port) {
        ip.clear();
        port = 0;
    }

    const int socket_;
    const Clock::time_point read_end_ = Clock::now() + kToAsk;
    std::array<char, 4096> buffer_;  ///< Received; bytes from `next_` to `end_` are still to be read.
    size_t next_ = 0;
    size_t end_ = 0;
    size_t left_ = HttpServer::kMostBytes;  ///< That may still be received.
};

Failure cannot_listen(const Endpoint& where, int error) {
    return {Layer::Network, "LISTEN",
            fmt::format("cannot listen at {}: {}", where.text(), std::generic_category().message(error)),
            error == EADDRINUSE ? "another program has the port: --listen takes another one" : ""};
}

int listening_socket(const Endpoint& where) {
    const Address address = resolve(where);
    if (!address) throw cannot_listen(where, EINVAL);
    const int socket = ::socket(address->ai_family, SOCK_STREAM, 0);
    if (socket < 0) throw cannot_listen(where, errno);
    fcntl(socket, F_SETFD, FD_CLOEXEC);
    fcntl(socket, F_SETFL, O_NONBLOCK);
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(socket, address->ai_addr, address->ai_addrlen) == 0 && listen(socket, SOMAXCONN) == 0)
        return socket;
    const int error = errno;
    close(socket);
    throw cannot_listen(where, error);
}

uint16_t port_of(int socket) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
    char port[NI_MAXSERV] = "";
    getnameinfo(reinterpret_cast<const sockaddr*>(&address), size, nullptr, 0, port, sizeof port,
                NI_NUMERICSERV);
    return static_cast<uint16_t>(number_of(port, 0, UINT16_MAX).value_or(0));
}

}  // namespace

std::string Endpoint::text() const {
    const bool is_ipv6 = address.find(':') != std::string::npos;
    return (is_ipv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

Endpoint endpoint_of(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    Endpoint where;
    if (colon != std::string::npos) {
        where.address = text.substr(0, colon);
        if (where.address.starts_with('[') && where.address.ends_with(']'))
            where.address = where.address.substr(1, where.address.size() - 2);
        const auto port = number_of(std::string_view(text).substr(colon + 1), 0, UINT16_MAX);
        where.port = static_cast<uint16_t>(port.value_or(0));
        if (port && resolve(where) && where.text() == text) return where;
    }
    throw std::invalid_argument(quoted(text) +
                                " is no numeric address and port, such as 127.0.0.1:9644 or [::1]:9644");
}

/// The HTTP library's part.
class HttpServer::Protocol final : public httplib::Server {
  public:
    Protocol(Pages pages, bool only_local) : pages_(std::move(pages)), only_local_(only_local) {
        set_payload_max_length(0);
        set_default_headers({{"Cache-Control", "no-store"},
                             {"Content-Security-Policy",
                              "default-src 'none'; connect-src 'self'; img-src 'self' data:; script-src "
                              "'unsafe-inline'; style-src 'unsafe-inline'; base-uri 'none'; form-action "
                              "'none'; frame-ancestors 'none'"},
                             {"Referrer-Policy", "no-referrer"},
                             {"X-Content-Type-Options", "nosniff"}});
        // Before a body is read.
        set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
            const HttpAnswer answer = answer_to(request);
            if (answer.status == 405) response.set_header("Allow", "GET, HEAD");
            response.status = answer.status;
            response.set_content(answer.body, answer.content_type);
            return HandlerResponse::Handled;
        });
    }

    void serve(int connection) {
        LimitedStream stream(connection);
        if (!stream.is_readable()) return;
        bool closed = false;
        // The library would put together an answer of each: thousands of times the page.
        const auto without_ranges = [](httplib::Request& request) { request.ranges.clear(); };
        // Newer versions also take who asks whom.
        [&](auto& any) {
            if constexpr (requires { this->process_request(any, true, closed, without_ranges); }) {
                process_request(any, true, closed, without_ranges);
            } else {
                process_request(any, "", 0, "", 0, true, closed, without_ranges);
            }
        }(stream);
        stream.finish();
    }

  private:
    HttpAnswer answer_to(const httplib::Request& request) const {
        const auto refuse = [](int status, const char* why) { return HttpAnswer{"text/plain", why, status}; };
        if (only_local_ && !is_loopback(host_of(request.get_header_value("Host"))))
            return refuse(421, "This server answers to localhost only.\n");
        if (request.method != "GET" && request.method != "HEAD")
            return refuse(405, "There is nothing to change here.\n");
        const auto page = pages_.find(request.path);
        if (page == pages_.end()) return refuse(404, "There is no such page.\n");
        return page->second([&](const char* name) { return request.get_param_value(name); });
    }

    const Pages pages_;
    const bool only_local_;
};

HttpServer::HttpServer(const Endpoint& where, Pages pages)
    : endpoint_(where),
      socket_(listening_socket(where)),
      protocol_(std::make_unique<Protocol>(std::move(pages), is_loopback(where.address))) {
    endpoint_.port = port_of(socket_);
}

HttpServer::~HttpServer() {
    close(socket_);
}

void HttpServer::run() {
    for (;;) {
        pollfd entry{socket_, POLLIN, 0};
        poll(&entry, 1, -1);
        const int connection = accept(socket_, nullptr, nullptr);
        if (connection < 0) {
            // The one who called has gone, or no descriptors are left: it passes.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            continue;
        }
        fcntl(connection, F_SETFD, FD_CLOEXEC);
        fcntl(connection, F_SETFL, O_NONBLOCK);
        if (connections_ >= kMostConnections) {
            [[maybe_unused]] const ssize_t sent = send(connection, kBusy, sizeof kBusy - 1, 0);
            close(connection);
            continue;
        }
        ++connections_;
        try {
            std::thread([this, connection] { serve(connection); }).detach();
        } catch (const std::system_error&) {  // No more threads.
            close(connection);
            --connections_;
        }
    }
}

void HttpServer::serve(int connection) noexcept {
    try {
        protocol_->serve(connection);
    } catch (const std::exception&) {
        // Out of memory: whoever asks has to ask again.
    }
    close(connection);
    --connections_;
}

}  // namespace kivctl
