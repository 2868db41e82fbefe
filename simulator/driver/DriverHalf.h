/// The driver process's half of the simulator: services, connections and calls over a Unix-domain socket.
#ifndef KIVSIM_DRIVER_HALF_H
#define KIVSIM_DRIVER_HALF_H

#include <kivplatform/driver_protocol.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "card/VirtualCard.h"
#include "common/LocalSocket.h"
#include "common/Trace.h"
#include "driver/MessageChannels.h"

namespace kivsim {

/// One thread serves every connection.
class DriverHalf {
  public:
    /// Listens on `socket_path`. Throws std::runtime_error when another live process serves it, or it cannot
    /// be made.
    DriverHalf(std::vector<std::shared_ptr<VirtualCard>> cards, std::string socket_path,
               const std::string& trace_path);

    /// Hangs up every connection and removes the socket.
    ~DriverHalf();

    DriverHalf(const DriverHalf&) = delete;
    DriverHalf& operator=(const DriverHalf&) = delete;

  private:
    using Clock = std::chrono::steady_clock;

    /// One PCI function of one card.
    struct Service {
        std::shared_ptr<VirtualCard> card;
        FunctionSettings function;
        std::string name;
    };

    struct Client {
        uint64_t number = 0;
        Descriptor socket;
        const Service* service = nullptr;  ///< Once it has opened one.
    };

    struct LateReply {
        uint64_t client;
        std::vector<std::byte> message;
    };

    /// A request and the descriptor that came with it, or none.
    struct Request {
        kivplatform_request header{};
        std::span<const std::byte> payload;
        Descriptor descriptor;
    };

    void watch(int fd, uint64_t number);
    void listen_on(const std::string& path);
    void serve();
    void accept_client();
    void serve_client(uint64_t number);
    std::vector<std::byte> answer(Client& client, Request& request, Clock::duration& delay);
    std::vector<std::byte> answer_list(std::span<const std::byte> name);
    std::vector<std::byte> answer_call(Client& client, Request& request, Clock::duration& delay);
    void send_mapping(Client& client, uint32_t type);
    int32_t open_service(Client& client, uint64_t entry, uint32_t type);
    void close_service(Client& client);
    void send_reply(uint64_t number, const std::vector<std::byte>& reply, int descriptor = -1);
    bool waits_for_room(const VirtualCard& card);
    bool has_listener(const VirtualCard& card) const;
    void send_message(VirtualCard& card, std::span<const uint64_t> arguments);
    bool send_messages();
    void send_late_replies();
    int next_wait();
    void hang_up(uint64_t number);

    const uint64_t first_entry_;  ///< Entry ids differ between driver processes.
    std::vector<std::shared_ptr<VirtualCard>> cards_;
    std::vector<Service> services_;
    const std::string socket_path_;
    std::unique_ptr<Trace> trace_;
    Descriptor listener_;
    Descriptor spare_ = spare_descriptor();
    Descriptor epoll_;
    Descriptor stop_;
    Descriptor wake_;  ///< Readable when a card has a new stream of messages.
    MessageChannels channels_{epoll_};
    std::map<uint64_t, Client> clients_;
    uint64_t next_client_ = 1;
    std::multimap<Clock::time_point, LateReply> late_;
    std::map<VirtualCard*, Clock::time_point> timers_;  ///< Cards with interrupts of their own: the next one.
    std::thread thread_;
};

}  // namespace kivsim

#endif
