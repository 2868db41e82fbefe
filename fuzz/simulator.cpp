// The simulator with a program that is hostile, or broken: at the socket of the driver process, and at the
// addresses of a card's server and of the control.
//
// Input: its first byte says which. At the driver's socket the rest is a row of requests, some of them no
// requests; at the other two the bytes of a connection, as they come.
#include <kivos/sockets.h>
#include <kivplatform/frames.h>
#include <kivplatform/waker.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include <kiv/kivDriverService.h>
#include "card/VirtualCard.h"
#include "driver/DriverProcess.h"
#include "driver/wire.h"
#include "input.h"
#include "server/HttpServer.h"
#include "settings/control.h"
#include "support/TemporaryDirectory.h"

namespace {

using fuzz::Bytes;
using fuzz::expect;
using kivos::Descriptor;
using kivplatform::IncomingFrames;
using kivplatform::OutgoingFrame;

using Cards = std::vector<std::shared_ptr<kivsim::VirtualCard>>;

// ---- The driver's socket ------------------------------------------------------------------------------

Descriptor connected(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    Descriptor socket = kivos::stream_socket(AF_UNIX);
    expect(connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
           "the driver process takes connections");
    return socket;
}

/// What a well-behaved program gets: the entry of each service.
std::vector<uint64_t> services(const std::string& path) {
    const Descriptor socket = connected(path);
    kivplatform_request request{};
    request.kind = KIVPLATFORM_LIST;
    const std::string name = KIV_DRIVER_SERVICE_NAME;
    OutgoingFrame(std::as_bytes(std::span(&request, 1)), std::as_bytes(std::span(name))).send(socket.get());
    IncomingFrames replies(1 << 17, IncomingFrames::Descriptors::Refused);
    Descriptor none;
    for (;;) {
        expect(replies.receive(socket.get()) == IncomingFrames::Outcome::Received,
               "a good request is answered");
        const auto message = replies.take(none);
        if (!message) continue;
        std::vector<uint64_t> entries((message->size() - sizeof(kivplatform_reply)) / sizeof(uint64_t));
        std::memcpy(entries.data(), message->data() + sizeof(kivplatform_reply),
                    entries.size() * sizeof(uint64_t));
        return entries;
    }
}

/// Sizes as the methods have them, and others.
constexpr uint16_t kSizes[] = {0, 4, 8, 12, 16, 20, 24, 32, 120, 4088, 4096, 1, 5000};

void send_requests(int socket, Bytes& bytes, const std::vector<uint64_t>& entries) {
    for (int left = 64; left > 0 && !bytes.empty(); --left) {
        const uint8_t way = bytes.byte();
        if (way >= 240) {
            const std::string raw = bytes.text(bytes.byte());
            send(socket, raw.data(), raw.size(), kivos::kNoSignal | MSG_DONTWAIT);
            continue;
        }
        kivplatform_request request{};
        request.kind = 1 + way % 8;
        request.number = bytes.byte();
        if (request.kind == KIVPLATFORM_OPEN) {
            const uint8_t which = bytes.byte();
            request.entry = entries[which % entries.size()] + (which >= 200 ? which : 0);
        }
        request.capacity = KIVPLATFORM_INBAND_SIZE;
        const std::string payload = bytes.text(kSizes[way / 8 % std::size(kSizes)]);
        const bool has_descriptor = request.kind == KIVPLATFORM_CALL_ASYNC || way >= 200;
        Descriptor near_end;
        Descriptor far_end;
        if (has_descriptor) kivos::socket_pair(near_end, far_end);
        OutgoingFrame(std::as_bytes(std::span(&request, 1)), std::as_bytes(std::span(payload)), far_end.get())
            .send(socket, MSG_DONTWAIT);
    }
}

/// Everything that comes until the end of the connection.
void read_replies(int socket) {
    IncomingFrames replies(1 << 17, IncomingFrames::Descriptors::Taken);
    Descriptor ignored;
    while (replies.receive(socket) == IncomingFrames::Outcome::Received) {
        while (const auto message = replies.take(ignored)) {
            expect(message->size() >= sizeof(kivplatform_reply) &&
                       message->size() <= sizeof(kivplatform_reply) + KIVPLATFORM_INBAND_SIZE,
                   "a reply has a header and what a call may carry");
            kivplatform_reply reply{};
            std::memcpy(&reply, message->data(), sizeof reply);
            expect(reply.status == 0 || message->size() == sizeof reply, "a failure has no payload");
        }
    }
}

void talk_to_driver(const Cards& cards, Bytes& bytes) {
    static const TemporaryDirectory directory;
    const std::string path = directory / "driver.sock";
    const kivsim::DriverProcess process(cards, path, "");
    const std::vector<uint64_t> entries = services(path);
    {
        const Descriptor socket = connected(path);
        send_requests(socket.get(), bytes, entries);
        shutdown(socket.get(), SHUT_WR);
        read_replies(socket.get());
    }
    expect(services(path) == entries, "the driver process goes on");
}

// ---- HTTP ---------------------------------------------------------------------------------------------

/// Sends them and gives what comes until the end of the connection.
std::string answer_to(kivsim::HttpServer& server, const std::string& bytes) {
    Descriptor near_end;
    Descriptor far_end;
    kivos::socket_pair(near_end, far_end);
    server.take(std::move(far_end));
    std::string answer;
    bool sending = true;
    for (std::size_t sent = 0;;) {  // Both at once: the server may answer before it has read everything.
        if (sending && sent == bytes.size()) {
            shutdown(near_end.get(), SHUT_WR);
            sending = false;
        }
        pollfd polled{near_end.get(), static_cast<short>(sending ? POLLIN | POLLOUT : POLLIN), 0};
        const int ready = poll(&polled, 1, 20'000);
        if (ready < 0) continue;  // libFuzzer's timer.
        expect(ready > 0, "a connection ends");
        if (sending && (polled.revents & POLLOUT) != 0) {
            const ssize_t count = send(near_end.get(), bytes.data() + sent, bytes.size() - sent,
                                       MSG_DONTWAIT | kivos::kNoSignal);
            sent = count < 0 ? bytes.size() : sent + static_cast<std::size_t>(count);
        }
        if ((polled.revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
        char block[65536];
        const ssize_t got = recv(near_end.get(), block, sizeof block, 0);
        if (got <= 0) return answer;
        answer.append(block, static_cast<std::size_t>(got));
    }
}

/// What a test asks for is not to be waited for here.
void forget_delays(kivsim::VirtualCard& card) {
    const std::lock_guard lock(card.mutex);
    for (auto& fault : card.settings.http_faults)
        fault.delay_ms = 0;
}

void ask_over_http(const Cards& cards, bool control, const std::string& bytes) {
    const kivplatform::Waker stop;
    kivsim::HttpServer server(
        [&](const kivsim::HttpRequest& request) {
            kivsim::Answer answer =
                control ? answer_control(cards, request) : answer_request(*cards[0], request);
            expect(answer.status >= 100 && answer.status <= 999, "a status has three digits");
            forget_delays(*cards[0]);
            return answer;
        },
        stop.descriptor());
    const std::string answer = answer_to(server, bytes);
    expect(answer.empty() || answer.starts_with("HTTP/1."), "an answer is HTTP");
    const std::string good = answer_to(server, "GET /cards HTTP/1.1\r\nConnection: close\r\n\r\n");
    expect(good.starts_with("HTTP/1.1 "), "a good request is answered");
    stop.wake();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const Cards cards{std::make_shared<kivsim::VirtualCard>(kivsim::believable_card(1))};
    Bytes bytes(std::span(data + 1, size - 1));
    if (data[0] % 4 < 2) {
        talk_to_driver(cards, bytes);
    } else {
        ask_over_http(cards, data[0] % 4 == 3, fuzz::text_of(data + 1, size - 1));
    }
    return 0;
}
