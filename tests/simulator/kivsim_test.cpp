#include <fcntl.h>
#include <kivos/sockets.h>
#include <sys/stat.h>

#include <regex>
#include <set>

#include <kiv/kivDriverClient.h>
#include "support/ControlAddress.h"
#include "support/Json.h"
#include "support/LoopbackServer.h"
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
    expect({KIVSIM_PROGRAM, "--socket", directory / "s", "--control", port}, 1,
           "control, server 127.0.0.1:" + port + ": Address already in use");
    expect({KIVSIM_PROGRAM, "--config", directory / "none"}, 2, (directory / "none") + ": cannot be opened");
    expect({KIVSIM_PROGRAM, "check", directory / "none"}, 2, (directory / "none") + ": cannot be opened");
    for (const char* const wrong : {"", "65536", "010", "0x1", "-1", "1 "})
        EXPECT_EQ(run_program({KIVSIM_PROGRAM, "--control", wrong}).status, 2) << wrong;
    EXPECT_EQ(read_file(file), "precious");
}

TEST(Kivsim, ChecksACardsFileAndStartsNothing) {
    const TemporaryDirectory directory;
    const std::string file = directory / "cards.json";
    const std::tuple<const char*, int, std::string, std::string> rows[] = {
        {R"({"cards": [{"id": 1}, {"id": 2}]})", 0, file + ": 2 cards\n", ""},
        {R"({"cards": [{"id": 1, "links": [1]}]})", 2, "",
         "kivsim: " + file + ": cards[0].links: must be two of true and false\n"},
        {"{\n  \"cards\": [\n}", 2, "",
         "kivsim: " + file +
             ": parse error at line 3, column 1: syntax error while parsing value - unexpected '}'; expected "
             "'[', '{', or a literal\n"},
    };
    for (const auto& [text, status, out, err] : rows) {
        write_file(file, text);
        const Ended ended =
            run_program({KIVSIM_PROGRAM, "check", file}, {{"KIVSIM_SOCKET", directory / "driver.sock"}});
        EXPECT_EQ(std::tuple(ended.status, ended.out, ended.err), std::tuple(status, out, err));
    }
    EXPECT_FALSE(std::filesystem::exists(directory / "driver.sock"));
}

TEST(Kivsim, RunsAScenarioAtItsSpeedAndTellsItsSteps) {
    const TemporaryDirectory directory;
    const std::string file = directory / "scenario.json";
    for (const bool by_file : {true, false}) {
        write_file(file,
                   R"({"cards": [{"id": 1}], "speed": )" + std::string(by_file ? "1000" : "0.001") + R"(,
                             "timeline": [{"at_s": 100, "card": 1, "patch": {"log": "told"}, "for_s": 1e5}]})");
        std::vector<std::string> words = {KIVSIM_PROGRAM, "--socket", directory / "driver.sock", "--scenario",
                                          file};
        if (!by_file) words.insert(words.end(), {"--speed", "1000"});
        Program program(words);
        const std::string ready = program.read_line();
        const std::string control = ready.substr(ready.rfind(' ') + 1);
        const auto log = [&] {
            return parsed(ask_address(control, "GET", "/cards/1/settings").body).at("log").get<std::string>();
        };
        EXPECT_TRUE(wait_until([&] { return log() == "told"; })) << log();
        program.send_signal(SIGTERM);
        const Ended ended = program.wait();
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
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    Program program({KIVSIM_PROGRAM, "--scenario", directory / "pipe"});
    const kivos::Descriptor held(
        open((directory / "pipe").c_str(), O_WRONLY | O_CLOEXEC));  // Once it is read.
    program.send_signal(SIGINT);
    EXPECT_EQ(program.wait().status, -SIGINT);
}

/// The option names that a text has, sorted.
std::set<std::string> options_in(const std::string& text) {
    const std::regex option("--[a-z][a-z-]*");
    std::set<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), option); at != std::sregex_iterator(); ++at)
        found.insert(at->str());
    return found;
}

TEST(Kivsim, HasAManualWithTheOptionsOfItsHelp) {
    const std::string manual =
        std::regex_replace(read_file(KIV_ROOT "man/kivsim.1"), std::regex(R"(\\-)"), "-");
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
