#include "DriverHalf.h"

#include <IOKit/IOReturn.h>
#include <kivplatform/driver_protocol.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>
#include <utility>

#include "selectors.h"

namespace kivsim {

namespace {

// Numbers of the epoll entries that are no clients.
constexpr uint64_t kListener = 0;
constexpr uint64_t kStop = ~uint64_t{0};

/// Upper half random, so that a service listed by another driver process is not taken for one of ours.
uint64_t fresh_entries() {
    return uint64_t{std::random_device{}()} << 32 | 1;
}

Descriptor checked(int fd, const std::string& what) {
    if (fd < 0) throw std::runtime_error(what + ": " + std::strerror(errno));
    return Descriptor(fd);
}

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error(path + ": longer than a socket's path can be");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

/// Makes way for a socket at `path`: removes one whose process is gone. Throws when anything else is there.
void make_way(const std::string& path, const sockaddr_un& address) {
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) return;
    if (!S_ISSOCK(found.st_mode)) throw std::runtime_error(path + ": exists and is not a socket");
    const Descriptor probe = checked(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), "socket");
    if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        throw std::runtime_error(path + ": another simulator serves this socket");
    }
    if (errno != ECONNREFUSED) throw std::runtime_error(path + ": somebody else serves this socket");
    unlink(path.c_str());
}

std::vector<std::byte> reply_message(int32_t status, const void* payload, std::size_t size) {
    kivplatform_reply header{};
    header.status = status;
    std::vector<std::byte> message(sizeof header + size);
    std::memcpy(message.data(), &header, sizeof header);
    if (size != 0) std::memcpy(message.data() + sizeof header, payload, size);
    return message;
}

}  // namespace

DriverHalf::DriverHalf(std::vector<std::shared_ptr<VirtualCard>> cards, std::string socket_path,
                       const std::string& trace_path)
    : first_entry_(fresh_entries()), socket_path_(std::move(socket_path)) {
    for (const auto& card : cards) {
        for (const FunctionSettings& function : card->settings().functions) {
            services_.push_back({card, function,
                                 "card " + std::to_string(card->settings().id) + " function " +
                                     std::to_string(function.number)});
        }
    }
    listen_on(socket_path_);
    try {
        trace_ = std::make_unique<Trace>(
            trace_path);  // Now that the socket is ours: no other simulator writes there.
    } catch (...) {
        unlink(socket_path_.c_str());
        throw;
    }
    thread_ = std::thread([this] { serve(); });
}

DriverHalf::~DriverHalf() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(stop_.get(), &one, sizeof one);
    thread_.join();
    unlink(socket_path_.c_str());
}

void DriverHalf::listen_on(const std::string& path) {
    const sockaddr_un address = address_of(path);
    make_way(path, address);
    listener_ = checked(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
    if (bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), 0600) != 0 || listen(listener_.get(), SOMAXCONN) != 0) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    epoll_ = checked(epoll_create1(EPOLL_CLOEXEC), "epoll");
    stop_ = checked(eventfd(0, EFD_CLOEXEC), "eventfd");
    for (const auto& [fd, number] : {std::pair{listener_.get(), kListener}, {stop_.get(), kStop}}) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = number;
        epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event);
    }
}

void DriverHalf::serve() {
    for (;;) {
        epoll_event events[64];
        const int count = epoll_wait(epoll_.get(), events, std::size(events), next_wait());
        send_late_replies();
        for (int i = 0; i < count; ++i) {
            const uint64_t number = events[i].data.u64;
            if (number == kStop) return;
            if (number == kListener) {
                accept_client();
            } else {
                serve_client(number);
            }
        }
    }
}

void DriverHalf::accept_client() {
    Client client;
    client.socket = Descriptor(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!client.socket) return;
    client.number = next_client_++;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = client.number;
    epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, client.socket.get(), &event);
    clients_.emplace(client.number, std::move(client));
}

void DriverHalf::serve_client(uint64_t number) {
    const auto found = clients_.find(number);
    if (found == clients_.end()) return;
    std::vector<std::byte> message(sizeof(kivplatform_request) + KIVPLATFORM_MESSAGE_SIZE);
    const ssize_t size = recv(found->second.socket.get(), message.data(), message.size(), 0);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (size < static_cast<ssize_t>(sizeof(kivplatform_request))) {
        hang_up(number);
        return;
    }
    message.resize(static_cast<std::size_t>(size));
    Clock::duration delay{};
    std::vector<std::byte> reply = answer(found->second, message, delay);
    if (delay > Clock::duration::zero()) {
        late_.emplace(Clock::now() + delay, LateReply{number, std::move(reply)});
    } else {
        send_reply(number, reply);
    }
}

std::vector<std::byte> DriverHalf::answer(Client& client, const std::vector<std::byte>& message,
                                          Clock::duration& delay) {
    kivplatform_request request{};
    std::memcpy(&request, message.data(), sizeof request);
    const auto payload = std::span(message).subspan(sizeof request);

    if (request.kind == KIVPLATFORM_LIST) {
        const std::string_view name(reinterpret_cast<const char*>(payload.data()), payload.size());
        std::vector<uint64_t> entries;
        if (name == kiv::wire::kServiceName) {
            for (std::size_t i = 0; i < services_.size(); ++i) {
                if (services_[i].card->is_present()) entries.push_back(first_entry_ + i);
            }
        }
        return reply_message(kIOReturnSuccess, entries.data(), entries.size() * sizeof(uint64_t));
    }
    if (request.kind == KIVPLATFORM_OPEN) {
        return reply_message(open_service(client, request.entry, request.number), nullptr, 0);
    }
    if (client.service == nullptr) return reply_message(kIOReturnNotOpen, nullptr, 0);
    if (request.kind == KIVPLATFORM_CLOSE) {
        trace_->close(client.number, client.service->name);
        client.service = nullptr;
        return reply_message(kIOReturnSuccess, nullptr, 0);
    }
    if (request.kind != KIVPLATFORM_CALL) return reply_message(kIOReturnUnsupported, nullptr, 0);

    VirtualCard& card = *client.service->card;
    const DriverFault fault = card.next_fault(request.number);
    delay = std::chrono::milliseconds(fault.delay_ms);
    std::vector<std::byte> output;
    int32_t status = card.is_present() ? fault.status : kIOReturnNotAttached;
    if (status == 0) status = run_selector(card, client.service->function, request.number, payload, output);
    if (fault.reply_size && *fault.reply_size < output.size()) output.resize(*fault.reply_size);
    trace_->call(client.number, client.service->name, request.number, payload, status, output);
    return reply_message(status, output.data(), output.size());
}

int32_t DriverHalf::open_service(Client& client, uint64_t entry, uint32_t type) {
    if (client.service != nullptr) return kIOReturnBusy;
    if (entry < first_entry_ || entry - first_entry_ >= services_.size()) return kIOReturnNoDevice;
    const Service& service = services_[entry - first_entry_];
    if (!service.card->is_present()) return kIOReturnNoDevice;
    const int32_t status = type == service.function.connection_type ? kIOReturnSuccess : kIOReturnUnsupported;
    trace_->open(client.number, service.name, type, status);
    if (status == kIOReturnSuccess) client.service = &service;
    return status;
}

void DriverHalf::send_reply(uint64_t number, const std::vector<std::byte>& reply) {
    const auto client = clients_.find(number);
    if (client == clients_.end()) return;
    const ssize_t sent = send(client->second.socket.get(), reply.data(), reply.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(reply.size())) hang_up(number);
}

void DriverHalf::send_late_replies() {
    while (!late_.empty() && late_.begin()->first <= Clock::now()) {
        const LateReply due = std::move(late_.begin()->second);
        late_.erase(late_.begin());
        send_reply(due.client, due.message);
    }
}

/// Milliseconds until the next late reply, rounded up; -1 when there is none.
int DriverHalf::next_wait() const {
    if (late_.empty()) return -1;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(late_.begin()->first - Clock::now());
    return static_cast<int>(std::max<int64_t>(0, wait.count()));
}

void DriverHalf::hang_up(uint64_t number) {
    const auto client = clients_.find(number);
    if (client == clients_.end()) return;
    if (client->second.service != nullptr) trace_->close(number, client->second.service->name);
    clients_.erase(client);
}

}  // namespace kivsim
