// kivctl from start to exit, against a program that only links the same libraries and one that scans by
// itself; and the time of a scrape of many cards from kivctl serve.
#include <curl/curl.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include "support/SimulatorProcess.h"
#include "support/measure.h"
#include "support/report.h"

#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

namespace {

using kivbench::each;
using kivbench::measure;
using kivbench::Plan;
using kivbench::Report;
using kivbench::require;
using kivbench::Times;

/// A program that runs, with its standard output.
class Running {
  public:
    Running(std::vector<std::string> words, bool read_output) {
        std::vector<char*> arguments;
        arguments.reserve(words.size() + 1);
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        int ends[2] = {-1, -1};
        require(pipe(ends) == 0, "there is no pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (read_output) {
            posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        } else {
            posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        }
        posix_spawn_file_actions_addclose(&actions, ends[0]);
        const int failed = posix_spawn(&process_, arguments[0], &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        output_ = ends[0];
        require(failed == 0, words[0] + " does not start");
    }
    ~Running() { close(output_); }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    std::string line() const {
        std::string text;
        for (char letter = 0; read(output_, &letter, 1) == 1 && letter != '\n';)
            text += letter;
        return text;
    }
    void end() const { kill(process_, SIGTERM); }
    int status() const {
        int status = -1;
        waitpid(process_, &status, 0);
        return status;
    }

  private:
    pid_t process_ = -1;
    int output_ = -1;
};

kivbench::Work run(std::vector<std::string> words) {
    return each(
        [words = std::move(words)] { require(Running(words, false).status() == 0, words[0] + " fails"); });
}

void measure_start(Report& report) {
    const auto times =
        measure(Plan{.rounds = 15, .repetitions = 3}, {run({KIV_EMPTY}), run({KIV_KIVCTL, "--help"})});
    report.add({"kivctl --help",
                "ms",
                times[1].median() / 1e6,
                times[0].median() / 1e6,
                "empty program, same libraries",
                {{1.5, 0}}});
}

void measure_scan(Report& report, unsigned cards) {
    const std::string name = "kivctl scan, cards: " + std::to_string(cards);
    const auto times =
        measure(Plan{}, {run({KIV_EMPTY, "scan"}), run({KIV_KIVCTL, "scan"}), run({KIV_EMPTY})});
    const double took = times[1].median() / 1e6;
    report.add({name, "ms", took, times[0].median() / 1e6, "program that scans so and exits", {{1.5, 0}}});
    report.add({name, "ms", took, times[2].median() / 1e6, "empty program, same libraries"});
}

std::size_t count_bytes(char*, std::size_t size, std::size_t count, void* user) {
    *static_cast<std::size_t*>(user) += size * count;
    return size * count;
}

/// Milliseconds of a scrape.
double scrape(const std::string& url) {
    std::size_t bytes = 0;
    const double start = kivbench::now(kivbench::Clock::Elapsed);
    CURL* const handle = curl_easy_init();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &count_bytes);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &bytes);
    require(curl_easy_perform(handle) == CURLE_OK && bytes != 0, "a scrape fails");
    curl_easy_cleanup(handle);
    return (kivbench::now(kivbench::Clock::Elapsed) - start) / 1e6;
}

void measure_scrape(Report& report) {
    const Running server({KIV_KIVCTL, "serve", "--listen", "127.0.0.1:0"}, true);
    const std::string line = server.line();
    const std::size_t at = line.find("http://");
    require(at != std::string::npos, "kivctl serve does not say where: " + line);
    const std::string url = line.substr(at, line.find_first_of(" /", at + 7) - at) + "/metrics";
    scrape(url);
    Times fresh;
    Times again;
    for (int round = 0; round < 7; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // What was read is too old then.
        fresh.add(scrape(url));
        again.add(scrape(url));
    }
    server.end();
    server.status();
    report.add({"scrape of 64 cards, all read anew", "ms", fresh.median(), {}, {}, {{0, 1000}}});
    report.add({"scrape of 64 cards, again within a second", "ms", again.median(), {}, {}, {{0, 100}}});
}

void measure_all(Report& report) {
    const kivbench::SimulatorProcess two(2), many(64);
    curl_global_init(CURL_GLOBAL_ALL);
    report.about("kivctl");
    measure_start(report);
    two.choose();
    measure_scan(report, 2);
    many.choose();
    measure_scan(report, 64);
    measure_scrape(report);
}

}  // namespace

int main(int argc, char** argv) {
    return kivbench::run(argc, argv, measure_all);
}
