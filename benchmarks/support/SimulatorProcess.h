/// Virtual cards in a process of their own.
#ifndef KIV_BENCHMARKS_SIMULATOR_PROCESS_H
#define KIV_BENCHMARKS_SIMULATOR_PROCESS_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include "Simulator.h"
#include "support/measure.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

namespace kivbench {

class SimulatorProcess {
  public:
    /// Forks: while the process has one thread.
    explicit SimulatorProcess(unsigned cards)
        : socket_(std::filesystem::temp_directory_path() /
                  ("kiv_benchmark_" + std::to_string(getpid()) + "_" + std::to_string(cards))) {
        int ready[2];
        require(pipe(ready) == 0, "there is no pipe");
        child_ = fork();
        require(child_ >= 0, "there is no process");
        if (child_ == 0) serve(cards, ready[1]);
        close(ready[1]);
        char byte = 0;
        const bool up = read(ready[0], &byte, 1) == 1;
        close(ready[0]);
        require(up, "the simulator does not start");
    }
    ~SimulatorProcess() {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
        std::error_code ignored;
        std::filesystem::remove(socket_, ignored);
    }
    SimulatorProcess(const SimulatorProcess&) = delete;
    SimulatorProcess& operator=(const SimulatorProcess&) = delete;

    /// The cards that this process, and those that it starts, find from now on.
    void choose() const { setenv("KIVSIM_SOCKET", socket_.c_str(), 1); }

  private:
    [[noreturn]] void serve(unsigned count, int ready) const {
        try {
            std::vector<kivsim::CardSettings> cards;
            for (unsigned id = 1; id <= count; ++id)
                cards.push_back(kivsim::believable_card(static_cast<uint8_t>(id)));
            const kivsim::Simulator simulator(cards, socket_, "");
            if (write(ready, "", 1) == 1) {
                while (getppid() != 1)
                    sleep(1);
            }
        } catch (const std::exception& error) {
            std::fprintf(stderr, "simulator: %s\n", error.what());
        }
        _exit(1);
    }

    const std::string socket_;
    pid_t child_ = -1;
};

}  // namespace kivbench

#endif
