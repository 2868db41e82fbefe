/// The management servers of all virtual cards and the control address: a listening socket each, one thread
/// that accepts for all.
#ifndef KIVSIM_MANAGEMENT_SERVERS_H
#define KIVSIM_MANAGEMENT_SERVERS_H

#include <kivplatform/waker.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "card/VirtualCard.h"
#include "common/LocalSocket.h"
#include "common/PollSet.h"
#include "server/HttpServer.h"

namespace kivsim {

class ManagementServers {
  public:
    /// Listens for every card whose server is not external; a card whose port is 0 gets a free one. `control`
    /// answers at `control_port` of 127.0.0.1; 0 is a free one. With a path in `request_log`, every request
    /// to a card is written there, a JSON object a line. Throws std::runtime_error when an address cannot be
    /// listened on or the log not be written.
    ManagementServers(const std::vector<std::shared_ptr<VirtualCard>>& cards, Answering control,
                      uint16_t control_port, const std::string& request_log);
    ~ManagementServers();

    uint16_t control_port() const { return control_port_; }

    ManagementServers(const ManagementServers&) = delete;
    ManagementServers& operator=(const ManagementServers&) = delete;

  private:
    uint16_t add_server(Answering handler, uint32_t host, uint16_t port, const std::string& name);
    Answer answer_card(VirtualCard& card, const HttpRequest& request);
    void accept_connections();

    uint16_t control_port_ = 0;
    Descriptor spare_ = spare_descriptor();
    kivplatform::Waker stop_;  ///< Woken once the servers have to end.

    std::mutex log_mutex_;
    std::ofstream log_;  ///< Guarded by its mutex.

    std::vector<Descriptor> listeners_;  ///< One for each server.
    PollSet waiting_;                    ///< The listeners by their places, and the end behind the last.
    std::vector<std::unique_ptr<HttpServer>>
        servers_;  ///< Of the cards that we serve, and the control address.
    std::thread thread_;
};

}  // namespace kivsim

#endif
