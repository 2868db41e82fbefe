#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <regex>

#include <kiv/kivDriverClient.h>
#include "support/LoopbackServer.h"
#include "support/Program.h"
#include "support/TemporaryDirectory.h"

namespace {

/// A running kivsim with files of its own, on the socket that the driver client looks at.
class Kivsim {
  public:
    explicit Kivsim(const std::string& cards = R"({"cards": [{"id": 1}, {"id": 2}]})") {
        setenv("KIVSIM_SOCKET", socket.c_str(), 1);
        write_file(directory_ / "cards.json", cards);
        start();
    }

    void start() {
        program = std::make_unique<Program>(command);
        ready = program->read_line();
    }

  private:
    const TemporaryDirectory directory_;

  public:
    const std::string socket = directory_ / "driver.sock";
    const std::string trace = directory_ / "trace";
    const std::vector<std::string> command = {
        KIVSIM_PROGRAM, "--socket", socket, "--trace", trace, "--config", directory_ / "cards.json"};
    std::unique_ptr<Program> program;
    std::string ready;
};

kivDriverClientList clients() {
    return kivDriverClient::enumerateDevices("kivPCIService");
}

TEST(Kivsim, RunsFromItsReadyLineToASignal) {
    for (const int number : {SIGINT, SIGTERM}) {
        Kivsim kivsim;
        const std::string server = "127\\.0\\.0\\.1:\\d+";
        const std::regex line("2 cards, socket " + kivsim.socket + ", servers " + server + " " + server +
                              ", control " + server);
        EXPECT_TRUE(std::regex_match(kivsim.ready, line)) << kivsim.ready;
        EXPECT_EQ(std::filesystem::status(kivsim.socket).permissions(), std::filesystem::perms(0600));
        const kivDriverClientList connected = clients();  // Does not keep it from ending.
        EXPECT_EQ(connected.size(), 4u);
        kivsim.program->send_signal(number);
        const Ended ended = kivsim.program->wait();
        EXPECT_EQ(ended.status, 0);
        EXPECT_FALSE(std::filesystem::exists(kivsim.socket));
    }
}

TEST(Kivsim, LeavesASocketThatSomebodyServes) {
    Kivsim kivsim;
    clients();
    const std::string trace = read_file(kivsim.trace);
    EXPECT_NE(trace, "");
    const Ended second = run_program(kivsim.command);  // The very same once more.
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.out, "");
    EXPECT_EQ(second.err, "kivsim: " + kivsim.socket + ": another simulator serves this socket\n");
    EXPECT_TRUE(read_file(kivsim.trace).starts_with(trace));
    EXPECT_EQ(clients().size(), 4u);
}

TEST(Kivsim, TakesOverASocketThatNobodyServes) {
    Kivsim kivsim;
    kivsim.program->send_signal(SIGKILL);
    EXPECT_EQ(kivsim.program->wait().status, -SIGKILL);
    EXPECT_TRUE(std::filesystem::is_socket(kivsim.socket));
    kivsim.start();
    EXPECT_NE(kivsim.ready, "");
    EXPECT_EQ(clients().size(), 4u);
}

TEST(Kivsim, SaysWhatIsInTheWay) {
    const TemporaryDirectory directory;
    const std::string file = directory / "file";
    write_file(file, "precious");
    const LoopbackServer other({LoopbackServer::http(200, "")});
    const std::string port = std::to_string(other.port());
    write_file(directory / "cards.json",
               R"({"cards": [{"id": 5, "tunnel": {"address": "127.0.0.1", "port": )" + port + "}}]}");
    const auto expect = [](const std::vector<std::string>& command, int status, const std::string& text) {
        const Ended ended = run_program(command);
        EXPECT_EQ(ended.status, status);
        EXPECT_EQ(ended.out, "");
        EXPECT_EQ(ended.err, "kivsim: " + text + "\n");
    };
    expect({KIVSIM_PROGRAM, "--socket", file}, 1, file + ": exists and is not a socket");
    expect({KIVSIM_PROGRAM, "--socket", directory / "s", "--config", directory / "cards.json"}, 1,
           "card 5, server 127.0.0.1:" + port + ": Address already in use");
    expect({KIVSIM_PROGRAM, "--config", directory / "none"}, 2, (directory / "none") + ": cannot be opened");
    EXPECT_EQ(read_file(file), "precious");
}

TEST(Kivsim, RunsManyCards) {
    std::string cards;
    for (int id = 0; id < 250; ++id)
        cards += (id == 0 ? "" : ", ") + (R"({"id": )" + std::to_string(id) + "}");
    Kivsim kivsim("{\"cards\": [" + cards + "]}");
    EXPECT_TRUE(kivsim.ready.starts_with("250 cards, ")) << kivsim.ready;
    const kivDriverClientList found = clients();
    ASSERT_EQ(found.size(), 500u);
    for (size_t i = 0; i < found.size(); ++i)
        EXPECT_EQ(found[i]->device_conf.device_index, i / 2);
}

}  // namespace
