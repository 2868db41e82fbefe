// Something runs out: the nth request for memory, a descriptor or a thread is refused, for each n in turn, or
// from the nth on everything. Each run is a process of its own, which does the scenario with the refusal and
// then again without.
#include <gtest/gtest.h>
#include "torture/scenarios.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <kivos/sockets.h>
#include "support/ConfigurationFile.h"
#include "support/Json.h"
#include "support/Program.h"
#include "support/TemporaryDirectory.h"
#include "support/ThisProcess.h"
#include "support/Waiting.h"

namespace {

struct Point {
    const Scenario* scenario;
    Resource resource;
    long nth;  ///< 0: nothing is refused.
    bool for_good;
};

/// How a run ended, and what it has written.
struct Run {
    Point point;
    int status;  ///< As waitpid() has it.
    std::string text;

    /// The first line that begins so, without that.
    std::string line(const std::string& begin) const {
        const std::string lines = "\n" + text;
        const std::size_t at = lines.find("\n" + begin + " ");
        if (at == std::string::npos) return "";
        const std::size_t from = at + begin.size() + 2;
        return lines.substr(from, lines.find('\n', from) - from);
    }
};

/// Descriptors, threads, memory that is shared with others.
using Held = std::array<long, 3>;

Held held() {
    std::ifstream map("/proc/self/maps");
    long shared = 0;
    for (std::string line; std::getline(map, line);)
        shared += line.find(" rw-s ") != std::string::npos ? 1 : 0;
    return {open_descriptors(), running_threads(), shared};
}

bool is_within(const Held& now, const Held& most) {
    return now[0] <= most[0] && now[1] <= most[1] && now[2] <= most[2];
}

template <std::size_t size>
std::array<long, size> numbers(const std::string& text) {
    std::array<long, size> found{};
    std::istringstream in(text);
    for (long& number : found)
        in >> number;
    return found;
}

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

    /// `most`: what may be held in the end, more than in the beginning.
    void start(const Point& point, const Held& most) {
        kivos::Descriptor end;
        if (!kivos::pipe_pair(report_, end)) throw std::runtime_error("no pipe");
        point_ = point;
        std::cout.flush();
        pid_ = fork();
        if (pid_ == 0) run(end.get(), most);
    }

    /// A run that does not end is killed.
    Run finish() {
        Run ended{point_, 0, ""};
        const Stopwatch watch;
        pollfd entry{report_.get(), POLLIN, 0};
        char block[4096];
        for (ssize_t size = 1; size > 0;) {
            if (poll(&entry, 1, 1000) == 0) {
                if (watch.elapsed() > std::chrono::seconds(30)) kill(pid_, SIGKILL);
                continue;
            }
            size = read(report_.get(), block, sizeof block);
            ended.text.append(block, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        }
        waitpid(std::exchange(pid_, -1), &ended.status, 0);
        return ended;
    }

  private:
    /// In a process of its own, which ends with status 0 when all is as it should be.
    [[noreturn]] void run(int report, const Held& most) {
        const Uncounted own;
        dup2(report, STDERR_FILENO);  // Where sanitizers tell what they find.
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        setenv("KIVSIM_SOCKET", (directory_ / "socket").c_str(), 1);
        g_configuration = directory_ / "configuration";
        write_file(g_configuration, ConfigurationFile::sample());

        const Held before = held();
        const auto more = [&] {
            const Held now = held();
            return Held{now[0] - before[0], now[1] - before[1], now[2] - before[2]};
        };
        Calls meanwhile(point_.nth == 0, point_.for_good), afterwards(true);
        begin_to_count(point_.resource, point_.nth, point_.for_good, report);
        point_.scenario->run(meanwhile, place_);
        end_to_count();
        point_.scenario->run(afterwards, place_);
        const bool clean = wait_until([&] { return is_within(more(), most); }, std::chrono::seconds(5));

        std::ostringstream text;
        text << "counted";
        for (const Resource resource : kResources)
            text << ' ' << counted(resource);
        text << "\nleft";
        for (const long count : more())
            text << ' ' << count;
        text << (clean ? "" : ", which is too much") << '\n' << meanwhile.complaints;
        if (!afterwards.complaints.empty()) text << "and then " << afterwards.complaints;
        std::cerr << text.str();
        exit(clean && meanwhile.complaints.empty() && afterwards.complaints.empty() ? 0 : 1);
    }

    TemporaryDirectory directory_;
    Place place_{"", "", directory_ / "image", directory_ / "scratch"};
    std::optional<Program> simulator_;
    kivos::Descriptor report_;
    pid_t pid_ = -1;
    Point point_{};
};

/// The functions of a library by their places, as nm tells them.
class Functions {
  public:
    explicit Functions(const std::string& library) {
        std::istringstream lines(run_program({"nm", "-C", "--defined-only", library}).out);
        std::string place, kind, name;
        while (lines >> place >> kind && std::getline(lines >> std::ws, name))
            by_place_[std::stoul(place, nullptr, 16)] = name;
    }

    /// That an address lies in.
    std::string at(std::size_t place) const {
        const auto next = by_place_.upper_bound(place - 1);
        return next == by_place_.begin() ? "?" : std::prev(next)->second;
    }

  private:
    std::map<std::size_t, std::string> by_place_;
};

/// Who asked: the first on the stack that stands before neither the system's nor the compiler's libraries. Of
/// libraries whose functions are compiled into ours, the library.
std::string owner_of(const std::string& stack) {
    static const std::map<std::string, Functions> ours = {{"libkiv", Functions(KIV_LIBRARY)},
                                                          {"libkivplatform", Functions(KIVPLATFORM_LIBRARY)}};
    std::istringstream frames(stack);
    for (std::string frame; frames >> frame;) {
        const std::string library = frame.substr(0, frame.find(".so"));
        const bool between = frame.starts_with("torture_test") || library == "libc" ||
                             library == "libgcc_s" || library == "libstdc++" || library.ends_with("san") ||
                             library.starts_with("ld-");
        if (between) continue;
        const auto functions = ours.find(library);
        if (functions == ours.end()) return library;
        const std::string name =
            functions->second.at(std::stoul(frame.substr(frame.find('+') + 1), nullptr, 16));
        if (name.find("nlohmann::") < name.find('(')) return "the JSON library";
        if (name.find("fmt::") < name.find('(')) return "libfmt";
        if (name.find("std::") != 0 || name.find("kiv") < name.find('(')) return library;
    }
    return "the test";
}

/// Where an exception ends the process and we can do nothing about it. The JSON library's values ask for
/// memory when they are destroyed.
const std::set<std::string> kOthers = {"the JSON library"};

class Torture {
  public:
    explicit Torture(bool whole) : whole_(whole), slots_(whole ? 8 : 4) {}

    /// Refuses each request of a scenario, or a choice of them, in turn.
    void run(const Scenario& scenario) {
        constexpr long kFirst = 6, kRest = 10;  // Those that are chosen, of a resource.
        slots_[0].start({&scenario, {}, 0, false}, {100, 100, 100});
        const Run well = slots_[0].finish();
        EXPECT_EQ(well.status, 0) << scenario.name << ":\n" << well.text;
        const auto counts = numbers<std::size(kResources)>(well.line("counted"));
        for (const Resource resource : kResources) {
            const long count = counts[static_cast<std::size_t>(resource)];
            tally(resource).requests += count;
            for (long nth = 1; nth <= count;
                 nth += whole_ || count < 20 || nth < kFirst ? 1 : count / kRest + 1) {
                for (const bool for_good : {false, true}) {
                    Slot& slot = slots_[next_++ % slots_.size()];
                    if (!slot.is_free()) judge(slot.finish());
                    slot.start({&scenario, resource, nth, for_good}, numbers<3>(well.line("left")));
                }
            }
        }
        for (Slot& slot : slots_)
            if (!slot.is_free()) judge(slot.finish());
    }

    void tell() {
        for (const Resource resource : kResources) {
            const Tally& of = tally(resource);
            std::cout << name_of(resource) << ": " << of.requests << " requests, " << of.runs << " runs, "
                      << of.passed << " passed, " << of.ended_by_others << " ended by others\n";
        }
        std::cout << "places that asked:";
        for (const auto& [owner, places] : places_)
            std::cout << ' ' << owner << ' ' << places.size();
        std::cout << std::endl;
    }

  private:
    struct Tally {
        long requests = 0, runs = 0, passed = 0, ended_by_others = 0;
    };
    Tally& tally(Resource resource) { return tallies_[static_cast<std::size_t>(resource)]; }
    static const char* name_of(Resource resource) {
        constexpr const char* kNames[] = {"memory", "descriptors", "threads"};
        return kNames[static_cast<std::size_t>(resource)];
    }

    void judge(const Run& run) {
        const std::string who = run.line("refused"), terminated = run.line("terminated");
        if (who.empty() && run.status == 0) return;  // This time fewer were made.
        Tally& of = tally(run.point.resource);
        ++of.runs;
        places_[owner_of(who)].insert(who);
        const bool by_others = !terminated.empty() && kOthers.contains(owner_of(terminated));
        of.ended_by_others += by_others ? 1 : 0;
        of.passed += run.status == 0 ? 1 : 0;
        EXPECT_TRUE(run.status == 0 || by_others)
            << run.point.scenario->name << ", " << name_of(run.point.resource) << ' ' << run.point.nth
            << (run.point.for_good ? " and on" : "") << ", asked for by " << owner_of(who) << ", ends with "
            << (WIFSIGNALED(run.status) ? strsignal(WTERMSIG(run.status))
                                        : std::to_string(WEXITSTATUS(run.status)))
            << ":\n"
            << run.text;
    }

    const bool whole_;
    std::vector<Slot> slots_;
    std::size_t next_ = 0;
    Tally tallies_[std::size(kResources)];
    std::map<std::string, std::set<std::string>> places_;  ///< By owner.
};

struct EachScenario : testing::TestWithParam<Scenario> {};

std::string name_of_case(const testing::TestParamInfo<Scenario>& info) {
    std::string name = info.param.name;
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
}

}  // namespace

TEST_P(EachScenario, EndsInACodeOrAnExceptionAndAllIsWellAfterwards) {
    Torture torture(std::getenv("KIV_TORTURE_WHOLE") != nullptr);
    torture.run(GetParam());
    torture.tell();
}

INSTANTIATE_TEST_SUITE_P(Torture, EachScenario, testing::ValuesIn(kScenarios), name_of_case);
