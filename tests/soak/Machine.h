/// Four cards in two processes: the driver, with the servers of cards 1 and 2; and the servers of cards 3
/// and 4. Each process is stopped, hung and started anew by itself, while the cards change and fail.
#ifndef KIV_TEST_SOAK_MACHINE_H
#define KIV_TEST_SOAK_MACHINE_H

#include <kivos/sockets.h>
#include <sys/wait.h>

#include <mutex>

#include "soak/Calls.h"
#include "support/ControlAddress.h"
#include "support/Json.h"
#include "support/Program.h"
#include "support/TemporaryDirectory.h"
#include "support/Test.h"

inline void pause_ms(unsigned length) {
    std::this_thread::sleep_for(std::chrono::milliseconds(length));
}

/// A kivsim. One thread starts, hangs and stops it.
class SimulatorProcess {
  public:
    /// Cards 3 and 4 are in both, but the driver has not their servers. These start anew at the same ports,
    /// below those that systems hand out.
    SimulatorProcess(std::string kivsim, std::string socket, bool driver)
        : kivsim_(std::move(kivsim)), socket_(std::move(socket)) {
        Json cards = Json::array();
        for (unsigned id = driver ? 1 : 3; id <= kCards; ++id) {
            cards.push_back({{"id", id}, {"flash_ms", 300}, {"interrupt_ms", 100}});
            if (id < 3) continue;
            const unsigned port = 10'000 + 2 * (static_cast<unsigned>(getpid()) % 10'000) + id % 2;
            cards.back()["tunnel"] = {{"address", "127.0.0.1"}, {"port", port}};
            if (driver) cards.back()["server"] = "external";
        }
        write_file(socket_ + ".json", text_of({{"cards", cards}}));
        start();
    }

    /// Kills it. It must not have ended by itself.
    void restart(unsigned after_ms) {
        program_->send_signal(SIGKILL);
        const Ended ended = program_->wait();
        EXPECT_EQ(ended.status, -SIGKILL) << ended.err;
        pause_ms(after_ms);
        start();
    }

    void hang(unsigned length_ms) {
        program_->send_signal(SIGSTOP);
        pause_ms(length_ms);
        program_->send_signal(SIGCONT);
    }

    ControlAnswer ask(const std::string& method, const std::string& path, const Json& body,
                      unsigned id) const {
        std::unique_lock lock(mutex_);
        const std::string control = control_;
        lock.unlock();
        return ask_control(control, method, path, body.is_null() ? "" : text_of(body), id);
    }

  private:
    void start() {
        program_ = std::make_unique<Program>(std::vector<std::string>{
            kivsim_, "--with-stdin", "--ready-json", "--socket", socket_, "--config", socket_ + ".json"});
        std::string ready;  // On a machine with much else to do a start with sanitizers takes long.
        for (int tried = 0; ready.empty() && tried < 5; ++tried)
            ready = program_->read_line();
        ASSERT_FALSE(ready.empty()) << program_->wait(std::chrono::seconds(1)).err;
        const std::lock_guard lock(mutex_);
        control_ = parsed(ready).at("control");
    }

    const std::string kivsim_, socket_;
    std::unique_ptr<Program> program_;
    mutable std::mutex mutex_;
    std::string control_;  ///< Under the mutex.
};

/// What it does is counted.
class Machine {
  public:
    /// Paths of the two programs.
    Machine(const std::string& kivsim, std::string exit_in_calls)
        : exit_in_calls_(std::move(exit_in_calls)),
          driver_(kivsim, directory_ / "driver", true),
          servers_(kivsim, directory_ / "servers", false) {
        setenv("KIVSIM_SOCKET", (directory_ / "driver").c_str(), 1);
        g_image = directory_ / "image";
        write_file(g_image, std::string(100'000, 'i'));
    }

    /// One of the two processes hangs, or is stopped and comes back.
    void trouble_a_process(bool driver, Random& random) {
        SimulatorProcess& process = driver ? driver_ : servers_;
        const std::string name = driver ? "driver" : "servers";
        pause_ms(500 + below(6000, random));
        if (below(2, random) == 0) {
            process.hang(below(1500, random));
            count(name + " hung");
        } else {
            process.restart(below(500, random));
            count(name + " killed");
        }
    }

    /// A card changes, fails or is well again.
    void trouble_a_card(Random& random) {
        const auto number = [&](unsigned count) { return below(count, random); };
        const auto choice = [&](auto one, auto other) { return number(2) == 0 ? one : other; };
        const Json path = {"path", choice("/hps/", "/hps/hwmon/info")}, call = {"selector", number(36)};
        // clang-format off
        const std::tuple<const char*, std::string, Json> kinds[] = {
            {"links",             "",               {{"links", {choice(true, false), choice(true, false)}}}},
            {"PTP state",         "",               {{"ptp_state", choice(0, 3)}}},
            {"sensor",            "",               {{"hwmon", Json::array({{{"label", "Board Power"}, {"input", number(99)}}})}}},
            {"card out",          "",               {{"removed", true}}},
            {"messages",          "/messages",      {{"arguments", {1, 2, 3}}, {"count", 50}, {"rate", 500}}},
            {"answer late",       "/http_faults",   {path, {"delay_ms", number(1500)}}},
            {"answer cut",        "/http_faults",   {path, {"cut", choice("before", "inside")}}},
            {"answer refused",    "/http_faults",   {path, {"status", choice(503, 404)}}},
            {"answer garbled",    "/http_faults",   {path, {"body", "{\"data\": [1, "}}},
            {"driver call fails", "/driver_faults", {call, {"status", "0xE00002D5"}}},
            {"driver call late",  "/driver_faults", {call, {"delay_ms", number(300)}}},
            {"driver reply cut",  "/driver_faults", {call, {"reply_size", number(16)}}},
        };
        // clang-format on
        pause_ms(number(100));
        const unsigned id = 1 + number(kCards);
        if (number(3) != 0) {
            driver_.ask("DELETE", "/http_faults", {}, id);
            driver_.ask("DELETE", "/driver_faults", {}, id);
            driver_.ask("PATCH", "", {{"removed", false}}, id);
            if (id > 2) servers_.ask("DELETE", "/http_faults", {}, id);
            return count("well again");
        }
        const auto& [kind, place, body] = kinds[number(std::size(kinds))];
        const bool of_server = id > 2 && (place.empty() || place == "/http_faults");
        const SimulatorProcess& process = of_server && number(2) == 0 ? servers_ : driver_;
        if (process.ask(place.empty() ? "PATCH" : "POST", place, body, id).status == 200) count(kind);
    }

    /// A child of this process, or another program with cards of this machine, exits at some moment.
    void end_a_child(Random& random) {
        pause_ms(below(1000, random));
        if (below(2, random) == 0) {
            const Ended ended = run_program({exit_in_calls_, std::to_string(below(2000, random))}, {},
                                            std::chrono::seconds(60));
            EXPECT_EQ(ended.status, 42) << ended.out << ended.err;
            return count("program exits");
        }
        const unsigned way = below(3, random);
        const pid_t child = fork();
        if (child == 0) {
            alarm(30);
            kiv_scan_t scan{};
            kiv_card_info_t info{};
            const bool refused =
                way == 0 || (kiv_get_card_info(1, &info) == KIV_ERR_NOT_OPENED &&
                             kiv_scan(&scan) == KIV_ERR_NOT_OPENED && kiv_close() == KIV_ERR_NOT_OPENED);
            if (way == 2) _exit(refused ? 42 : 1);
            std::exit(refused ? 42 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << "a forked child ended with " << status;
        count("fork");
    }

    /// New processes, where everything is well.
    void recover() {
        driver_.restart(0);
        servers_.restart(0);
    }

    void set_links(unsigned id, bool up) {
        EXPECT_EQ(driver_.ask("PATCH", "", {{"links", {up, up}}}, id).status, 200);
    }

  private:
    /// Simulators end with their standard input, and that with this process, however it ends.
    struct StandardInput {
        StandardInput() {
            kivos::Descriptor reading;
            if (kivos::pipe_pair(reading, writing)) dup2(reading.get(), STDIN_FILENO);
        }
        kivos::Descriptor writing;
    };

    StandardInput input_;
    TemporaryDirectory directory_;
    const std::string exit_in_calls_;
    SimulatorProcess driver_, servers_;
};

#endif
