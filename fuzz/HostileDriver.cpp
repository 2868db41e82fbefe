#include "HostileDriver.h"

#include <fcntl.h>
#include <kivos/shared_memory.h>
#include <kivos/sockets.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstring>

namespace fuzz {

namespace {

using kivplatform::IncomingFrames;
using kivplatform::OutgoingFrame;

std::span<const std::byte> bytes_of(const std::string& text) {
    return std::as_bytes(std::span(text));
}

template <typename Struct>
std::string text_of(const Struct& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

}  // namespace

HostileDriver::HostileDriver() : listener_(kivos::stream_socket(AF_UNIX)) {
    const std::string path = directory_ / "driver.sock";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    expect(bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
               listen(listener_.get(), SOMAXCONN) == 0,
           "the driver has a socket");
    setenv("KIVSIM_SOCKET", path.c_str(), 1);
    std::thread([this] { serve(); }).detach();
}

void HostileDriver::speak(std::vector<uint8_t> script) {
    const std::lock_guard lock(mutex_);
    script_ = std::move(script);
    bytes_ = Bytes(script_);
}

void HostileDriver::serve() {
    for (;;) {
        std::vector<pollfd> polled{{listener_.get(), POLLIN, 0}};
        for (const Connection& connection : connections_)
            polled.push_back({connection.socket.get(), POLLIN, 0});
        poll(polled.data(), polled.size(), -1);
        const std::lock_guard lock(mutex_);
        std::size_t at = 1;
        for (auto each = connections_.begin(); each != connections_.end(); ++at) {
            const bool goes_on = polled[at].revents == 0 || serve(*each);
            each = goes_on ? std::next(each) : connections_.erase(each);
        }
        if (polled[0].revents == 0) continue;
        if (kivos::Descriptor socket = kivos::accept_from(listener_.get()); socket)
            connections_.emplace_back().socket = std::move(socket);
    }
}

/// False when the conversation has ended.
bool HostileDriver::serve(Connection& connection) {
    if (connection.requests.receive(connection.socket.get()) == IncomingFrames::Outcome::Ended) return false;
    kivos::Descriptor descriptor;
    while (const auto message = connection.requests.take(descriptor)) {
        kivplatform_request request{};
        expect(
            message->size() >= sizeof request && message->size() <= sizeof request + KIVPLATFORM_INBAND_SIZE,
            "a request has a header and a payload of a call");
        std::memcpy(&request, message->data(), sizeof request);
        expect((request.kind == KIVPLATFORM_CALL_ASYNC) == bool{descriptor}, "messages need a socket");
        if (descriptor) connection.messages = std::move(descriptor);
        if (!answer(connection, request)) return false;
    }
    return true;
}

bool HostileDriver::reply(Connection& connection, int32_t status, const std::string& payload,
                          int descriptor) {
    const kivplatform_reply header{status, 0};
    OutgoingFrame frame(std::as_bytes(std::span(&header, 1)), bytes_of(payload), descriptor);
    return frame.send(connection.socket.get()) == OutgoingFrame::Outcome::Sent;
}

bool HostileDriver::answer(Connection& connection, const kivplatform_request& request) {
    constexpr uint8_t kGood = 5;  // More often than not: else the library would never get far.
    constexpr std::size_t kEntry = sizeof(uint64_t);
    const uint8_t way = bytes_.byte();
    if (way % 16 < kGood || way % 16 > 10) {
        if (request.kind == KIVPLATFORM_MAP) return map(connection);
        if (request.kind == KIVPLATFORM_LIST)
            return reply(connection, 0, bytes_.text(kEntry * (bytes_.byte() % 4)));
        const bool has_output = request.kind == KIVPLATFORM_CALL || request.kind == KIVPLATFORM_CALL_ASYNC;
        const bool sent = reply(connection, 0, has_output ? bytes_.text(request.capacity) : "");
        if (sent && request.kind == KIVPLATFORM_CALL_ASYNC) send_messages(connection);
        return sent;
    }
    switch (way % 16 - kGood) {
        case 0:
            return reply(connection, bytes_.number<int32_t>(), "");
        case 1:  // Not thousands of services, which the library would open one by one.
            return reply(connection, 0,
                         bytes_.text(bytes_.number<uint16_t>() %
                                     (request.kind == KIVPLATFORM_LIST ? 100 : KIVPLATFORM_INBAND_SIZE * 2)));
        case 2:  // With a descriptor that nobody wants.
            return reply(connection, 0, bytes_.text(request.capacity % KIVPLATFORM_MESSAGE_SIZE),
                         listener_.get());
        case 3:
            send_messages(connection);
            return reply(connection, bytes_.byte(), "");
        case 4: {  // No frame at all.
            const std::string raw = bytes_.text(bytes_.byte());
            send(connection.socket.get(), raw.data(), raw.size(), kivos::kNoSignal);
            return false;
        }
        default:
            return false;
    }
}

/// A memory of a few pages, and what is said of it.
bool HostileDriver::map(Connection& connection) {
    const uint8_t way = bytes_.byte();
    const uint64_t page = kivos::page_size();
    const uint64_t pages = way % 4;
    kivos::Descriptor memory = kivos::shared_memory(pages * page);
    // One that can shrink, and none that could be mapped.
    if (way % 32 == 8)
        memory = kivos::Descriptor(open((directory_ / "file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (way % 32 == 9) memory = kivos::Descriptor(fcntl(listener_.get(), F_DUPFD_CLOEXEC, 0));
    kivplatform_mapping mapping{bytes_.byte() % 4u, 0, pages * page};
    if (way >= 128) mapping = {mapping.memory, page * (bytes_.byte() % 4), page * (bytes_.byte() % 4)};
    if (way >= 240)
        mapping = {bytes_.number<uint64_t>(), bytes_.number<uint64_t>(), bytes_.number<uint64_t>()};
    return reply(connection, 0, text_of(mapping), way % 32 == 10 ? -1 : memory.get());
}

void HostileDriver::send_messages(const Connection& connection) {
    if (!connection.messages) return;
    for (int left = bytes_.byte() % 4; left > 0; --left) {
        const uint8_t way = bytes_.byte();
        kivplatform_message message{bytes_.byte(), way % 20u, {}};
        for (uint64_t& argument : message.argument)
            argument = bytes_.byte();
        const std::size_t size = way >= 200 ? bytes_.byte() % sizeof message
                                            : offsetof(kivplatform_message, argument) +
                                                  std::min(message.count, KIVPLATFORM_MESSAGE_ARGUMENTS) * 8;
        OutgoingFrame frame(std::as_bytes(std::span(&message, 1)).first(size), {},
                            way >= 250 ? listener_.get() : -1);
        frame.send(connection.messages.get(), MSG_DONTWAIT);
    }
}

}  // namespace fuzz
