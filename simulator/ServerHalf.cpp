#include "ServerHalf.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "endpoints.h"

namespace kivsim {

namespace {

constexpr unsigned kWorkers = 8;
constexpr int kIdleMs = 5000;        ///< How long a connection may wait for the next bytes.
constexpr int kVisitRequests = 100;  ///< Requests on one connection.

/// A connection as the HTTP library reads and writes it. Waiting ends early when `stop` becomes readable.
class Connection final : public httplib::Stream {
  public:
    Connection(int socket, int stop) : socket_(socket), stop_(stop) {}

    bool is_readable() const override { return next_ < end_ || wait_for(POLLIN); }
    bool is_writable() const override { return wait_for(POLLOUT); }

    /// The library asks for single bytes while it reads header lines: those come from a buffer.
    ssize_t read(char* data, size_t size) override {
        if (next_ == end_) {
            if (!wait_for(POLLIN)) return -1;
            const ssize_t received = recv(socket_, buffer_.data(), buffer_.size(), 0);
            if (received <= 0) return received;
            next_ = 0;
            end_ = static_cast<size_t>(received);
        }
        const size_t count = std::min(size, end_ - next_);
        std::memcpy(data, buffer_.data() + next_, count);
        next_ += count;
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const char* data, size_t size) override {
        return is_writable() ? send(socket_, data, size, MSG_NOSIGNAL) : -1;
    }
    void get_remote_ip_and_port(std::string& ip, int& port) const override { loopback(ip, port); }
    void get_local_ip_and_port(std::string& ip, int& port) const override { loopback(ip, port); }
    socket_t socket() const override { return socket_; }

  private:
    bool wait_for(short event) const {
        pollfd entries[2] = {{socket_, event, 0}, {stop_, POLLIN, 0}};
        return poll(entries, 2, kIdleMs) > 0 && entries[1].revents == 0;
    }
    static void loopback(std::string& ip, int& port) {
        ip = "127.0.0.1";
        port = 0;
    }

    const int socket_;
    const int stop_;
    std::array<char, 16384> buffer_;  ///< Received; bytes from `next_` to `end_` are still to be read.
    size_t next_ = 0;
    size_t end_ = 0;
};

}  // namespace

/// One card's server: the HTTP library's protocol on connections that we accept.
class ServerHalf::CardServer final : public httplib::Server {
  public:
    explicit CardServer(std::shared_ptr<VirtualCard> card) : card_(std::move(card)) {
        const auto answer = [this](const httplib::Request& request, httplib::Response& response) {
            const Answer given = answer_request(*card_, request.method, request.path, request.body);
            response.status = given.status;
            response.set_content(given.body, "application/json");
        };
        Get(".*", answer);
        Post(".*", answer);
        Patch(".*", answer);
        Delete(".*", answer);
    }

    VirtualCard& card() { return *card_; }

    void serve(int socket, int stop) {
        Connection connection(socket, stop);
        for (int left = kVisitRequests; left > 0 && connection.is_readable(); --left) {
            bool closed = false;
            if (!process_request(connection, left == 1, closed, nullptr) || closed) return;
        }
    }

  private:
    std::shared_ptr<VirtualCard> card_;
};

ServerHalf::ServerHalf(const std::vector<std::shared_ptr<VirtualCard>>& cards)
    : epoll_(epoll_create1(EPOLL_CLOEXEC)), stop_(eventfd(0, EFD_CLOEXEC)) {
    if (!epoll_ || !stop_) throw std::runtime_error(std::string("epoll: ") + std::strerror(errno));
    for (const auto& card : cards) {
        if (card->settings().external_server) continue;
        servers_.push_back(std::make_unique<CardServer>(card));
        listen_for(*card, listeners_.emplace_back());
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = servers_.size() - 1;
        epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, listeners_.back().get(), &event);
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = servers_.size();
    epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, stop_.get(), &event);

    threads_.emplace_back([this] { accept_visits(); });
    for (unsigned i = 0; i < kWorkers; ++i)
        threads_.emplace_back([this] { work(); });
}

ServerHalf::~ServerHalf() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(stop_.get(), &one, sizeof one);
    condition_.notify_all();
    for (std::thread& thread : threads_)
        thread.join();
}

void ServerHalf::listen_for(VirtualCard& card, Descriptor& listener) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(card.settings().tunnel_address);
    address.sin_port = htons(card.settings().tunnel_port);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    const int on = 1;
    listener = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener || setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener.get(), generic, size) != 0 || listen(listener.get(), SOMAXCONN) != 0 ||
        getsockname(listener.get(), generic, &size) != 0) {
        throw std::runtime_error("card " + std::to_string(card.settings().id) + ", server " +
                                 card.server_address() + ": " + std::strerror(errno));
    }
    card.set_tunnel_port(ntohs(address.sin_port));
}

void ServerHalf::accept_visits() {
    for (;;) {
        epoll_event events[64];
        const int count = epoll_wait(epoll_.get(), events, std::size(events), -1);
        for (int i = 0; i < count; ++i) {
            const uint64_t number = events[i].data.u64;
            if (number == servers_.size()) return;
            Descriptor socket(accept4(listeners_[number].get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!socket) continue;
            const int on = 1;
            setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            const std::lock_guard lock(mutex_);
            visits_.push_back({servers_[number].get(), std::move(socket)});
            condition_.notify_one();
        }
    }
}

void ServerHalf::work() {
    for (;;) {
        Visit visit;
        {
            std::unique_lock lock(mutex_);
            condition_.wait(lock, [this] { return stopping_ || !visits_.empty(); });
            if (stopping_) return;
            visit = std::move(visits_.front());
            visits_.pop_front();
        }
        visit.server->serve(visit.socket.get(), stop_.get());
    }
}

}  // namespace kivsim
