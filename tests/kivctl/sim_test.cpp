// Commands with a simulator of their own.
#include "kivctl/Kivctl.h"

namespace {

namespace fs = std::filesystem;

/// The folders of the simulators of one process.
std::vector<fs::path> folders_of(const std::string& pid) {
    std::vector<fs::path> found(fs::directory_iterator("/tmp"), {});
    std::erase_if(found, [&](const fs::path& path) {
        return !path.filename().string().starts_with("kivctl-" + pid + "-");
    });
    return found;
}

class OwnSimulator : public KivctlConfigured {
  protected:
    std::string cards_file(const std::string& text) const {
        write_file(directory_ / "cards.json", text);
        return directory_ / "cards.json";
    }

    /// A program that prints its process id first.
    static Words telling_its_id(const Words& words) { return shell("echo $$; exec \"$0\" \"$@\"", words); }

    static Ended run_and_look_behind(const Words& words) {
        Ended ended = run_program(telling_its_id(words));
        const std::size_t end = ended.out.find('\n');
        EXPECT_EQ(folders_of(ended.out.substr(0, end)).size(), 0u);
        ended.out.erase(0, end + 1);
        return ended;
    }

    TemporaryDirectory directory_;
};

}  // namespace

TEST_F(OwnSimulator, EndsWithTheCommand) {
    configuration_.remove();
    const std::string file = cards_file(R"({"cards": [{"id": 5, "links": [true, false]}]})");
    for (const Words& words :
         std::vector<Words>{{"--sim", file, "--json", "link"},
                            {"--json", "--timeout", "20", "--sim=" + file, "link", "5"}}) {
        const Ended ended = run_and_look_behind(words);
        EXPECT_EQ(ended.status, 0) << ended.err;
        EXPECT_EQ(parsed(ended.out)["ports"][1]["link"], "down");
    }
    EXPECT_EQ(json_of({"--sim", "scan"})["cards"].size(), 2u);

    Program watch(telling_its_id({"--sim", "watch"}));
    const std::string pid = watch.read_line();
    EXPECT_TRUE(has(watch.read_line(), "    state  port 0 up"));
    EXPECT_EQ(folders_of(pid).size(), 1u);
    EXPECT_EQ(watch.end(SIGTERM).status, 0);
    EXPECT_EQ(folders_of(pid).size(), 0u);
    EXPECT_EQ(run_and_look_behind({"--sim", "--timeout", "1", "watch"}).status, 4);
}

TEST_F(OwnSimulator, EndsWithAKilledProgramToo) {
    const std::string file = cards_file(R"({"cards": [{"id": 1}]})");
    Program watch(telling_its_id({"--sim", file, "watch", "--json"}));
    const std::string pid = watch.read_line();
    EXPECT_FALSE(watch.read_line().empty());
    const Environment there{{"KIVSIM_SOCKET", folders_of(pid).at(0) / "socket"}};
    const auto simulator_runs = [&] { return run_program(kivctl({"scan"}), there).status == 0; };
    EXPECT_TRUE(simulator_runs());
    watch.end(SIGKILL);
    EXPECT_TRUE(wait_until([&] { return !simulator_runs(); }));
    for (const auto& folder : folders_of(pid))  // Nobody was left to remove it.
        fs::remove_all(folder);
}

TEST_F(OwnSimulator, LetsTheLibrarysLogBeSeen) {
    EXPECT_TRUE(has(run({"--sim", "-v", "info", "1"}).err, "[info]"));
    EXPECT_EQ(run({"--sim", "info", "1"}).err, "");
}

TEST_F(OwnSimulator, SaysWhyItCannotRun) {
    const std::pair<Words, const char*> kRefused[] = {
        {{"--sim", cards_file(R"({"cards": [{"id": 5, "lnks": 1}]})"), "scan"}, "cards[0].lnks: unknown key"},
        {{"--sim=/nowhere", "scan"}, "/nowhere: cannot be opened"},
        {{"--sim", "", "scan"}, "is empty"},
        {{"--sim=", "scan"}, "is empty"},
        {{"--sim", "scna"}, "a command is missing behind \"--sim scna\""},
        {{"--sim", "cards.json", "scna"}, "did you mean \"kivctl scan\"?"},
        {{"scan", "--sim"}, "--sim stands before the command"},
        {{"scan", "--sim=cards.json"}, "--sim stands before the command"}};
    for (const auto& [words, message] : kRefused)
        expect_error(run_and_look_behind(words), 2, message);
}
