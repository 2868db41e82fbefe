#include "server/ManagementServers.h"

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
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/ipText.h"
#include "common/json.h"
#include "server/control.h"

namespace kivsim {

namespace {

constexpr unsigned kWorkers = 8;
constexpr int kIdleMs = 2000;       ///< How long a connection may wait for the next bytes.
constexpr int kMostRequests = 100;  ///< Requests on one connection.

/// A connection as the HTTP library reads and writes it. Waiting ends early when `stop` becomes readable.
class ConnectionStream final : public httplib::Stream {
  public:
    ConnectionStream(int socket, int stop) : socket_(socket), stop_(stop) {}

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
        if (!is_writable()) return -1;
        const size_t allowed = up_to_cut(data, size);
        const ssize_t sent = allowed == 0 ? 0 : send(socket_, data, allowed, MSG_NOSIGNAL);
        if (allowed == size || sent < static_cast<ssize_t>(allowed)) return sent;
        shutdown(socket_, SHUT_RDWR);
        return -1;
    }

    /// Ends the connection before the answer, or in the midst of its body of that size.
    void cut_answer(Cut cut, size_t body_size) {
        if (cut == Cut::BeforeAnswer) left_ = 0;
        if (cut == Cut::InsideBody) left_of_body_ = body_size / 2;
    }

    /// Waits, unless the server ends.
    void pause(uint32_t milliseconds) const {
        pollfd stop{stop_, POLLIN, 0};
        poll(&stop, 1, static_cast<int>(milliseconds));
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override { loopback(ip, port); }
    void get_local_ip_and_port(std::string& ip, int& port) const override { loopback(ip, port); }
    socket_t socket() const override { return socket_; }

  private:
    /// How many of the bytes go out before the cut.
    size_t up_to_cut(const char* data, size_t size) {
        if (left_of_body_) {
            const std::string_view text(data, size);
            const size_t head = text.find("\r\n\r\n");
            if (!left_ && head != std::string_view::npos) left_ = head + 4 + *left_of_body_;
        }
        if (!left_) return size;
        const size_t allowed = std::min(size, *left_);
        *left_ -= allowed;
        return allowed;
    }

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
    std::optional<size_t> left_;          ///< Bytes that still go out.
    std::optional<size_t> left_of_body_;  ///< Likewise, from the end of the header on.
};

/// The stream of the connection that this thread serves, for the handlers, which the library does not tell.
thread_local ConnectionStream* t_stream = nullptr;

class Serving {
  public:
    explicit Serving(ConnectionStream& stream) { t_stream = &stream; }
    ~Serving() { t_stream = nullptr; }
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;
};

}  // namespace

/// One address: the HTTP library's protocol on connections that we accept.
class ManagementServers::Server final : public httplib::Server {
  public:
    explicit Server(Answering handler) : handler_(std::move(handler)) {
        const auto answer = [this](const httplib::Request& request, httplib::Response& response) {
            HttpRequest plain{request.method, request.path, request.body, {}};
            if (request.has_file("file")) plain.file = request.get_file_value("file").content;
            const Answer given = handler_(plain);
            if (given.delay_ms != 0) t_stream->pause(given.delay_ms);
            t_stream->cut_answer(given.cut, given.body.size());
            response.status = given.status;
            response.set_content(given.body, given.content_type);
        };
        Get(".*", answer);
        Post(".*", answer);
        Patch(".*", answer);
        Delete(".*", answer);
    }

    void serve(int socket, int stop) {
        ConnectionStream stream(socket, stop);
        const Serving serving(stream);
        for (int left = kMostRequests; left > 0 && stream.is_readable(); --left) {
            bool closed = false;
            if (!process_request(stream, left == 1, closed, nullptr) || closed) return;
        }
    }

  private:
    const Answering handler_;
};

ManagementServers::ManagementServers(const std::vector<std::shared_ptr<VirtualCard>>& cards,
                                     const std::string& request_log)
    : epoll_(checked(epoll_create1(EPOLL_CLOEXEC), "epoll")),
      stop_(checked(eventfd(0, EFD_CLOEXEC), "epoll")) {
    if (!request_log.empty()) log_.open(request_log);
    if (!log_) throw std::runtime_error(request_log + ": cannot be written");
    for (const auto& card : cards) {
        const CardSettings& settings = card->settings();
        if (settings.external_server) continue;
        card->set_tunnel_port(
            add_server([this, card](const HttpRequest& request) { return answer_card(*card, request); },
                       settings.tunnel_address, settings.tunnel_port, "card " + std::to_string(settings.id)));
    }
    control_port_ = add_server([cards](const HttpRequest& request) { return answer_control(cards, request); },
                               INADDR_LOOPBACK, 0, "control");
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = servers_.size();
    epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, stop_.get(), &event);

    threads_.emplace_back([this] { accept_connections(); });
    for (unsigned i = 0; i < kWorkers; ++i)
        threads_.emplace_back([this] { serve_connections(); });
}

ManagementServers::~ManagementServers() {
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
    Descriptor listener =
        kivplatform::above_standard(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener || setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener.get(), generic, size) != 0 || listen(listener.get(), SOMAXCONN) != 0 ||
        getsockname(listener.get(), generic, &size) != 0) {
        throw std::runtime_error(name + ", server " + uint32ToIp(host) + ":" + std::to_string(port) + ": " +
                                 std::generic_category().message(errno));
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = servers_.size();
    epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, listener.get(), &event);
    listeners_.push_back(std::move(listener));
    servers_.push_back(std::make_unique<Server>(std::move(handler)));
    return ntohs(address.sin_port);
}

/// Logged before it is sent: who has the answer finds the line.
Answer ManagementServers::answer_card(VirtualCard& card, const HttpRequest& request) {
    if (!card.is_present()) return {503, "", "", 0, Cut::BeforeAnswer};
    Answer answer = answer_request(card, request);
    const std::lock_guard lock(log_mutex_);
    if (!log_.is_open()) return answer;
    log_ << R"({"card":)" << unsigned{card.settings().id} << R"(,"method":)" << quoted(request.method)
         << R"(,"path":)" << quoted(request.path) << R"(,"body":)" << quoted(request.body) << R"(,"status":)"
         << answer.status << R"(,"answer":)" << quoted(answer.body) << "}" << std::endl;
    return answer;
}

void ManagementServers::accept_connections() {
    for (;;) {
        epoll_event events[64];
        const int count = epoll_wait(epoll_.get(), events, std::size(events), -1);
        for (int i = 0; i < count; ++i) {
            const uint64_t number = events[i].data.u64;
            if (number == servers_.size()) return;
            Descriptor socket = accept_or_refuse(listeners_[number].get(), 0, spare_);
            if (!socket) continue;
            const int on = 1;
            setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            const std::lock_guard lock(mutex_);
            waiting_.push_back({servers_[number].get(), std::move(socket)});
            condition_.notify_one();
        }
    }
}

void ManagementServers::serve_connections() {
    for (;;) {
        Connection connection;
        {
            std::unique_lock lock(mutex_);
            condition_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
            if (stopping_) return;
            connection = std::move(waiting_.front());
            waiting_.pop_front();
        }
        connection.server->serve(connection.socket.get(), stop_.get());
    }
}

}  // namespace kivsim
