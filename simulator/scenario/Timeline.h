/// A timeline that runs on cards.
#ifndef KIVSIM_TIMELINE_H
#define KIVSIM_TIMELINE_H

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "scenario/Scenario.h"
#include "scenario/actions.h"

namespace kivsim {

class VirtualCard;

/// Told of every step and of its end: "12 s card 1: patch {...} for 3 s".
using TimelineListener = std::function<void(const std::string& line)>;

/// Has no clock: somebody says what time it is. One thread at a time; its calls lock the cards.
class Timeline {
  public:
    /// `cards` has those that the scenario's steps name.
    Timeline(const Scenario& scenario, std::vector<std::shared_ptr<VirtualCard>> cards, TimelineListener say);

    /// Does what is due up to this time, in seconds from the first beginning, which does not go back; a ramp
    /// that is under way gets its value of now. Throws BadConfig about a step that its card refuses: that one
    /// is left out, and what follows it is done by the next call.
    void advance_to(double time);

    /// When the next step begins, is undone or ends its ramp; infinite when there is none.
    double next_time() const;

    bool is_ramping() const;

  private:
    using Deeds = std::vector<Deed>;

    VirtualCard& card_of(const Step& step) const;
    double next_step_time() const;
    Deeds::const_iterator next_deed() const;
    void begin_next_step();
    void go_on(Deed& deed, double part);
    void end(Deeds::iterator deed);
    std::string undo(Deed& deed, Deeds::iterator later);

    const std::vector<Step> steps_;
    const double loop_s_;  ///< 0: no loop.
    const std::vector<std::shared_ptr<VirtualCard>> cards_;
    const TimelineListener say_;
    double round_began_ = 0;
    std::size_t next_ = 0;  ///< Of the steps.
    Deeds deeds_;           ///< In the order in which they began.
};

/// Runs a timeline by the clock, from its creation to its destruction.
class TimelineThread {
  public:
    /// `speed`: seconds of the timeline in a second. `say` is told of steps that a card refuses.
    TimelineThread(Timeline& timeline, double speed, TimelineListener say);
    ~TimelineThread();
    TimelineThread(const TimelineThread&) = delete;
    TimelineThread& operator=(const TimelineThread&) = delete;

  private:
    void run();
    void advance(double time);

    Timeline& timeline_;  ///< The thread's own, as the two below.
    const double speed_;
    const TimelineListener say_;
    std::mutex mutex_;  ///< Guards the flag below.
    std::condition_variable condition_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace kivsim

#endif
