#include "run_loop.h"

#include <poll.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <optional>

using kivplatform::Channel;
using kivplatform::Channels;

namespace {

/// Longest sleep of a loop that nobody can wake, in milliseconds.
constexpr int kWithoutWaker = 10;

/// When a run is over.
class Deadline {
  public:
    explicit Deadline(CFTimeInterval seconds) {
        constexpr CFTimeInterval never = 500e6;  // Sixteen years.
        if (seconds >= never) return;
        const std::chrono::duration<double> wait(seconds > 0 ? seconds : 0);
        end_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(wait);
    }

    bool passed() const { return end_ && Clock::now() >= *end_; }

    /// As poll() wants it: milliseconds, rounded up, at most an hour; -1 for ever.
    int wait_ms() const {
        if (!end_) return -1;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end_ - Clock::now()).count();
        return static_cast<int>(std::clamp<decltype(left)>(left, 0, 3'600'000));
    }

  private:
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> end_;
};

}  // namespace

/// One run: a stop counts for the innermost one, and from its start on.
class __CFRunLoop::Run {
  public:
    explicit Run(__CFRunLoop& loop) : loop_(loop) {
        const std::lock_guard lock(loop_.mutex_);
        outer_stopped_ = std::exchange(loop_.stopped_, false);
    }
    ~Run() {
        const std::lock_guard lock(loop_.mutex_);
        loop_.stopped_ = outer_stopped_;
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    bool stopped() const {
        const std::lock_guard lock(loop_.mutex_);
        return loop_.stopped_;
    }

  private:
    __CFRunLoop& loop_;
    bool outer_stopped_ = false;
};

void __CFRunLoop::add(const std::shared_ptr<Channels>& source, CFRunLoopMode mode) {
    if (birthplace_.is_elsewhere()) return;
    const std::lock_guard lock(mutex_);
    const std::pair entry(mode, source);
    if (std::find(sources_.begin(), sources_.end(), entry) != sources_.end()) return;
    sources_.push_back(entry);
    source->watch(waker_);
    waker_->wake();
}

void __CFRunLoop::stop() {
    if (birthplace_.is_elsewhere()) return;
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    waker_->wake();
}

CFRunLoopRunResult __CFRunLoop::run(CFRunLoopMode mode, CFTimeInterval seconds,
                                    bool return_after_source_handled) {
    if (birthplace_.is_elsewhere()) return kCFRunLoopRunFinished;
    const Deadline deadline(seconds);
    const Run run(*this);
    for (;;) {
        const Sources sources = sources_of(mode);
        if (sources.empty()) return kCFRunLoopRunFinished;
        const bool handled = handle_one(sources, deadline.wait_ms());
        if (handled && return_after_source_handled) return kCFRunLoopRunHandledSource;
        if (run.stopped()) return kCFRunLoopRunStopped;
        if (deadline.passed()) return kCFRunLoopRunTimedOut;
    }
}

__CFRunLoop::Sources __CFRunLoop::sources_of(CFRunLoopMode mode) {
    const std::lock_guard lock(mutex_);
    std::erase_if(sources_, [](const auto& entry) { return !entry.second->valid(); });
    Sources found;
    for (const auto& [of_mode, source] : sources_) {
        if (of_mode == mode) found.push_back(source);
    }
    return found;
}

bool __CFRunLoop::handle_one(const Sources& sources, int wait_ms) {
    std::vector<std::pair<Channels*, std::shared_ptr<Channel>>> channels;
    std::vector<pollfd> polled{{waker_->descriptor(), POLLIN, 0}};
    bool has_message = false;
    for (const auto& source : sources) {
        for (auto& channel : source->all()) {
            has_message = has_message || channel->has_message();
            polled.push_back({channel->descriptor(), POLLIN, 0});
            channels.emplace_back(source.get(), std::move(channel));
        }
    }
    if (waker_->descriptor() < 0) wait_ms = wait_ms < 0 ? kWithoutWaker : std::min(wait_ms, kWithoutWaker);
    const int ready = poll(polled.data(), static_cast<nfds_t>(polled.size()), has_message ? 0 : wait_ms);
    if (ready < 0 || (ready == 0 && !has_message)) return false;
    if (polled[0].revents != 0) waker_->clear();

    ++turn_;
    for (std::size_t i = 0; i < channels.size(); ++i) {
        const std::size_t at = (turn_ + i) % channels.size();
        if (polled[at + 1].revents == 0 && !channels[at].second->has_message()) continue;
        // A callback may take long: meanwhile this loop keeps no other channel's descriptor open.
        const auto [source, channel] = std::move(channels[at]);
        channels.clear();
        const Channel::Outcome outcome = channel->deliver();
        if (outcome == Channel::Outcome::Ended) source->remove(channel.get());
        return outcome == Channel::Outcome::Delivered;
    }
    return false;
}

namespace {

/// The thread's loop. The pointer alone stays valid until the very end of the thread.
thread_local CFRunLoopRef current = nullptr;

/// What ends a thread's loop with it. Not an object of the thread: the C library ends the process when it has
/// no memory to note the destructor of one.
pthread_key_t end_of_thread() {
    static const pthread_key_t key = [] {
        pthread_key_t made{};
        const auto release = [](void*) { CFRelease(std::exchange(current, nullptr)); };
        if (pthread_key_create(&made, release) != 0) throw std::bad_alloc();
        return made;
    }();
    return key;
}

}  // namespace

/// Never destroyed.
const CFRunLoopMode kCFRunLoopDefaultMode = new __CFString;

CFRunLoopRef CFRunLoopGetCurrent() {
    if (current == nullptr) {
        const pthread_key_t key = end_of_thread();
        const CFRunLoopRef fresh = new __CFRunLoop;
        if (pthread_setspecific(key, fresh) != 0) {
            CFRelease(fresh);
            throw std::bad_alloc();
        }
        current = fresh;
    }
    return current;
}

void CFRunLoopAddSource(CFRunLoopRef loop, CFRunLoopSourceRef source, CFRunLoopMode mode) {
    if (loop != nullptr && source != nullptr) loop->add(source->channels, mode);
}

void CFRunLoopRun() {
    constexpr CFTimeInterval for_ever = 1e10;
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, for_ever, false);
}

CFRunLoopRunResult CFRunLoopRunInMode(CFRunLoopMode mode, CFTimeInterval seconds,
                                      Boolean return_after_source_handled) {
    return CFRunLoopGetCurrent()->run(mode, seconds, return_after_source_handled != 0);
}

void CFRunLoopStop(CFRunLoopRef loop) {
    if (loop != nullptr) loop->stop();
}
