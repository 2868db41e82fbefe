#include "scenario/Timeline.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <limits>
#include <utility>

#include "card/VirtualCard.h"
#include "settings/changes.h"

namespace kivsim {

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();
constexpr double kRampPause = 0.25;  // Seconds of the clock: a few steps a second are enough for any eye.
constexpr double kLongestWait = 3600;
constexpr std::size_t kShownBytes = 120;  // Of a step's settings, in a line.

std::string seconds(double time) {
    char text[32];
    std::snprintf(text, sizeof text, "%.10g s", time);
    return text;
}

std::string line_about(const Step& step, double time, const std::string& text) {
    std::string what = text_of(step.what.json());
    if (what.size() > kShownBytes) {
        what.resize(kShownBytes);
        while (!what.empty() && (what.back() & 0x80) != 0)  // No half characters.
            what.pop_back();
        what += "...";
    }
    return seconds(time) + " card " + std::to_string(step.card) + ": " + step.action->key + " " + what + text;
}

double next_time_of(const Deed& deed) {
    const double time = deed.ramping ? deed.step->over_s : deed.step->for_s.value_or(kNever);
    return deed.began + time;
}

}  // namespace

Timeline::Timeline(const Scenario& scenario, std::vector<std::shared_ptr<VirtualCard>> cards,
                   TimelineListener say)
    : steps_(scenario.timeline),
      loop_s_(scenario.loop_s.value_or(0)),
      cards_(std::move(cards)),
      say_(std::move(say)) {}

void Timeline::advance_to(double time) {
    while (next_time() <= time) {
        std::erase_if(deeds_, [](const Deed& deed) { return next_time_of(deed) == kNever; });
        const auto deed = next_deed();
        // What ends makes room for what begins at the same time.
        if (deed != deeds_.end() && next_time_of(*deed) <= next_step_time()) {
            end(deeds_.begin() + (deed - deeds_.cbegin()));
        } else {
            begin_next_step();
        }
    }
    for (Deed& deed : deeds_) {
        if (deed.ramping) go_on(deed, (time - deed.began) / deed.step->over_s);
    }
}

double Timeline::next_time() const {
    const auto deed = next_deed();
    return std::min(next_step_time(), deed == deeds_.end() ? kNever : next_time_of(*deed));
}

bool Timeline::is_ramping() const {
    return std::any_of(deeds_.begin(), deeds_.end(), [](const Deed& deed) { return deed.ramping; });
}

VirtualCard& Timeline::card_of(const Step& step) const {
    return **std::find_if(cards_.begin(), cards_.end(),
                          [&](const auto& card) { return card->id == step.card; });
}

double Timeline::next_step_time() const {
    return next_ < steps_.size() ? round_began_ + steps_[next_].at_s : kNever;
}

Timeline::Deeds::const_iterator Timeline::next_deed() const {
    return std::min_element(deeds_.begin(), deeds_.end(),
                            [](const Deed& a, const Deed& b) { return next_time_of(a) < next_time_of(b); });
}

void Timeline::begin_next_step() {
    const Step& step = steps_[next_];
    Deed deed{&step, next_step_time()};
    if (++next_ == steps_.size() && loop_s_ > 0) {
        next_ = 0;
        round_began_ += loop_s_;
    }
    {
        VirtualCard& card = card_of(step);
        const std::lock_guard lock(card.mutex);
        step.action->begin(card, deed);
    }
    say_(line_about(step, deed.began, step.for_s ? " for " + seconds(*step.for_s) : ""));
    if (deed.ramping || step.for_s) deeds_.push_back(std::move(deed));
}

/// A ramp whose number is gone does not go on.
void Timeline::go_on(Deed& deed, double part) {
    VirtualCard& card = card_of(*deed.step);
    const std::lock_guard lock(card.mutex);
    deed.ramping = false;
    ramp_on(card, deed, part);
    deed.ramping = part < 1;
}

void Timeline::end(Deeds::iterator deed) {
    if (deed->ramping) return go_on(*deed, 1);
    Deed done = std::move(*deed);
    const std::string left = undo(done, deeds_.erase(deed));
    say_(line_about(*done.step, next_time_of(done), " is over" + left));
}

/// A later step may stand on what this one has changed: then that one's end brings back what was before both.
/// What somebody else has changed meanwhile stays, and is told.
std::string Timeline::undo(Deed& deed, Deeds::iterator later) {
    VirtualCard& card = card_of(*deed.step);
    const std::lock_guard lock(card.mutex);
    std::string left;
    for (Change& change : deed.changes) {
        Change* above = nullptr;
        for (auto other = later; other != deeds_.end() && above == nullptr; ++other) {
            for (Change& its : other->changes) {
                if (other->step->card == deed.step->card && its.place == change.place) above = &its;
            }
        }
        if (above != nullptr) {
            if (above->before == change.after) above->before = change.before;
        } else if (value_at(card, change.place) == change.after) {
            set_at(card, change.place, change.before, deed.step->what.way());
        } else {
            left += ", " + change.place + " has been changed meanwhile and stays";
        }
    }
    if (deed.step->action->undo != nullptr) deed.step->action->undo(card, *deed.step);
    return left;
}

TimelineThread::TimelineThread(Timeline& timeline, double speed, TimelineListener say)
    : timeline_(timeline), speed_(speed), say_(std::move(say)), thread_([this] { run(); }) {}

TimelineThread::~TimelineThread() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    condition_.notify_one();
    thread_.join();
}

void TimelineThread::run() {
    using Clock = std::chrono::steady_clock;
    using Seconds = std::chrono::duration<double>;
    const Clock::time_point start = Clock::now();
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        lock.unlock();
        const double now = Seconds(Clock::now() - start).count() * speed_;
        // One step at a time: a stop does not wait for a timeline that is behind.
        advance(std::min(now, timeline_.next_time()));
        const double wait = std::min((timeline_.next_time() - now) / speed_, kLongestWait);
        lock.lock();
        condition_.wait_for(lock, Seconds(timeline_.is_ramping() ? std::min(wait, kRampPause) : wait),
                            [this] { return stopping_; });
    }
}

void TimelineThread::advance(double time) {
    try {
        timeline_.advance_to(time);
    } catch (const std::exception& error) {
        say_(error.what());
    }
}

}  // namespace kivsim
