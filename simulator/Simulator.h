/// Virtual cards: their driver process and their management servers. Lives in the program kivsim, or in a
/// test.
#ifndef KIVSIM_SIMULATOR_H
#define KIVSIM_SIMULATOR_H

#include <memory>
#include <string>
#include <vector>

#include "card/CardSettings.h"

namespace kivsim {

class VirtualCard;
class ManagementServers;
class DriverProcess;

class Simulator {
  public:
    /// Runs from here to its destruction. An empty `socket_path` is the one that every program of this user
    /// looks at; an empty `trace_path` traces nothing, an empty `request_log` logs no requests. The control
    /// address is at a free port when `control_port` is 0. Throws std::runtime_error with a text that says
    /// what is in the way.
    Simulator(const std::vector<CardSettings>& cards, const std::string& socket_path,
              const std::string& trace_path, const std::string& request_log = {}, uint16_t control_port = 0);
    ~Simulator();

    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    const std::string& socket_path() const { return socket_path_; }

    const std::vector<std::shared_ptr<VirtualCard>>& cards() const { return cards_; }

    /// "address:port" of each card's management server, in the order of the cards.
    std::vector<std::string> server_addresses() const;

    /// "127.0.0.1:port" of the control address.
    std::string control_address() const;

  private:
    std::vector<std::shared_ptr<VirtualCard>> cards_;
    std::string socket_path_;
    std::unique_ptr<ManagementServers> servers_;
    std::unique_ptr<DriverProcess> driver_;  ///< Last: cards are seen when their servers answer.
};

}  // namespace kivsim

#endif
