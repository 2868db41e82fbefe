/// The management servers of all virtual cards: one listening socket for each card, a few threads for all.
#ifndef KIVSIM_SERVER_HALF_H
#define KIVSIM_SERVER_HALF_H

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Descriptor.h"
#include "VirtualCard.h"

namespace kivsim {

class ServerHalf {
  public:
    /// Listens for every card whose server is not external; a card whose port is 0 gets a free one. Throws
    /// std::runtime_error when an address cannot be listened on.
    explicit ServerHalf(const std::vector<std::shared_ptr<VirtualCard>>& cards);
    ~ServerHalf();

    ServerHalf(const ServerHalf&) = delete;
    ServerHalf& operator=(const ServerHalf&) = delete;

  private:
    class CardServer;
    struct Visit {
        CardServer* server = nullptr;
        Descriptor socket;
    };

    void listen_for(VirtualCard& card, Descriptor& listener);
    void accept_visits();
    void work();

    std::vector<std::unique_ptr<CardServer>> servers_;
    std::vector<Descriptor> listeners_;  ///< One for each server.
    Descriptor epoll_;
    Descriptor stop_;  ///< Readable once the servers have to end.

    std::mutex mutex_;  ///< Guards `visits_` and `stopping_`.
    std::condition_variable condition_;
    std::deque<Visit> visits_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace kivsim

#endif
