#include "log/os_log_sink.h"

#include <utility>

namespace spdlog::sinks {

namespace {

os_log_type_t to_os_log_type(level::level_enum level) {
    switch (level) {
        case level::trace:
        case level::debug:
            return OS_LOG_TYPE_DEBUG;
        case level::err:
            return OS_LOG_TYPE_ERROR;
        case level::critical:
            return OS_LOG_TYPE_FAULT;
        default:
            return OS_LOG_TYPE_DEFAULT;
    }
}

}  // namespace

os_log_sink::os_log_sink(std::string subsystem, std::string category)
    : handle_(os_log_create(subsystem.c_str(), category.c_str())),
      subsystem_(std::move(subsystem)),
      category_(std::move(category)) {
    if (handle_ == OS_LOG_DISABLED) throw spdlog_ex("os_log_create failed to initialize log object.");
}

void os_log_sink::sink_it_(const details::log_msg& msg) {
    memory_buf_t formatted;
    formatter_->format(msg, formatted);
    const os_log_type_t type = to_os_log_type(msg.level);
    if (!os_log_type_enabled(handle_, type)) return;
    const std::string text(formatted.data(), formatted.size());
    os_log_with_type(handle_, type, "%{public}s", text.c_str());
}

}  // namespace spdlog::sinks
