#include "driver/DriverProcess.h"

#include <IOKit/IOReturn.h>
#include <kivplatform/driver_protocol.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <random>
#include <utility>

#include <kiv/kivDriverService.h>
#include "common/LocalSocket.h"
#include "driver/selectors.h"

namespace kivsim {

namespace {

// Numbers of the epoll entries that are no connections.
constexpr uint64_t kListener = 0;
constexpr uint64_t kStop = ~uint64_t{0};
constexpr uint64_t kWake = kStop - 1;

/// Upper half random, so that a service listed by another driver process is not taken for one of ours.
uint64_t fresh_entries() {
    return uint64_t{std::random_device{}()} << 32 | 1;
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

DriverProcess::DriverProcess(std::vector<std::shared_ptr<VirtualCard>> cards, std::string socket_path,
                             const std::string& trace_path)
    : first_entry_(fresh_entries()), cards_(std::move(cards)), socket_path_(std::move(socket_path)) {
    for (const auto& card : cards_) {
        const std::lock_guard lock(card->mutex);
        for (const FunctionSettings& function : card->settings.functions) {
            services_.push_back(
                {card, function,
                 "card " + std::to_string(card->id) + " function " + std::to_string(function.number)});
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
    for (const auto& card : cards_) {
        const std::lock_guard lock(card->mutex);
        card->wake_driver = [this] {
            const uint64_t one = 1;
            [[maybe_unused]] const ssize_t written = write(wake_.get(), &one, sizeof one);
        };
    }
    thread_ = std::thread([this] { serve(); });
}

DriverProcess::~DriverProcess() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(stop_.get(), &one, sizeof one);
    thread_.join();
    unlink(socket_path_.c_str());
    for (const auto& card : cards_) {
        const std::lock_guard lock(card->mutex);
        card->wake_driver = nullptr;
    }
}

void DriverProcess::listen_on(const std::string& path) {
    listener_ = listening_socket(path);
    epoll_ = checked(epoll_create1(EPOLL_CLOEXEC), "epoll");
    stop_ = checked(eventfd(0, EFD_CLOEXEC), "eventfd");
    wake_ = checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
    watch(listener_.get(), kListener);
    watch(stop_.get(), kStop);
    watch(wake_.get(), kWake);
}

void DriverProcess::watch(int fd, uint64_t number) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = number;
    epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event);
}

void DriverProcess::serve() {
    for (bool more = true;;) {  // Cards may have interrupts from the start.
        epoll_event events[64];
        const int count = epoll_wait(epoll_.get(), events, std::size(events), more ? 0 : next_wait());
        send_late_replies();
        for (int i = 0; i < count; ++i) {
            const uint64_t number = events[i].data.u64;
            if (number == kStop) return;
            if (number == kListener) {
                accept_connection();
            } else if (number == kWake) {
                uint64_t times = 0;
                [[maybe_unused]] const ssize_t got = read(wake_.get(), &times, sizeof times);
            } else if ((number & MessageChannels::kEpollBit) != 0) {
                channels_.flush(number & ~MessageChannels::kEpollBit);
            } else {
                serve_connection(number);
            }
        }
        more = messages_.send();
    }
}

void DriverProcess::accept_connection() {
    Connection connection;
    connection.socket = accept_or_refuse(listener_.get(), SOCK_NONBLOCK, spare_);
    if (!connection.socket) return;
    connection.number = next_connection_++;
    watch(connection.socket.get(), connection.number);
    connections_.emplace(connection.number, std::move(connection));
}

void DriverProcess::serve_connection(uint64_t number) {
    const auto found = connections_.find(number);
    if (found == connections_.end()) return;
    std::vector<std::byte> message(sizeof(kivplatform_request) + KIVPLATFORM_MESSAGE_SIZE);
    Request request;
    iovec part{message.data(), message.size()};
    const ssize_t size =
        kivplatform::receive_message(found->second.socket.get(), {&part, 1}, &request.descriptor);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (size < static_cast<ssize_t>(sizeof(kivplatform_request))) {
        hang_up(number);
        return;
    }
    std::memcpy(&request.header, message.data(), sizeof request.header);
    request.payload = std::span(message).first(static_cast<std::size_t>(size)).subspan(sizeof request.header);
    if (request.header.kind == KIVPLATFORM_MAP && found->second.service != nullptr) {
        send_mapping(found->second, request.header.number);
        return;
    }
    Clock::duration delay{};
    std::vector<std::byte> reply = answer(found->second, request, delay);
    if (delay > Clock::duration::zero()) {
        late_.emplace(Clock::now() + delay, LateReply{number, std::move(reply)});
    } else {
        send_reply(number, reply);
    }
}

std::vector<std::byte> DriverProcess::answer(Connection& connection, Request& request,
                                             Clock::duration& delay) {
    if (request.header.kind == KIVPLATFORM_LIST) return answer_list(request.payload);
    if (request.header.kind == KIVPLATFORM_OPEN) {
        return reply_message(open_service(connection, request.header.entry, request.header.number), nullptr,
                             0);
    }
    if (connection.service == nullptr) return reply_message(kIOReturnNotOpen, nullptr, 0);
    if (request.header.kind == KIVPLATFORM_CLOSE) {
        close_service(connection);
        return reply_message(kIOReturnSuccess, nullptr, 0);
    }
    if (request.header.kind == KIVPLATFORM_CALL || request.header.kind == KIVPLATFORM_CALL_ASYNC)
        return answer_call(connection, request, delay);
    return reply_message(kIOReturnUnsupported, nullptr, 0);
}

std::vector<std::byte> DriverProcess::answer_list(std::span<const std::byte> name) {
    std::vector<uint64_t> entries;
    if (std::string_view(reinterpret_cast<const char*>(name.data()), name.size()) ==
        KIV_DRIVER_SERVICE_NAME) {
        for (std::size_t i = 0; i < services_.size(); ++i) {
            if (services_[i].card->is_present()) entries.push_back(first_entry_ + i);
        }
    }
    return reply_message(kIOReturnSuccess, entries.data(), entries.size() * sizeof(uint64_t));
}

std::vector<std::byte> DriverProcess::answer_call(Connection& connection, Request& request,
                                                  Clock::duration& delay) {
    VirtualCard& card = *connection.service->card;
    const uint32_t selector = request.header.number;
    const DriverFault fault = card.next_driver_fault(selector);
    delay = std::chrono::milliseconds(fault.delay_ms);
    std::vector<std::byte> output;
    int32_t status = card.is_present() ? fault.status : kIOReturnNotAttached;
    if (status == 0 && request.header.kind == KIVPLATFORM_CALL_ASYNC) {
        status = selector != kiv::wire::kRegisterInterruptAsyncCallback ? kIOReturnUnsupported
                 : request.descriptor                                   ? kIOReturnSuccess
                                                                        : kIOReturnBadArgument;
        if (status == 0) {
            channels_.add(connection.number, std::move(request.descriptor));
            const std::lock_guard lock(card.mutex);
            card.driver.connections[connection.number].takes_messages = true;
        }
    } else if (status == 0) {
        status = run_selector(card, connection.service->function, connection.number, selector,
                              request.payload, output);
    }
    if (fault.reply_size && *fault.reply_size < output.size()) output.resize(*fault.reply_size);
    trace_->call(connection.number, connection.service->name, selector, request.payload, status, output);
    return reply_message(status, output.data(), output.size());
}

void DriverProcess::send_mapping(Connection& connection, uint32_t type) {
    SelectedMemory memory{};
    if (type != 0 || !connection.service->card->is_present() ||
        !selected_memory(*connection.service->card, connection.number, memory)) {
        send_reply(connection.number, reply_message(kIOReturnBadArgument, nullptr, 0));
        return;
    }
    const kivplatform_mapping mapping{memory.offset, memory.size};
    send_reply(connection.number, reply_message(kIOReturnSuccess, &mapping, sizeof mapping),
               memory.descriptor);
}

int32_t DriverProcess::open_service(Connection& connection, uint64_t entry, uint32_t type) {
    if (connection.service != nullptr) return kIOReturnBusy;
    if (entry < first_entry_ || entry - first_entry_ >= services_.size()) return kIOReturnNoDevice;
    const Service& service = services_[entry - first_entry_];
    if (!service.card->is_present()) return kIOReturnNoDevice;
    const int32_t status = type == service.function.connection_type ? kIOReturnSuccess : kIOReturnUnsupported;
    trace_->open(connection.number, service.name, type, status);
    if (status != kIOReturnSuccess) return status;
    connection.service = &service;
    const std::lock_guard lock(service.card->mutex);
    service.card->driver.connections[connection.number].function = service.function.number;
    return status;
}

void DriverProcess::close_service(Connection& connection) {
    trace_->close(connection.number, connection.service->name);
    channels_.remove(connection.number);
    const Service& service = *std::exchange(connection.service, nullptr);
    const std::lock_guard lock(service.card->mutex);
    service.card->driver.end(connection.number);
}

void DriverProcess::send_reply(uint64_t number, const std::vector<std::byte>& reply, int descriptor) {
    const auto connection = connections_.find(number);
    if (connection == connections_.end()) return;
    iovec part{const_cast<std::byte*>(reply.data()), reply.size()};
    if (!kivplatform::send_message(connection->second.socket.get(), {&part, 1}, descriptor)) hang_up(number);
}

void DriverProcess::send_late_replies() {
    while (!late_.empty() && late_.begin()->first <= Clock::now()) {
        const LateReply due = std::move(late_.begin()->second);
        late_.erase(late_.begin());
        send_reply(due.connection, due.message);
    }
}

/// Milliseconds until the next late reply or message, rounded up; -1 when there is none.
int DriverProcess::next_wait() {
    std::optional<Clock::time_point> next = messages_.next_time();
    if (!late_.empty()) next = std::min(late_.begin()->first, next.value_or(Clock::time_point::max()));
    if (!next) return -1;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now());
    return static_cast<int>(std::clamp<int64_t>(wait.count(), 0, 60'000));
}

void DriverProcess::hang_up(uint64_t number) {
    const auto connection = connections_.find(number);
    if (connection == connections_.end()) return;
    if (connection->second.service != nullptr) close_service(connection->second);
    connections_.erase(connection);
}

}  // namespace kivsim
