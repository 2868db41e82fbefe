#include "driver/DriverProcess.h"

#include <IOKit/IOReturn.h>
#include <fcntl.h>
#include <kivos/sockets.h>
#include <kivplatform/driver_protocol.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <kiv/kivDriverService.h>
#include "common/LocalSocket.h"
#include "driver/selectors.h"

namespace kivsim {

namespace {

// Numbers of what is waited for that are no connections.
constexpr uint64_t kListener = 0;
constexpr uint64_t kWake = ~uint64_t{0};

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
        card->wake_driver = [this] { wake_.wake(); };
    }
    thread_ = std::thread([this] { serve(); });
}

DriverProcess::~DriverProcess() {
    stop_ = true;
    wake_.wake();
    thread_.join();
    unlink(socket_path_.c_str());
    for (const auto& card : cards_) {
        const std::lock_guard lock(card->mutex);
        card->wake_driver = nullptr;
    }
}

void DriverProcess::listen_on(const std::string& path) {
    if (wake_.descriptor() < 0) throw std::runtime_error("pipe: " + std::generic_category().message(errno));
    listener_ = listening_socket(path);
    waiting_.watch(kListener, listener_.get(), POLLIN);
    waiting_.watch(kWake, wake_.descriptor(), POLLIN);
}

void DriverProcess::serve() {
    for (bool more = true;;) {  // Cards may have interrupts from the start.
        const std::vector<uint64_t>& ready = waiting_.wait(more ? 0 : next_wait());
        if (stop_) return;
        send_late_replies();
        for (const uint64_t number : ready) {
            if (number == kListener) {
                accept_connection();
            } else if (number == kWake) {
                wake_.clear();
            } else if ((number & MessageChannels::kChannelBit) != 0) {
                channels_.flush(number & ~MessageChannels::kChannelBit);
            } else {
                serve_connection(number);
            }
        }
        more = messages_.send();
    }
}

void DriverProcess::accept_connection() {
    Descriptor socket = accept_or_refuse(listener_.get(), spare_);
    if (!socket) return;
    kivos::do_not_wait(socket.get());  // Not every system promises MSG_DONTWAIT for what is sent.
    const uint64_t number = next_connection_++;
    waiting_.watch(number, socket.get(), POLLIN);
    Connection& connection = connections_[number];
    connection.number = number;
    connection.socket = std::move(socket);
}

/// There is something to be read, or room for the rest of a reply.
void DriverProcess::serve_connection(uint64_t number) {
    const auto found = connections_.find(number);
    if (found == connections_.end()) return;
    Connection& connection = found->second;
    const bool goes_on = connection.unsent != nullptr
                             ? flush(connection)
                             : connection.requests.receive(connection.socket.get(), MSG_DONTWAIT) !=
                                   kivplatform::IncomingFrames::Outcome::Ended;
    if (!goes_on) {
        hang_up(number);
        return;
    }
    // As a rule one. The connection may end with any.
    while (connections_.contains(number) && connection.unsent == nullptr) {
        Request request;
        const auto message = connection.requests.take(request.descriptor);
        if (!message) return;
        if (message->size() < sizeof request.header) {
            hang_up(number);
            return;
        }
        std::memcpy(&request.header, message->data(), sizeof request.header);
        request.payload = message->subspan(sizeof request.header);
        serve_request(connection, request);
    }
}

void DriverProcess::serve_request(Connection& connection, Request& request) {
    // A program waits for its reply. One that does not would have late ones pile up.
    if (connection.is_owed_reply) {
        hang_up(connection.number);
        return;
    }
    if (request.header.kind == KIVPLATFORM_MAP && connection.service != nullptr) {
        send_mapping(connection, request.header.number);
        return;
    }
    Clock::duration delay{};
    std::vector<std::byte> reply = answer(connection, request, delay);
    connection.is_owed_reply = delay > Clock::duration::zero();
    if (connection.is_owed_reply) {
        late_.emplace(Clock::now() + delay, LateReply{connection.number, std::move(reply)});
    } else {
        send_reply(connection.number, std::move(reply));
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
    // A number of its own: the program may release the memory before the reply is sent.
    Descriptor copy(fcntl(memory.descriptor, F_DUPFD_CLOEXEC, 0));
    send_reply(connection.number, reply_message(kIOReturnSuccess, &memory.bytes, sizeof memory.bytes),
               std::move(copy));
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

/// A program that does not read its replies gets no further ones: they would pile up.
void DriverProcess::send_reply(uint64_t number, std::vector<std::byte> reply, Descriptor descriptor) {
    const auto connection = connections_.find(number);
    if (connection == connections_.end()) return;
    connection->second.is_owed_reply = false;
    if (connection->second.unsent == nullptr) {
        connection->second.unsent = std::make_unique<Reply>(std::move(reply), std::move(descriptor));
        if (flush(connection->second)) return;
    }
    hang_up(number);
}

/// Sends what the program takes of its reply; false when it is gone.
bool DriverProcess::flush(Connection& connection) {
    using Outcome = kivplatform::OutgoingFrame::Outcome;
    const Outcome outcome = connection.unsent->frame.send(connection.socket.get(), MSG_DONTWAIT);
    if (outcome == Outcome::Gone) return false;
    if (outcome == Outcome::Sent) connection.unsent.reset();
    waiting_.watch(connection.number, connection.socket.get(), outcome == Outcome::Full ? POLLOUT : POLLIN);
    return true;
}

void DriverProcess::send_late_replies() {
    while (!late_.empty() && late_.begin()->first <= Clock::now()) {
        LateReply due = std::move(late_.begin()->second);
        late_.erase(late_.begin());
        send_reply(due.connection, std::move(due.message));
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
    std::erase_if(late_, [number](const auto& late) { return late.second.connection == number; });
    waiting_.forget(number);
    connections_.erase(connection);
}

}  // namespace kivsim
