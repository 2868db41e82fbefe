/// Virtual cards inside the test process, on a socket of the test's own, seen by everything that the process
/// calls.
#ifndef KIV_TEST_RUNNING_SIMULATOR_H
#define KIV_TEST_RUNNING_SIMULATOR_H

#include "Simulator.h"
#include "card/CardSettings.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/TemporaryDirectory.h"

class RunningSimulator {
  public:
    /// Sets KIVSIM_SOCKET; without cards the driver process has none.
    explicit RunningSimulator(std::vector<kivsim::CardSettings> cards = kivsim::default_cards());
    ~RunningSimulator();

    kivsim::Simulator& operator*() { return *simulator_; }
    kivsim::Simulator* operator->() { return simulator_.get(); }

    /// Ends the driver process and the servers, as a crash would; connections find nobody.
    void stop() { simulator_.reset(); }

    /// Every driver event so far, in order (see Trace.h for the keys).
    std::vector<nlohmann::json> trace() const { return lines_of("trace"); }

    /// The trace's calls of one selector.
    std::vector<nlohmann::json> calls(unsigned selector) const;

    /// Every answered request to the management servers so far: card, method, path, body, status, answer.
    std::vector<nlohmann::json> requests() const { return lines_of("requests"); }

    std::string socket_path() const { return directory_ / "driver.sock"; }

  private:
    std::vector<nlohmann::json> lines_of(const char* file) const;

    TemporaryDirectory directory_;
    std::unique_ptr<kivsim::Simulator> simulator_;
};

#endif
