#include <fcntl.h>
#include <kivos/sockets.h>
#include <sys/stat.h>

#include <set>

#include <kiv/kivDriverClient.h>
#include "support/ControlAddress.h"
#include "support/Json.h"
#include "support/LoopbackServer.h"
#include "support/Patterns.h"
#include "support/Program.h"
#include "support/TemporaryDirectory.h"
#include "support/Test.h"

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

void expect(const std::vector<std::string>& command, int status, const std::string& error) {
    const Ended ended = run_program(command);
    EXPECT_EQ(ended.status, status);
    EXPECT_EQ(ended.out, "");
    EXPECT_EQ(ended.err, "kivsim: " + error + "\n");
}

TEST(Kivsim, RunsFromItsReadyLineToASignal) {
    for (const int number : {SIGINT, SIGTERM}) {
        Kivsim kivsim;
        const std::string server = "127\\.0\\.0\\.1:\\d+";
        const std::string line =
            "2 cards, socket " + kivsim.socket + ", servers " + server + " " + server + ", control " + server;
        EXPECT_EQ(matches_of(kivsim.ready, line), Lines{kivsim.ready});
        EXPECT_EQ(std::filesystem::status(kivsim.socket).permissions(), std::filesystem::perms(0600));
        const kivDriverClientList connected = clients();  // Does not keep it from ending.
        EXPECT_EQ(connected.size(), 4u);
        EXPECT_EQ(kivsim.program->end(number).status, 0);
        EXPECT_FALSE(std::filesystem::exists(kivsim.socket));
    }
}

TEST(Kivsim, LeavesASocketThatSomebodyServes) {
    Kivsim kivsim;
    clients();
    const std::string trace = read_file(kivsim.trace);
    EXPECT_NE(trace, "");
    expect(kivsim.command, 1, kivsim.socket + ": another simulator serves this socket");  // The very same.
    EXPECT_TRUE(read_file(kivsim.trace).starts_with(trace));
    EXPECT_EQ(clients().size(), 4u);
}

TEST(Kivsim, TakesOverASocketThatNobodyServes) {
    Kivsim kivsim;
    EXPECT_EQ(kivsim.program->end(SIGKILL).status, -SIGKILL);
    EXPECT_TRUE(std::filesystem::is_socket(kivsim.socket));
    kivsim.start();
    EXPECT_NE(kivsim.ready, "");
    EXPECT_EQ(clients().size(), 4u);
}

TEST(Kivsim, SaysWhatIsInTheWay) {
    const TemporaryDirectory directory;
    const std::string file = directory / "file";
    const std::string none = directory / "none";
    const std::string socket = directory / "s";
    const std::string cards = directory / "cards.json";
    write_file(file, "precious");
    const LoopbackServer other({LoopbackServer::http(200, "")});
    const std::string port = std::to_string(other.port());
    write_file(cards, R"({"cards": [{"id": 5, "tunnel": {"address": "127.0.0.1", "port": )" + port + "}}]}");
    expect({KIVSIM_PROGRAM, "--socket", file}, 1, file + ": exists and is not a socket");
    const std::string taken = ", server 127.0.0.1:" + port + ": Address already in use";
    expect({KIVSIM_PROGRAM, "--socket", socket, "--config", cards}, 1, "card 5" + taken);
    expect({KIVSIM_PROGRAM, "--socket", socket, "--control", port}, 1, "control" + taken);
    for (const char* const how : {"--config", "check"})
        expect({KIVSIM_PROGRAM, how, none}, 2, none + ": cannot be opened");
    for (const char* const wrong : {"", "65536", "010", "0x1", "-1", "1 "})
        EXPECT_EQ(run_program({KIVSIM_PROGRAM, "--control", wrong}).status, 2) << wrong;
    EXPECT_EQ(read_file(file), "precious");
}

TEST(Kivsim, ChecksACardsFileAndStartsNothing) {
    const TemporaryDirectory directory;
    const std::string file = directory / "cards.json";
    const std::tuple<const char*, int, std::string> rows[] = {
        {R"({"cards": [{"id": 1}, {"id": 2}]})", 0, "2 cards"},
        {R"({"cards": [{"id": 1, "links": [1]}]})", 2, "cards[0].links: must be two of true and false"},
        {"{\n  \"cards\": [\n}", 2,
         R"(parse error at line 3, column 1: syntax error while parsing value - )"
         R"(unexpected '}'; expected '[', '{', or a literal)"}};
    for (const auto& [text, status, said] : rows) {
        write_file(file, text);
        const Ended ended =
            run_program({KIVSIM_PROGRAM, "check", file}, {{"KIVSIM_SOCKET", directory / "driver.sock"}});
        EXPECT_EQ(ended.status, status) << text;
        EXPECT_EQ(ended.out, status == 0 ? file + ": " + said + "\n" : "");
        EXPECT_EQ(ended.err, status == 0 ? "" : "kivsim: " + file + ": " + said + "\n");
    }
    EXPECT_FALSE(std::filesystem::exists(directory / "driver.sock"));
}

TEST(Kivsim, RunsAScenarioAtItsSpeedAndTellsItsSteps) {
    const TemporaryDirectory directory;
    const std::string file = directory / "scenario.json";
    for (const bool by_file : {true, false}) {
        const std::string speed = by_file ? "1000" : "0.001";
        write_file(file, R"({"cards": [{"id": 1}], "speed": )" + speed + R"(,
            "timeline": [{"at_s": 100, "card": 1, "patch": {"log": "told"}, "for_s": 1e5}]})");
        Lines words = {KIVSIM_PROGRAM, "--socket", directory / "driver.sock", "--scenario", file};
        if (!by_file) words.insert(words.end(), {"--speed", "1000"});
        Program program(words);
        const std::string ready = program.read_line();
        const std::string control = ready.substr(ready.rfind(' ') + 1);
        const auto log = [&] {
            return parsed(ask_address(control, "GET", "/cards/1/settings").body).at("log").get<std::string>();
        };
        EXPECT_TRUE(wait_until([&] { return log() == "told"; })) << log();
        const Ended ended = program.end(SIGTERM);
        EXPECT_EQ(std::tuple(ended.status, ended.err),
                  std::tuple(0, "kivsim: 100 s card 1: patch {\"log\":\"told\"} for 100000 s\n"));
    }
    EXPECT_EQ(run_program({KIVSIM_PROGRAM, "check", file}).out, file + ": 1 cards, 1 step\n");
    for (const char* const wrong : {"nan", "0", "1001", "x"})
        EXPECT_EQ(run_program({KIVSIM_PROGRAM, "--speed", wrong}).status, 2) << wrong;
}

TEST(Kivsim, ServesAProgramThatStartsItAndEndsWithThatProgramsPipe) {
    const TemporaryDirectory directory;
    const std::string pipe = directory / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    Program program({"/bin/sh", "-c",
                     R"(exec "$0" --socket "$1/driver.sock" --ready-json --with-stdin < "$1/pipe")",
                     KIVSIM_PROGRAM, directory / ""});
    kivos::Descriptor held(open(pipe.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(write(held.get(), "text", 4), 4);
    const Json ready = parsed(program.read_line());
    EXPECT_EQ(ready.at("schema"), "kivsim.ready/1");
    EXPECT_EQ(ready.at("socket"), (directory / "") + "/driver.sock");
    EXPECT_EQ(ready.at("cards").size(), 2u);
    EXPECT_EQ(ready.at("cards")[1].at("card"), 2);
    EXPECT_EQ(ask_address(ready.at("cards")[1].at("server"), "GET", "/api/v1.0/hps/hwmon/info").status, 200);
    const std::string control = ready.at("control");
    EXPECT_EQ(ask_address(control, "GET", "/cards").status, 200);
    held.reset();
    EXPECT_EQ(program.wait().status, 0);

    const std::string port = control.substr(control.find(':') + 1);  // Free again.
    Program with_port({KIVSIM_PROGRAM, "--socket", directory / "driver.sock", "--control", port});
    EXPECT_TRUE(with_port.read_line().ends_with(", control " + control));
}

TEST(Kivsim, EndsOnASignalWhileItReadsItsFile) {
    const TemporaryDirectory directory;
    const std::string pipe = directory / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    Program program({KIVSIM_PROGRAM, "--scenario", pipe});
    const kivos::Descriptor held(open(pipe.c_str(), O_WRONLY | O_CLOEXEC));  // Once it is read.
    EXPECT_EQ(program.end(SIGINT).status, -SIGINT);
}

TEST(Kivsim, HasAManualWithTheOptionsOfItsHelp) {
    const auto options_in = [](const std::string& text) {
        const Lines options = matches_of(text, "--[a-z][a-z-]*");
        return std::set(options.begin(), options.end());
    };
    const std::string manual = replaced(read_file(KIV_ROOT "man/kivsim.1"), R"(\\-)", "-");
    const std::string help = run_program({KIVSIM_PROGRAM, "--help"}).out;
    EXPECT_TRUE(options_in(help).contains("--with-stdin")) << help;
    EXPECT_EQ(options_in(manual), options_in(help));
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
