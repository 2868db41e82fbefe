#include <kiv/LogManager.h>

#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <thread>
#include <utility>

#include "base/vendor.h"
#include "log/os_log_sink.h"

namespace kiv::log {

namespace {

constexpr const char* kPattern = "[%^%l%$] [%#] %v";
constexpr std::size_t kFileSize = 10485760;
constexpr std::size_t kFileCount = 5;
constexpr int kMostTries = 1000;
constexpr std::chrono::milliseconds kBetweenTries{1};

using Console = spdlog::sinks::ansicolor_stdout_sink<spdlog::details::console_mutex>;
using File = spdlog::sinks::rotating_file_sink<std::mutex>;
using Syslog = spdlog::sinks::syslog_sink<std::mutex>;
using OsLog = spdlog::sinks::os_log_sink;

spdlog::sink_ptr make_console() {
    return std::make_shared<Console>(spdlog::color_mode::automatic);
}

spdlog::sink_ptr make_file(const LogConfig& config) {
    return std::make_shared<File>(config.file_path, kFileSize, kFileCount);
}

spdlog::sink_ptr make_syslog() {
    // The name stays: docs/oddities.md.
    return std::make_shared<Syslog>("AppName", LOG_PID, LOG_USER, true);
}

/// The category is required but not passed on: the sink writes under an empty one (docs/oddities.md).
spdlog::sink_ptr make_os_log(const LogConfig& config) {
    if (config.os_log_subsystem.empty() || config.os_log_category.empty()) {
        std::cerr << "os_log sink requires 'os_log_subsystem' and 'os_log_category' in config.\n";
        return nullptr;
    }
    return std::make_shared<OsLog>(config.os_log_subsystem, "");
}

/// The sink of that name, or null when the name is unknown or the sink cannot be made (said on standard
/// error).
spdlog::sink_ptr make_sink(const std::string& name, const LogConfig& config) {
    try {
        if (name == "console") return make_console();
        if (name == "file") return make_file(config);
        if (name == "syslog") return make_syslog();
        if (name == "os_log") return make_os_log(config);
    } catch (const spdlog::spdlog_ex& error) {
        std::cerr << (name == "os_log" ? "os_log sink" : "Log sink") << " creation failed: " << error.what()
                  << "\n";
    }
    return nullptr;
}

std::vector<spdlog::sink_ptr> make_sinks(const LogConfig& config) {
    std::vector<spdlog::sink_ptr> sinks;
    for (const std::string& name : config.sinks) {
        if (spdlog::sink_ptr sink = make_sink(name, config)) sinks.push_back(std::move(sink));
    }
    if (sinks.empty()) {
        std::cerr << "No valid sinks configured. Using default console sink." << std::endl;
        sinks.push_back(make_console());
    }
    return sinks;
}

}  // namespace

LogConfig loadConfigDefault() {
    LogConfig config;
    config.level = KIV_LOG_LEVEL_INFO;
    config.sinks = {"os_log"};
    config.os_log_subsystem = kVendorIdentifier;
    config.os_log_category = "sdk";
    return config;
}

spdlog::level::level_enum to_spdlog_level(kiv_log_level_t level) {
    if (level < KIV_LOG_LEVEL_ERROR || level > KIV_LOG_LEVEL_DEBUG) return spdlog::level::off;
    return static_cast<spdlog::level::level_enum>(spdlog::level::err - level);
}

LogManager& LogManager::getInstance() {
    // Never destroyed: other threads may log while the process exits.
    static LogManager& instance = *new LogManager;
    return instance;
}

LogManager::LogManager() {
    // Touched before the handler is registered, spdlog's registry ends after it: from then on nobody may use
    // it.
    spdlog::default_logger();
    std::atexit([] {
        LogManager& manager = getInstance();
        manager.exiting_ = true;
        // An init under way ends first; in a forked child it may be a thread that is not there. (Tries, as
        // the race checker does not know the timed locks.)
        for (int tried = 0; tried < kMostTries; ++tried) {
            if (const std::unique_lock lock(manager.mutex_, std::try_to_lock); lock.owns_lock()) return;
            std::this_thread::sleep_for(kBetweenTries);
        }
    });
}

void LogManager::init(const LogConfig& config) {
    const std::lock_guard lock(mutex_);
    if (exiting_) return;
    if (logger_) {
        if (const auto logger = spdlog::default_logger()) logger->debug("LogManager already initialized.");
        return;
    }
    const std::vector<spdlog::sink_ptr> sinks = make_sinks(config);
    auto logger = std::make_shared<spdlog::logger>("AppLogger", sinks.begin(), sinks.end());
    logger->set_level(to_spdlog_level(config.level));
    // The pattern for the logger too: should one of these steps fail, nothing is kept and the next call
    // begins anew.
    logger->set_pattern(kPattern, spdlog::pattern_time_type::local);
    const auto former = spdlog::default_logger();
    spdlog::set_default_logger(logger);
    try {
        spdlog::set_pattern(kPattern, spdlog::pattern_time_type::local);
    } catch (...) {
        spdlog::set_default_logger(former);
        throw;
    }
    logger_ = std::move(logger);
    ready_.store(logger_.get(), std::memory_order_release);
}

}  // namespace kiv::log
