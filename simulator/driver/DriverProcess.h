/// The driver process: services, connections and calls over a Unix-domain socket.
#ifndef KIVSIM_DRIVER_PROCESS_H
#define KIVSIM_DRIVER_PROCESS_H

#include <kivplatform/driver_protocol.h>
#include <kivplatform/frames.h>
#include <kivplatform/waker.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "card/VirtualCard.h"
#include "common/LocalSocket.h"
#include "common/PollSet.h"
#include "common/Trace.h"
#include "driver/CardMessages.h"
#include "driver/MessageChannels.h"

namespace kivsim {

/// One thread serves every connection.
class DriverProcess {
  public:
    /// Listens on `socket_path`. Throws std::runtime_error when another live process serves it, or it cannot
    /// be made.
    DriverProcess(std::vector<std::shared_ptr<VirtualCard>> cards, std::string socket_path,
                  const std::string& trace_path);

    /// Hangs up every connection and removes the socket.
    ~DriverProcess();

    DriverProcess(const DriverProcess&) = delete;
    DriverProcess& operator=(const DriverProcess&) = delete;

  private:
    using Clock = std::chrono::steady_clock;

    /// One PCI function of one card.
    struct Service {
        std::shared_ptr<VirtualCard> card;
        FunctionSettings function;
        std::string name;
    };

    /// On its way out, and the descriptor that goes with it, or none.
    struct Reply {
        explicit Reply(std::vector<std::byte> bytes, Descriptor beside = Descriptor())
            : message(std::move(bytes)),
              descriptor(std::move(beside)),
              frame(message, {}, descriptor.get()) {}
        const std::vector<std::byte> message;
        const Descriptor descriptor;
        kivplatform::OutgoingFrame frame;
    };

    struct Connection {
        uint64_t number = 0;
        Descriptor socket;
        kivplatform::IncomingFrames requests{sizeof(kivplatform_request) + KIVPLATFORM_MESSAGE_SIZE,
                                             kivplatform::IncomingFrames::Descriptors::Taken};
        std::unique_ptr<Reply> unsent{};   ///< While it is not all sent no further request is read.
        bool is_owed_reply = false;        ///< A late one.
        const Service* service = nullptr;  ///< Once it has opened one.
    };

    struct LateReply {
        uint64_t connection;
        std::vector<std::byte> message;
    };

    /// A request and the descriptor that came with it, or none.
    struct Request {
        kivplatform_request header{};
        std::span<const std::byte> payload;
        Descriptor descriptor;
    };

    void listen_on(const std::string& path);
    void serve();
    void accept_connection();
    void serve_connection(uint64_t number);
    void serve_request(Connection& connection, Request& request);
    bool flush(Connection& connection);
    std::vector<std::byte> answer(Connection& connection, Request& request, Clock::duration& delay);
    std::vector<std::byte> answer_list(std::span<const std::byte> name);
    std::vector<std::byte> answer_call(Connection& connection, Request& request, Clock::duration& delay);
    void send_mapping(Connection& connection, uint32_t type);
    int32_t open_service(Connection& connection, uint64_t entry, uint32_t type);
    void close_service(Connection& connection);
    void send_reply(uint64_t number, std::vector<std::byte> reply, Descriptor descriptor = Descriptor());
    void send_late_replies();
    int next_wait();
    void hang_up(uint64_t number);

    const uint64_t first_entry_;  ///< Entry ids differ between driver processes.
    const std::vector<std::shared_ptr<VirtualCard>> cards_;
    std::vector<Service> services_;
    const std::string socket_path_;
    std::unique_ptr<Trace> trace_;
    Descriptor listener_;
    Descriptor spare_ = spare_descriptor();
    kivplatform::Waker wake_;  ///< When a card has a new stream of messages, or all has to end.
    std::atomic<bool> stop_ = false;
    PollSet waiting_;
    MessageChannels channels_{waiting_};
    CardMessages messages_{cards_, channels_};
    std::map<uint64_t, Connection> connections_;
    uint64_t next_connection_ = 1;
    std::multimap<Clock::time_point, LateReply> late_;
    std::thread thread_;
};

}  // namespace kivsim

#endif
