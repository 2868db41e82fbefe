// Something runs out: the nth request for memory, a descriptor or a thread is refused, for each n in turn, or
// from the nth on everything. Each run is a process of its own, which does the scenario with the refusal and
// then again without.
#include "torture/scenarios.h"

#include <fcntl.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include <kivos/sockets.h>
#include "support/ConfigurationFile.h"
#include "support/Json.h"
#include "support/Program.h"
#include "support/TemporaryDirectory.h"
#include "support/Test.h"
#include "support/ThisProcess.h"

namespace {

using Numbers = std::array<long, 3>;

/// Descriptors, threads, memory that is shared with others.
Numbers held_beyond(const Numbers& before) {
    std::ifstream map("/proc/self/maps");
    long shared = 0;
    for (std::string line; std::getline(map, line);)
        shared += line.find(" rw-s ") != std::string::npos ? 1 : 0;
    return {open_descriptors() - before[0], running_threads() - before[1], shared - before[2]};
}

struct Trial {
    const Scenario* scenario;
    Numbers most;  ///< What may be left in the end, more than in the beginning.
    Resource resource{};
    long nth = 0;  ///< 0: nothing is refused.
    bool for_good = false;

    // How it ended.
    Numbers counts{}, left{};  ///< Requests of each resource; what was left.
    int status = 0;            ///< As waitpid() has it.
    std::string text{};        ///< What it has written.

    /// The first line that begins so, without that.
    std::string line(const std::string& begin) const {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);)
            if (line.starts_with(begin)) return line.substr(begin.size());
        return "";
    }
};

/// A simulator, and the run that uses it alone.
class Slot {
  public:
    Slot() {
        write_file(directory_ / "cards",
                   R"({"cards": [{"id": 1, "flash_ms": 1, "tunnel": {"address": "127.0.0.1", "port": 0}}]})");
        write_file(place_.image, std::string(1000, 'x'));
        simulator_.emplace(std::vector<std::string>{KIVSIM_PROGRAM, "--config", directory_ / "cards",
                                                    "--socket", directory_ / "socket", "--ready-json"});
        const Json ready = parsed(simulator_->read_line());
        place_.control = ready.at("control").get<std::string>();
        const std::string server = ready.at("cards").at(0).at("server").get<std::string>();
        place_.port = server.substr(server.find(':') + 1);
    }

    bool is_free() const { return pid_ < 0; }

    void start(const Trial& trial) {
        kivos::Descriptor end;
        if (!kivos::pipe_pair(report_, end)) throw std::runtime_error("no pipe");
        trial_ = trial;
        std::cout.flush();
        pid_ = fork();
        if (pid_ == 0) live(end.get());
    }

    Trial finish() {
        char block[4096];
        for (ssize_t size = 0; (size = read(report_.get(), block, sizeof block)) > 0;)
            trial_.text.append(block, static_cast<std::size_t>(size));
        waitpid(std::exchange(pid_, -1), &trial_.status, 0);
        std::istringstream numbers(trial_.line("counted, and left:"));
        for (Numbers* const of : {&trial_.counts, &trial_.left})
            numbers >> of->at(0) >> of->at(1) >> of->at(2);
        return trial_;
    }

  private:
    /// In a process of its own, which ends with status 0 when all is as it should be.
    [[noreturn]] void live(int report) {
        const Uncounted own;
        alarm(30);  // The end of one that hangs.
        for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
            dup2(report, stream);  // For what tests and sanitizers tell.
        setvbuf(stdout, nullptr, _IOLBF, 0);
        setenv("KIVSIM_SOCKET", (directory_ / "socket").c_str(), 1);
        g_configuration = directory_ / "configuration";
        write_file(g_configuration, ConfigurationFile::sample());

        const Numbers before = held_beyond({});
        Calls meanwhile{trial_.nth == 0, trial_.for_good}, afterwards{true, false};
        begin_to_count(trial_.resource, trial_.nth, trial_.for_good, report);
        trial_.scenario->run(meanwhile, place_);
        end_to_count();
        trial_.scenario->run(afterwards, place_);
        const auto is_clean = [&] {
            const Numbers left = held_beyond(before), most = trial_.most;
            return left[0] <= most[0] && left[1] <= most[1] && left[2] <= most[2];
        };
        EXPECT_TRUE(wait_until(is_clean, std::chrono::seconds(5))) << "too much is left";
        std::cout << "counted, and left:";
        for (const Resource resource : kResources)
            std::cout << ' ' << counted(resource);
        for (const long count : held_beyond(before))
            std::cout << ' ' << count;
        std::cout << std::endl;
        exit(testing::Test::HasFailure() ? 1 : 0);
    }

    TemporaryDirectory directory_;
    Place place_{"", "", directory_ / "image", directory_ / "scratch"};
    std::optional<Program> simulator_;
    kivos::Descriptor report_;
    pid_t pid_ = -1;
    Trial trial_;
};

/// The functions of a library by their places, as nm tells them.
std::map<std::size_t, std::string> functions_of(const std::string& library) {
    std::map<std::size_t, std::string> found = {{0, "?"}};
    std::istringstream lines(run_program({"nm", "-C", "--defined-only", library}).out);
    std::string place, kind, name;
    while (lines >> place >> kind && std::getline(lines >> std::ws, name))
        found[std::stoul(place, nullptr, 16)] = name;
    return found;
}

constexpr char kJson[] = "the JSON library";

/// Who asked: the first on the stack that stands before neither the system's nor the compiler's libraries. Of
/// libraries whose functions are compiled into ours, the library.
std::string owner_of(const std::string& stack) {
    static const std::map<std::string, std::map<std::size_t, std::string>> ours = {
        {"libkiv", functions_of(KIV_LIBRARY)}, {"libkivplatform", functions_of(KIVPLATFORM_LIBRARY)}};
    std::istringstream frames(stack);
    for (std::string frame; frames >> frame;) {
        const std::string library = frame.substr(0, frame.find(".so"));
        const bool between = frame.starts_with("torture_test") || library == "libc" ||
                             library == "libgcc_s" || library == "libstdc++" || library.ends_with("san") ||
                             library.starts_with("ld-");
        if (between) continue;
        const auto functions = ours.find(library);
        if (functions == ours.end()) return library;
        const std::size_t returns_to = std::stoul(frame.substr(frame.find('+') + 1), nullptr, 16);
        const std::string& name = std::prev(functions->second.lower_bound(returns_to))->second;
        if (name.find("nlohmann::") < name.find('(')) return kJson;
        if (name.find("fmt::") < name.find('(')) return "libfmt";
        if (name.find("std::") != 0 || name.find("kiv") < name.find('(')) return library;
    }
    return "the test";
}

/// Refuses each request of a scenario, or a choice of them, in turn.
class EachScenario : public testing::TestWithParam<Scenario> {
  protected:
    void refuse_each(Resource resource, const Trial& well) {
        constexpr long kFirst = 6, kRest = 10;  // Those that are chosen, of a resource.
        const long count = well.counts[static_cast<std::size_t>(resource)];
        const auto step = [&](long nth) {
            return whole_ || count < 20 || nth < kFirst ? 1 : count / kRest + 1;
        };
        tally(resource).requests += count;
        for (long nth = 1; nth <= count; nth += step(nth)) {
            for (const bool for_good : {false, true}) {
                Slot& slot = slots_[next_++ % slots_.size()];
                if (!slot.is_free()) judge(slot.finish());
                slot.start({well.scenario, well.left, resource, nth, for_good});
            }
        }
    }

    /// Our own code may not end the process; the JSON library's values ask for memory when they are
    /// destroyed, and we can do nothing about it.
    void judge(const Trial& trial) {
        const std::string who = trial.line("refused"), terminated = trial.line("terminated");
        if (who.empty() && trial.status == 0) return;  // This time fewer were made.
        Tally& of = tally(trial.resource);
        const bool by_json = !terminated.empty() && owner_of(terminated) == kJson;
        ++of.runs;
        of.ended_by_json += by_json ? 1 : 0;
        of.passed += trial.status == 0 ? 1 : 0;
        places_[owner_of(who)].insert(who);
        if (trial.status == 0 || by_json) return;
        failures_ << of.name << ' ' << trial.nth << (trial.for_good ? " and on" : "") << ", asked for by "
                  << owner_of(who) << ", ends with " << trial.status << ":\n"
                  << trial.text;
    }

    struct Tally {
        const char* name;
        long requests = 0, runs = 0, passed = 0, ended_by_json = 0;
    };
    Tally& tally(Resource resource) { return tallies_[static_cast<std::size_t>(resource)]; }

    const bool whole_ = std::getenv("KIV_TORTURE_WHOLE") != nullptr;
    std::vector<Slot> slots_{whole_ ? 8u : 4u};
    std::size_t next_ = 0;
    Tally tallies_[std::size(kResources)] = {{"memory"}, {"descriptors"}, {"threads"}};
    std::map<std::string, std::set<std::string>> places_;  ///< By owner.
    std::ostringstream failures_;  ///< Told in the end: trials inherit what this process has failed in.
};

}  // namespace

TEST_P(EachScenario, EndsInACodeOrAnExceptionAndAllIsWellAfterwards) {
    slots_[0].start({&GetParam(), {100, 100, 100}});
    const Trial well = slots_[0].finish();
    ASSERT_EQ(well.status, 0) << well.text;
    for (const Resource resource : kResources)
        refuse_each(resource, well);
    for (Slot& slot : slots_)
        if (!slot.is_free()) judge(slot.finish());

    for (const Tally& of : tallies_)
        std::cout << of.name << ": " << of.requests << " requests, " << of.runs << " runs, " << of.passed
                  << " passed, " << of.ended_by_json << " ended by " << kJson << '\n';
    std::cout << "places that asked:";
    for (const auto& [owner, places] : places_)
        std::cout << ' ' << owner << ' ' << places.size();
    std::cout << std::endl;
    EXPECT_TRUE(failures_.str().empty()) << failures_.str();
}

INSTANTIATE_TEST_SUITE_P(Torture, EachScenario, testing::ValuesIn(kScenarios),
                         [](const auto& row) { return std::string(row.param.name); });
