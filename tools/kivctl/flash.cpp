// The card's flash: two slots, each with a firmware image.
#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <system_error>
#include <thread>

#include "cards.h"
#include "commands.h"

namespace kivctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTick{250};

bool is_idle(uint8_t id) {
    kiv_flash_status_t status = 0;
    check(kiv_get_flash_write_status(id, &status), "flash status");
    return status == 0;
}

/// What a person sees of a write: on a terminal one line that lives, else a line for each phase.
class Progress {
  public:
    enum class Style { Silent, Lines, Live };

    Progress(Output& output, Style style) : output_(output), style_(style) {}
    ~Progress() {
        if (open_line_) std::fputs("\n", stderr);  // A failure has come in between; its message follows.
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void phase(const char* name) {
        phase_ = name;
        if (style_ == Style::Lines) output_.print(phase_ + "\n");
        tick();
    }

    void tick() {
        if (style_ != Style::Live) return;
        output_.print("\r\x1b[K" + text());  // From the line's start, what was there removed.
        open_line_ = true;
    }

    void end(const char* name) {
        phase_ = name;
        if (style_ == Style::Lines) output_.print(text() + "\n");
        tick();
        if (style_ == Style::Live) output_.print("\n");
        open_line_ = false;
    }

    int64_t seconds() const {
        return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start_).count();
    }

  private:
    std::string text() const {
        const int64_t elapsed = seconds();
        return fmt::format("{:<10}{}:{:02}", phase_, elapsed / 60, elapsed % 60);
    }

    Output& output_;
    const Style style_;
    const Clock::time_point start_ = Clock::now();
    std::string phase_;
    bool open_line_ = false;
};

}  // namespace

void flash(const Request& request, Output& output) {
    scan_cards();
    kiv_flash_config_t config{};
    check(kiv_get_flash_config(request.id, &config), "flash configuration");
    const auto slot = [](const uint64_t(&id)[2]) { return fmt::format("{:016x}{:016x}", id[0], id[1]); };
    const Json json{{"id", request.id},
                    {"slot_0", slot(config.slot0_id)},
                    {"slot_1", slot(config.slot1_id)},
                    {"next_boot_slot", config.next_boot_slot > 1 ? Json() : Json(config.next_boot_slot)},
                    {"state", is_idle(request.id) ? "idle" : "busy"}};
    if (request.json) return output.print_json(json);
    output.print_record({{"slot_0", "Slot 0"},
                         {"slot_1", "Slot 1"},
                         {"next_boot_slot", "Next boot slot"},
                         {"state", "State"}},
                        json);
}

Options flash_write_options(Request& request) {
    return {{{"FILE", "Firmware image", &request.file},
             {"--no-wait", "End when the card has the image", &request.no_wait}}};
}

void flash_write(const Request& request, Output& output) {
    errno = 0;
    if (!std::ifstream(request.file))
        throw Failure(request.file + " cannot be read: " + std::generic_category().message(errno));
    scan_cards();
    using Style = Progress::Style;
    Progress progress(output,
                      request.json ? Style::Silent : (output.is_terminal() ? Style::Live : Style::Lines));
    progress.phase("uploading");
    std::future<kiv_result_t> uploaded =
        std::async(std::launch::async, kiv_write_flash_image, request.id, request.file.c_str());
    while (uploaded.wait_for(kTick) != std::future_status::ready)
        progress.tick();
    check(uploaded.get(), "flash write");
    const char* state = "writing";
    if (request.no_wait) {
        progress.end(state);
        Output::note(
            fmt::format("the card goes on by itself: \"kivctl flash {}\" tells its state", request.id));
    } else {
        progress.phase(state);
        while (!is_idle(request.id)) {
            progress.tick();
            std::this_thread::sleep_for(kTick);
        }
        state = "done";
        progress.end(state);
        Output::note(
            fmt::format("the card boots the slot that it booted before: see \"kivctl flash {}\" and "
                        "\"kivctl flash select\"",
                        request.id));
    }
    if (request.json)
        output.print_json(
            {{"id", request.id}, {"file", request.file}, {"state", state}, {"seconds", progress.seconds()}});
}

Options flash_select_options(Request& request) {
    return {{{"SLOT", "0 or 1", &request.slot}}};
}

void flash_select(const Request& request, Output& output) {
    scan_cards();
    check(kiv_select_flash_slot(request.id, &request.slot), "flash select");
    if (request.json) return output.print_json({{"id", request.id}, {"next_boot_slot", request.slot}});
    output.print(fmt::format("card {} boots slot {} next\n", request.id, request.slot));
}

}  // namespace kivctl
