/// The management servers of all virtual cards: one listening socket for each card, a few threads for all.
#ifndef KIVSIM_SERVER_HALF_H
#define KIVSIM_SERVER_HALF_H

#include <condition_variable>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "card/VirtualCard.h"
#include "common/LocalSocket.h"
#include "server/endpoints.h"

namespace kivsim {

class ServerHalf {
  public:
    /// Listens for every card whose server is not external; a card whose port is 0 gets a free one. The
    /// control address is a free port of 127.0.0.1. With a path in `request_log`, every request to a card is
    /// written there, a JSON object a line. Throws std::runtime_error when an address cannot be listened on
    /// or the log not be written.
    ServerHalf(const std::vector<std::shared_ptr<VirtualCard>>& cards, const std::string& request_log);
    ~ServerHalf();

    uint16_t control_port() const { return control_port_; }

    ServerHalf(const ServerHalf&) = delete;
    ServerHalf& operator=(const ServerHalf&) = delete;

  private:
    class Site;
    struct Visit {
        Site* site = nullptr;
        Descriptor socket;
    };
    using Answering = std::function<Answer(const HttpRequest&)>;

    uint16_t add_site(Answering handler, uint32_t address, uint16_t port, const std::string& name);
    Answer answer_card(VirtualCard& card, const HttpRequest& request);
    void accept_visits();
    void work();

    std::vector<std::unique_ptr<Site>> sites_;  ///< One for each card that we serve, and the control address.
    std::vector<Descriptor> listeners_;         ///< One for each site.
    uint16_t control_port_ = 0;
    Descriptor spare_ = spare_descriptor();
    Descriptor epoll_;
    Descriptor stop_;  ///< Readable once the servers have to end.

    std::mutex log_mutex_;
    std::ofstream log_;  ///< Guarded by its mutex.

    std::mutex mutex_;  ///< Guards `visits_` and `stopping_`.
    std::condition_variable condition_;
    std::deque<Visit> visits_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace kivsim

#endif
