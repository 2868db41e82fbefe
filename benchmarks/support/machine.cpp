#include "support/machine.h"

#include <curl/curl.h>
#include <fmt/format.h>
#include <sched.h>
#include <spdlog/version.h>
#include <sys/utsname.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include <kiv/kiv_version.h>

#if __has_include(<boost/version.hpp>)
#include <boost/version.hpp>
#endif

namespace kivbench {

namespace {

std::string version(int major, int minor, int patch) {
    return fmt::format("{}.{}.{}", major, minor, patch);
}

std::string processor() {
    std::ifstream processors("/proc/cpuinfo");
    for (std::string line; std::getline(processors, line);) {
        if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
    }
    return "unknown";
}

double of_status(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(name)) return std::stod(line.substr(name.size()));
    }
    return 0;
}

}  // namespace

Usage usage() {
    return {of_status("VmRSS:"), of_status("Threads:")};
}

std::shared_ptr<void> stay_on_one_core() {
#ifdef __linux__
    cpu_set_t before{};
    sched_getaffinity(0, sizeof before, &before);
    int core = 0;
    while (CPU_ISSET(core, &before) == 0)
        ++core;
    cpu_set_t one{};
    CPU_SET(core, &one);
    sched_setaffinity(0, sizeof one, &one);
    return {nullptr, [before](void*) { sched_setaffinity(0, sizeof before, &before); }};
#else
    return nullptr;
#endif
}

std::map<std::string, std::string> machine() {
    utsname system{};
    uname(&system);
#ifdef __clang__
    const std::string compiler = __VERSION__;
#else
    const std::string compiler = std::string("gcc ") + __VERSION__;
#endif
    // What a distribution adds to the kernel's number says where a machine stands, not what it does.
    const std::string release = system.release;
    std::map<std::string, std::string> all{
        {"processor", processor()},
        {"cores", std::to_string(std::thread::hardware_concurrency())},
        {"system",
         fmt::format("{} {} {}", system.sysname, release.substr(0, release.find('-')), system.machine)},
        {"compiler", compiler},
        {"kiv", version(KIV_VERSION_MAJOR, KIV_VERSION_MINOR, KIV_VERSION_REVISION)},
        {"libcurl", curl_version_info(CURLVERSION_NOW)->version},
        {"fmt", version(FMT_VERSION / 10000, FMT_VERSION / 100 % 100, FMT_VERSION % 100)},
        {"spdlog", version(SPDLOG_VER_MAJOR, SPDLOG_VER_MINOR, SPDLOG_VER_PATCH)},
        {"nlohmann-json",
         version(NLOHMANN_JSON_VERSION_MAJOR, NLOHMANN_JSON_VERSION_MINOR, NLOHMANN_JSON_VERSION_PATCH)},
    };
#ifdef BOOST_VERSION
    all["Boost"] = version(BOOST_VERSION / 100000, BOOST_VERSION / 100 % 1000, BOOST_VERSION % 100);
#endif
    return all;
}

}  // namespace kivbench
