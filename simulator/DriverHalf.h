/// The driver process's half of the simulator: services, connections and calls over a Unix-domain socket.
#ifndef KIVSIM_DRIVER_HALF_H
#define KIVSIM_DRIVER_HALF_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Descriptor.h"
#include "Trace.h"
#include "VirtualCard.h"

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

    void listen_on(const std::string& path);
    void serve();
    void accept_client();
    void serve_client(uint64_t number);
    std::vector<std::byte> answer(Client& client, const std::vector<std::byte>& message,
                                  Clock::duration& delay);
    int32_t open_service(Client& client, uint64_t entry, uint32_t type);
    void send_reply(uint64_t number, const std::vector<std::byte>& reply);
    void send_late_replies();
    int next_wait() const;
    void hang_up(uint64_t number);

    const uint64_t first_entry_;  ///< Entry ids differ between driver processes.
    std::vector<Service> services_;
    const std::string socket_path_;
    std::unique_ptr<Trace> trace_;
    Descriptor listener_;
    Descriptor epoll_;
    Descriptor stop_;
    std::map<uint64_t, Client> clients_;
    uint64_t next_client_ = 1;
    std::multimap<Clock::time_point, LateReply> late_;
    std::thread thread_;
};

}  // namespace kivsim

#endif
