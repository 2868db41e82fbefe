#include "soak/Machine.h"

#include <gtest/gtest.h>
#include <kivos/sockets.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <thread>

#include "support/Json.h"
#include "support/Waiting.h"

namespace {

using std::chrono::milliseconds;

void pause_ms(unsigned length) {
    std::this_thread::sleep_for(milliseconds(length));
}

/// Ports of the servers that start anew: below those that systems hand out.
unsigned port_of(unsigned id) {
    return 10'000 + 2 * (static_cast<unsigned>(getpid()) % 10'000) + id % 2;
}

/// The cards of one of the processes. Cards 3 and 4 are in both.
std::string cards_of(bool driver) {
    Json cards = Json::array();
    for (unsigned id = driver ? 1 : 3; id <= kCards; ++id) {
        cards.push_back({{"id", id}, {"flash_ms", 300}, {"interrupt_ms", 100}});
        if (id < 3) continue;
        cards.back()["tunnel"] = {{"address", "127.0.0.1"}, {"port", port_of(id)}};
        if (driver) cards.back()["server"] = "external";
    }
    return text_of({{"cards", cards}});
}

/// Simulators end with their standard input, and that with this process, however it ends.
void hold_standard_input() {
    static kivos::Descriptor writing;
    kivos::Descriptor reading;
    if (writing || !kivos::pipe_pair(reading, writing)) return;
    dup2(reading.get(), STDIN_FILENO);
}

}  // namespace

SimulatorProcess::SimulatorProcess(std::string socket, const std::string& cards)
    : socket_(std::move(socket)), cards_(socket_ + ".json") {
    write_file(cards_, cards);
    hold_standard_input();
    start();
}

void SimulatorProcess::start() {
    program_ = std::make_unique<Program>(std::vector<std::string>{
        KIVSIM_PROGRAM, "--with-stdin", "--ready-json", "--socket", socket_, "--config", cards_});
    std::string ready;  // On a machine with much else to do a start with sanitizers takes long.
    for (int tried = 0; ready.empty() && tried < 5; ++tried)
        ready = program_->read_line();
    ASSERT_FALSE(ready.empty()) << program_->wait(std::chrono::seconds(1)).err;
    const std::lock_guard lock(mutex_);
    control_ = parsed(ready).at("control");
}

void SimulatorProcess::stop() {
    program_->send_signal(SIGKILL);
    const Ended ended = program_->wait();
    EXPECT_EQ(ended.status, -SIGKILL) << ended.err;
}

void SimulatorProcess::hang(unsigned length) {
    program_->send_signal(SIGSTOP);
    pause_ms(length);
    program_->send_signal(SIGCONT);
}

ControlAnswer SimulatorProcess::ask(const std::string& method, const std::string& path,
                                    const std::string& body, unsigned id) const {
    std::string control;
    {
        const std::lock_guard lock(mutex_);
        control = control_;
    }
    return ask_control(control, method, path, body, id);
}

Machine::Machine()
    : driver_(directory_ / "driver", cards_of(true)), servers_(directory_ / "servers", cards_of(false)) {
    setenv("KIVSIM_SOCKET", (directory_ / "driver").c_str(), 1);
    g_image = directory_ / "image";
    write_file(g_image, std::string(100'000, 'i'));
}

void Machine::trouble_a_process(unsigned which, Random& random) {
    SimulatorProcess& process = which == 0 ? driver_ : servers_;
    const std::string name = which == 0 ? "driver" : "servers";
    pause_ms(500 + below(6000, random));
    if (below(2, random) == 0) {
        process.hang(below(1500, random));
        return count(name + " hung");
    }
    process.stop();
    pause_ms(below(500, random));
    process.start();
    count(name + " killed");
}

void Machine::trouble_a_card(Random& random) {
    const auto number = [&](unsigned count) { return std::to_string(below(count, random)); };
    const auto choice = [&](const char* one, const char* other) {
        return below(2, random) == 0 ? one : other;
    };
    const std::string path = choice("/hps/", "/hps/hwmon/info");
    const std::string request = R"({"path": ")" + path + R"(", )";
    const std::string call = R"({"selector": )" + number(36) + ", ";
    const std::string up = std::string("[") + choice("true", "false") + ", " + choice("true", "false") + "]";
    // clang-format off
    const std::tuple<const char*, const char*, const char*, std::string> kinds[] = {
        {"links",             "PATCH", "",               R"({"links": )" + up + "}"},
        {"PTP state",         "PATCH", "",               std::string(R"({"ptp_state": )") + choice("0", "3") + "}"},
        {"sensor",            "PATCH", "",               R"({"hwmon": [{"label": "Board Power", "input": )" + number(99) + "}]}"},
        {"card out",          "PATCH", "",               R"({"removed": true})"},
        {"messages",          "POST",  "/messages",      R"({"arguments": [1, 2, 3], "count": 50, "rate": 500})"},
        {"answer late",       "POST",  "/http_faults",   request + R"("delay_ms": )" + number(1500) + "}"},
        {"answer cut",        "POST",  "/http_faults",   request + R"("cut": ")" + choice("before", "inside") + "\"}"},
        {"answer refused",    "POST",  "/http_faults",   request + R"("status": )" + choice("503", "404") + "}"},
        {"answer garbled",    "POST",  "/http_faults",   request + R"("body": "{\"data\": [1, "})"},
        {"driver call fails", "POST",  "/driver_faults", call + R"("status": "0xE00002D5"})"},
        {"driver call late",  "POST",  "/driver_faults", call + R"("delay_ms": )" + number(300) + "}"},
        {"driver reply cut",  "POST",  "/driver_faults", call + R"("reply_size": )" + number(16) + "}"},
    };
    // clang-format on
    pause_ms(below(100, random));
    const unsigned id = 1 + below(kCards, random);
    if (below(3, random) != 0) {
        driver_.ask("DELETE", "/http_faults", "", id);
        driver_.ask("DELETE", "/driver_faults", "", id);
        driver_.ask("PATCH", "", R"({"removed": false})", id);
        if (id > 2) servers_.ask("DELETE", "/http_faults", "", id);
        return count("well again");
    }
    const auto& [kind, method, place, body] = kinds[below(std::size(kinds), random)];
    const bool of_server =
        id > 2 && std::string(place) != "/driver_faults" && std::string(place) != "/messages";
    const SimulatorProcess& process = of_server && below(2, random) == 0 ? servers_ : driver_;
    if (process.ask(method, place, body, id).status == 200) count(kind);
}

void Machine::end_a_child(Random& random) {
    pause_ms(below(1000, random));
    if (below(2, random) == 0) {
        const Ended ended = run_program({EXIT_IN_CALLS_PROGRAM, std::to_string(below(2000, random))}, {},
                                        std::chrono::seconds(60));
        EXPECT_EQ(ended.status, 42) << ended.out << ended.err;
        return count("program exits");
    }
    const unsigned way = below(3, random);
    const pid_t child = fork();
    if (child == 0) {
        kiv_scan_t scan{};
        kiv_card_info_t info{};
        const bool refused =
            way == 0 || (kiv_get_card_info(1, &info) == KIV_ERR_NOT_OPENED &&
                         kiv_scan(&scan) == KIV_ERR_NOT_OPENED && kiv_close() == KIV_ERR_NOT_OPENED);
        if (way == 2) _exit(refused ? 42 : 1);
        std::exit(refused ? 42 : 1);
    }
    int status = 0;
    if (!wait_until([&] { return waitpid(child, &status, WNOHANG) == child; }, std::chrono::seconds(30))) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << "a forked child ended with " << status;
    count("fork");
}

void Machine::recover() {
    for (SimulatorProcess* process : {&driver_, &servers_}) {
        process->stop();
        process->start();
    }
}

void Machine::set_links(unsigned id, bool up) {
    const std::string links = up ? "[true, true]" : "[false, false]";
    EXPECT_EQ(driver_.ask("PATCH", "", R"({"links": )" + links + "}", id).status, 200);
}

std::map<std::string, long> Machine::troubles() const {
    const std::lock_guard lock(mutex_);
    return troubles_;
}

void Machine::count(const std::string& kind) {
    const std::lock_guard lock(mutex_);
    ++troubles_[kind];
}
