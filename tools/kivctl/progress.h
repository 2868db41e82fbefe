/// What a person sees of a long operation.
#ifndef KIVCTL_PROGRESS_H
#define KIVCTL_PROGRESS_H

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <string>
#include <utility>

#include "output.h"
#include "time_text.h"

namespace kivctl {

/// On a terminal one line that lives, else a line for each phase. When nobody
/// can be shown anything any more the write goes on without.
class Progress {
  public:
    Progress(Output& output, bool silent)
        : output_(output), silent_(silent), live_(!silent && output.is_terminal()) {}
    ~Progress() {
        if (open_line_) print("\n");  // A failure has come in between; its message follows.
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void phase(const std::string& name) {
        if (name != phase_) {
            phase_ = name;
            detail_.clear();
            if (!live_) print(phase_ + "\n");
        }
        show();
    }

    void detail(std::string text) {
        detail_ = std::move(text);
        show();
    }

    void end(const std::string& name) {
        phase_ = name;
        detail_.clear();
        if (!live_) print(text() + "\n");
        show();
        if (live_) print("\n");
        open_line_ = false;
    }

    int64_t seconds() const {
        return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_)
            .count();
    }

  private:
    void show() {
        const std::string now = text();
        if (!live_ || now == shown_) return;
        shown_ = now;
        print("\r\x1b[K" + now);  // From the line's start, what was there removed.
        open_line_ = true;
    }
    void print(const std::string& text) noexcept try {
        if (!silent_) output_.print(text);
    } catch (const std::exception&) {
        silent_ = true;
    }
    std::string text() const {
        return fmt::format("{:<10}{}{}", phase_,
                           minutes_and_seconds(std::chrono::steady_clock::now() - start_),
                           detail_.empty() ? "" : "  " + detail_);
    }

    Output& output_;
    bool silent_;
    const bool live_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::string phase_;
    std::string detail_;
    std::string shown_;
    bool open_line_ = false;
};

}  // namespace kivctl

#endif
