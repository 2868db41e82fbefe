/// Virtual cards inside the test process, on a socket of the test's own, seen by everything that the process
/// calls.
#ifndef KIV_TEST_RUNNING_SIMULATOR_H
#define KIV_TEST_RUNNING_SIMULATOR_H

#include "Simulator.h"
#include "card/CardSettings.h"
#include "scenario/Scenario.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/ControlAddress.h"
#include "support/TemporaryDirectory.h"

/// One line of the driver's trace (see docs/simulator.md).
struct DriverEvent {
    std::string event;    ///< "open", "call" or "close".
    std::string service;  ///< "card 1 function 0".
    uint32_t type = 0;    ///< Of an opened connection.
    uint32_t selector = 0;
    std::string input;   ///< Two hexadecimal digits a byte.
    std::string status;  ///< "0xe00002d5"
    std::string reply;
};

/// A request that a management server answered.
struct CardRequest {
    std::string method;
    std::string path;
    std::string body;
    bool carried_out;
};

/// A card whose management server is somewhere else.
inline kivsim::CardSettings card_with_server(uint8_t id, uint16_t port) {
    kivsim::CardSettings card = kivsim::believable_card(id);
    card.external_server = true;
    card.tunnel_port = port;
    return card;
}

/// The cards of a cards file with this text.
std::vector<kivsim::CardSettings> cards_of(const std::string& file);

class RunningSimulator {
  public:
    /// Sets KIVSIM_SOCKET; without cards the driver process has none.
    explicit RunningSimulator(std::vector<kivsim::CardSettings> cards = kivsim::default_cards());

    kivsim::Simulator& operator*() { return *simulator_; }
    kivsim::Simulator* operator->() { return simulator_.get(); }
    const kivsim::Simulator* operator->() const { return simulator_.get(); }

    /// Ends the driver process and the servers, as a crash would; connections find nobody.
    void stop() { simulator_.reset(); }

    /// Asks the control address about a card, see ask_control().
    ControlAnswer control(const std::string& method, const std::string& path = "",
                          const std::string& body = "", unsigned id = 1) const {
        return ask_control(simulator_->control_address(), method, path, body, id);
    }

    std::vector<DriverEvent> trace() const;  ///< Every driver event so far, in order.
    std::vector<DriverEvent> calls(uint32_t selector) const;

    /// The selectors of all calls, in order; of one service when that is said.
    std::vector<uint32_t> selectors(const std::string& service = "") const;

    int open_connections() const;
    std::vector<CardRequest> requests() const;

    std::string socket_path() const { return directory_ / "driver.sock"; }

  private:
    TemporaryDirectory directory_;
    std::unique_ptr<kivsim::Simulator> simulator_;
};

#endif
