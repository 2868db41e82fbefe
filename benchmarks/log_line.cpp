// What a log line costs: to a file through the library against spdlog alone with the same sink and pattern,
// to the application's callback, and dropped.
#include <kiv/LogManager.h>
#include <kiv/kivLog.h>
#include <kiv/kiv_api.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>
#include "support/measure.h"
#include "support/report.h"

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

namespace {

using kivbench::each;
using kivbench::measure;
using kivbench::Plan;
using kivbench::Report;
using kivbench::require;

constexpr const char* kLine = "[1]Open Fail: the driver gives 0xe00002c0 for function 2";

/// A directory of its own, removed with what is in it.
class Scratch {
  public:
    Scratch() {
        std::string name = std::filesystem::temp_directory_path() / "kiv_benchmark_XXXXXX";
        require(mkdtemp(name.data()) != nullptr, "there is no temporary directory");
        path_ = name;
    }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    std::string file(const char* name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

void open_log(kiv_log_level_t level, kiv_log_sink_t sink, kiv_log_callback_t callback,
              const Scratch& scratch) {
    const kiv_log_config_t config{level};
    kiv::log::LogConfig back_end;
    back_end.sinks = {"file"};
    back_end.file_path = scratch.file("ours.log");
    require(kivLog_open_with_config(&config, sink, callback, nullptr, back_end) == KIV_OK, "no log");
}

void measure_lines(Report& report, const Scratch& scratch) {
    open_log(KIV_LOG_LEVEL_INFO, KIV_LOG_SINK_DEFAULT, nullptr, scratch);
    const auto sink = std::make_shared<spdlog::sinks::rotating_file_sink<std::mutex>>(
        scratch.file("bare.log"), 10485760, 5);
    spdlog::logger bare("AppLogger", sink);
    bare.set_pattern("[%^%l%$] [%#] %v");
    const auto times =
        measure(Plan{.rounds = 25, .repetitions = 10'000},
                {each([&] {
                     bare.log(spdlog::source_loc{"source", 7, ""}, spdlog::level::info, "{}", kLine);
                 }),
                 each([] { kivLog_print(KIV_LOG_LEVEL_INFO, kLine); })});
    report.add({"line to a file",
                "ns",
                times[1].median(),
                times[0].median(),
                "spdlog, same sink and pattern",
                {{1.15, 0}}});
}

void measure_callback(Report& report, const Scratch& scratch) {
    open_log(
        KIV_LOG_LEVEL_INFO, KIV_LOG_SINK_CALLBACK, [](kiv_log_level_t, const char*, void*) {}, scratch);
    const auto times = measure(Plan{.rounds = 25, .repetitions = 100'000},
                               {each([] { kivLog_print(KIV_LOG_LEVEL_INFO, kLine); })});
    report.add({"line to the callback", "ns", times[0].median()});
}

void measure_dropped(Report& report, const Scratch& scratch) {
    open_log(KIV_LOG_LEVEL_WARNING, KIV_LOG_SINK_DEFAULT, nullptr, scratch);
    const char* line = kLine;
    const auto empty = each([&line] { kivbench::keep(line); });
    const auto drop = each([&line] {
        kivbench::keep(line);
        kivLog_print(KIV_LOG_LEVEL_INFO, line);
    });
    const auto drop_of_application = each([&line] {
        kivbench::keep(line);
        kiv_log_print(KIV_LOG_LEVEL_INFO, line);
    });
    const auto times =
        measure(Plan{.rounds = 50, .repetitions = 1'000'000}, {empty, drop, drop_of_application});
    report.add(
        {"dropped line, kivLog_print", "ns", times[1].median(), times[0].median(), "empty loop", {{1, 3}}});
    report.add(
        {"dropped line, kiv_log_print", "ns", times[2].median(), times[0].median(), "empty loop", {{1, 3}}});
}

}  // namespace

int main(int argc, char** argv) {
    return kivbench::run(argc, argv, [](Report& report) {
        const Scratch scratch;
        report.about("log");
        measure_lines(report, scratch);
        measure_callback(report, scratch);
        measure_dropped(report, scratch);
    });
}
