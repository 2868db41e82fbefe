#include <kivos/per_process.h>
#include <os/log.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <utility>

struct os_log_s {
    const char* subsystem;
    const char* category;
};

os_log_s _os_log_default{"", ""};
os_log_s _os_log_disabled{"", ""};

namespace {

/// One object for each pair of texts, for ever.
struct Logs {
    explicit Logs(const Logs*) {}
    std::mutex mutex;
    std::map<std::pair<std::string, std::string>, os_log_s> objects;  ///< Guarded by the mutex.
};

enum class Mode { Usual, Info, Debug, Disable };

Mode mode() {
    static const Mode chosen = [] {
        const char* text = std::getenv("OS_ACTIVITY_MODE");
        if (text == nullptr) return Mode::Usual;
        if (std::strcmp(text, "info") == 0) return Mode::Info;
        if (std::strcmp(text, "debug") == 0) return Mode::Debug;
        if (std::strcmp(text, "disable") == 0) return Mode::Disable;
        return Mode::Usual;
    }();
    return chosen;
}

bool mirrored_to_stderr() {
    static const bool chosen = std::getenv("OS_ACTIVITY_DT_MODE") != nullptr;
    return chosen;
}

int syslog_priority(os_log_type_t type) {
    switch (type) {
        case OS_LOG_TYPE_INFO:
            return LOG_INFO;
        case OS_LOG_TYPE_DEBUG:
            return LOG_DEBUG;
        case OS_LOG_TYPE_ERROR:
            return LOG_ERR;
        case OS_LOG_TYPE_FAULT:
            return LOG_CRIT;
        default:
            return LOG_NOTICE;
    }
}

/// The privacy notes of a format ("%{public}s") mean nothing to printf.
std::string without_privacy_notes(const char* format) {
    std::string plain;
    for (const char* at = format; *at != '\0'; ++at) {
        plain += *at;
        if (*at != '%') continue;
        if (at[1] == '%') {
            plain += *++at;
            continue;
        }
        if (at[1] != '{') continue;
        const char* end = std::strchr(at, '}');
        if (end == nullptr) break;
        at = end;
    }
    return plain;
}

std::string formatted(const char* format, va_list arguments) {
    const std::string plain = without_privacy_notes(format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, plain.c_str(), arguments);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, plain.c_str(), again);
    va_end(again);
    return text;
}

}  // namespace

os_log_t os_log_create(const char* subsystem, const char* category) {
    if (mode() == Mode::Disable) return OS_LOG_DISABLED;
    auto& logs = kivos::of_this_process<Logs>();
    const std::lock_guard lock(logs.mutex);
    const auto [at, is_new] = logs.objects.try_emplace({subsystem, category});
    if (is_new) at->second = {at->first.first.c_str(), at->first.second.c_str()};
    return &at->second;
}

bool os_log_type_enabled(os_log_t log, os_log_type_t type) {
    if (log == OS_LOG_DISABLED || mode() == Mode::Disable) return false;
    if (type == OS_LOG_TYPE_DEBUG) return mode() == Mode::Debug;
    if (type == OS_LOG_TYPE_INFO) return mode() == Mode::Debug || mode() == Mode::Info;
    return true;
}

void _os_log_write(os_log_t log, os_log_type_t type, const char* format, ...) try {
    if (!os_log_type_enabled(log, type)) return;
    va_list arguments;
    va_start(arguments, format);
    std::string text = formatted(format, arguments);
    va_end(arguments);
    while (!text.empty() && text.back() == '\n')
        text.pop_back();

    std::string origin;
    if (*log->subsystem != '\0') origin = std::string("[") + log->subsystem + ":" + log->category + "] ";
    syslog(LOG_USER | syslog_priority(type), "%s%s", origin.c_str(), text.c_str());
    if (mirrored_to_stderr()) {
        const std::string line = std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) +
                                 "] " + origin + text + "\n";
        std::fwrite(line.data(), 1, line.size(), stderr);
    }
} catch (const std::bad_alloc&) {
    // There is nobody to tell.
}
