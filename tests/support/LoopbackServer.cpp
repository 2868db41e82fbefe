#include "support/LoopbackServer.h"

#include <arpa/inet.h>
#include <kivos/sockets.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace {

kivos::Descriptor bind_to_free_port(uint16_t& port) {
    kivos::Descriptor bound = kivos::stream_socket(AF_INET);
    const int fd = bound.get();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (fd < 0 || bind(fd, generic, size) != 0 || getsockname(fd, generic, &size) != 0)
        throw std::runtime_error("no loopback port");
    port = ntohs(address.sin_port);
    return bound;
}

kivos::Descriptor listen_on_free_port(uint16_t& port) {
    kivos::Descriptor listener = bind_to_free_port(port);
    if (listen(listener.get(), 64) != 0) throw std::runtime_error("nobody may listen");
    return listener;
}

void send_all(int socket, const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t now = send(socket, bytes.data() + sent, bytes.size() - sent, kivos::kNoSignal);
        if (now <= 0) return;
        sent += static_cast<std::size_t>(now);
    }
}

std::string read_request(int socket) {
    std::string request;
    bool continued = false;
    for (;;) {
        const std::size_t head = request.find("\r\n\r\n");
        if (head != std::string::npos) {
            const std::string length = header_of(request, "Content-Length");
            if (request.size() >= head + 4 + std::strtoul(length.c_str(), nullptr, 10)) return request;
            if (!continued && !header_of(request, "Expect").empty())
                send_all(socket, "HTTP/1.1 100 Continue\r\n\r\n");
            continued = true;
        }
        char buffer[65536];
        const ssize_t size = recv(socket, buffer, sizeof buffer, 0);
        if (size <= 0) return request;
        request.append(buffer, static_cast<std::size_t>(size));
    }
}

}  // namespace

LoopbackServer::LoopbackServer(std::vector<Reply> replies)
    : replies_(std::move(replies)), listener_(listen_on_free_port(port_)) {
    if (stop_.descriptor() < 0) throw std::runtime_error("no pipe");
    thread_ = std::thread([this] { serve(); });
}

LoopbackServer::~LoopbackServer() {
    stop_.wake();
    thread_.join();
}

std::string LoopbackServer::url() const {
    return "http://127.0.0.1:" + std::to_string(port_);
}

std::vector<std::string> LoopbackServer::requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

LoopbackServer::Reply LoopbackServer::http(int status, const std::string& body) {
    return {"HTTP/1.1 " + std::to_string(status) + " Status\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body,
            {}};
}

void LoopbackServer::serve() {
    for (;;) {
        pollfd entries[2] = {{listener_.get(), POLLIN, 0}, {stop_.descriptor(), POLLIN, 0}};
        poll(entries, 2, -1);
        if (entries[1].revents != 0) return;
        const kivos::Descriptor socket = kivos::accept_from(listener_.get());
        if (!socket) continue;
        std::string request = read_request(socket.get());
        std::size_t number = 0;
        {
            const std::lock_guard lock(mutex_);
            number = requests_.size();
            requests_.push_back(std::move(request));
        }
        answer(socket.get(), replies_[std::min(number, replies_.size() - 1)]);
        shutdown(socket.get(), SHUT_RDWR);
    }
}

/// Waits no longer than the test itself wants to end.
void LoopbackServer::answer(int socket, const Reply& reply) {
    if (reply.before) reply.before();
    pollfd stop{stop_.descriptor(), POLLIN, 0};
    if (reply.pause.count() > 0 && poll(&stop, 1, static_cast<int>(reply.pause.count())) > 0) return;
    send_all(socket, reply.bytes);
}

std::string body_of(const std::string& request) {
    const std::size_t head = request.find("\r\n\r\n");
    return head == std::string::npos ? "" : request.substr(head + 4);
}

std::string header_of(const std::string& request, const std::string& name) {
    const std::string head = request.substr(0, request.find("\r\n\r\n") + 2);
    const std::size_t at = head.find("\r\n" + name + ": ");
    if (at == std::string::npos) return "";
    const std::size_t start = at + name.size() + 4;
    return head.substr(start, head.find("\r\n", start) - start);
}

std::string request_line_of(const std::string& request) {
    return request.substr(0, request.find("\r\n"));
}

uint16_t closed_port() {
    static uint16_t port = 0;
    static const kivos::Descriptor bound = bind_to_free_port(port);
    return port;
}
