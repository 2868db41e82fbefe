/// Four cards in two processes: the driver, with the servers of cards 1 and 2; and the servers of cards 3
/// and 4. Each process is stopped, hung and started anew by itself, while the cards change and fail.
#ifndef KIV_TEST_SOAK_MACHINE_H
#define KIV_TEST_SOAK_MACHINE_H

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "soak/Calls.h"
#include "support/ControlAddress.h"
#include "support/Program.h"
#include "support/TemporaryDirectory.h"

/// A kivsim. One thread starts, hangs and stops it.
class SimulatorProcess {
  public:
    explicit SimulatorProcess(std::string socket, const std::string& cards);
    void start();
    void stop();  ///< Kills it. It must not have ended by itself.
    void hang(unsigned milliseconds);
    ControlAnswer ask(const std::string& method, const std::string& path, const std::string& body,
                      unsigned id) const;

  private:
    const std::string socket_, cards_;
    std::unique_ptr<Program> program_;
    mutable std::mutex mutex_;
    std::string control_;  ///< Under the mutex.
};

class Machine {
  public:
    Machine();

    /// One of the two processes hangs, or is stopped and comes back.
    void trouble_a_process(unsigned which, Random& random);

    /// A card changes, fails or is well again.
    void trouble_a_card(Random& random);

    /// A child of this process, or another program with cards of this machine, exits at some moment.
    void end_a_child(Random& random);

    /// New processes, where everything is well.
    void recover();
    void set_links(unsigned id, bool up);

    /// How often each kind of trouble was made.
    std::map<std::string, long> troubles() const;

  private:
    void count(const std::string& kind);

    TemporaryDirectory directory_;
    SimulatorProcess driver_, servers_;
    mutable std::mutex mutex_;
    std::map<std::string, long> troubles_;  ///< Under the mutex.
};

#endif
