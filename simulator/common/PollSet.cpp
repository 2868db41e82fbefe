#include "common/PollSet.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace kivsim {

namespace {

/// So many are looked at by the thread itself, after silent ones have been left to the other ...
constexpr std::size_t kKept = 32;

/// ... which happens when there are more than these.
constexpr std::size_t kMost = 64;

}  // namespace

void PollSet::List::add(uint64_t number, pollfd entry) {
    entries_.push_back(entry);
    numbers_.push_back(number);
}

pollfd PollSet::List::remove(std::size_t place) {
    const pollfd removed = std::exchange(entries_[place], entries_.back());
    numbers_[place] = numbers_.back();
    entries_.pop_back();
    numbers_.pop_back();
    return removed;
}

pollfd PollSet::List::remove_number(uint64_t number) {
    const auto found = std::find(numbers_.begin() + 1, numbers_.end(), number);
    return found == numbers_.end() ? pollfd{-1, 0, 0}
                                   : remove(static_cast<std::size_t>(found - numbers_.begin()));
}

int PollSet::List::wait(int milliseconds) {
    return poll(entries_.data(), static_cast<nfds_t>(entries_.size()), milliseconds);
}

PollSet::~PollSet() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        ends_ = true;
    }
    silent_waker_.wake();
    thread_.join();
}

void PollSet::watch(uint64_t number, int descriptor, short events) {
    const auto [known, is_new] = known_.try_emplace(number);
    if (!is_new && known->second.events == events) return;
    if (!is_new) {
        forget(number);
        known_.try_emplace(number);
    }
    known_[number] = {events, false, waits_};
    active_.add(number, {descriptor, events, 0});
}

void PollSet::forget(uint64_t number) {
    const auto known = known_.find(number);
    if (known == known_.end()) return;
    if (!known->second.is_silent) {
        active_.remove_number(number);
    } else {
        std::unique_lock lock(mutex_);
        forgotten_.push_back(number);
        silent_waker_.wake();
        changed_.wait(lock, [this] { return forgotten_.empty(); });
        std::erase_if(speaking_again_, [number](const Entry& each) { return each.number == number; });
    }
    known_.erase(known);
}

const std::vector<uint64_t>& PollSet::wait(int milliseconds) {
    if (active_.size() > kMost) leave_silent_ones();
    ready_.clear();
    ++waits_;
    int count = active_.wait(milliseconds);
    const bool is_woken = count > 0 && active_.is_ready(0);
    for (std::size_t i = 1; count > 0 && i < active_.size(); ++i) {
        if (!active_.is_ready(i)) continue;
        ready_.push_back(active_.number(i));
        known_[active_.number(i)].last_ready = waits_;
    }
    if (is_woken) take_ready_ones();
    return ready_;
}

/// Those that were ready the longest ago. Without a second thread to be had all stay.
void PollSet::leave_silent_ones() {
    if (waker_.descriptor() < 0 || silent_waker_.descriptor() < 0) return;
    try {
        if (!thread_.joinable()) thread_ = std::thread([this] { serve_silent_ones(); });
    } catch (const std::system_error&) {
        return;
    }
    std::vector<uint64_t> by_age;
    for (std::size_t i = 1; i < active_.size(); ++i)
        by_age.push_back(active_.number(i));
    std::sort(by_age.begin(), by_age.end(), [this](uint64_t one, uint64_t other) {
        return known_[one].last_ready < known_[other].last_ready;
    });
    by_age.resize(by_age.size() - kKept);
    {
        const std::lock_guard lock(mutex_);
        for (const uint64_t number : by_age) {
            falling_silent_.push_back({number, active_.remove_number(number)});
            known_[number].is_silent = true;
        }
    }
    silent_waker_.wake();
}

void PollSet::take_ready_ones() {
    waker_.clear();
    const std::lock_guard lock(mutex_);
    for (const Entry& each : speaking_again_) {
        active_.add(each.number, each.entry);
        known_[each.number].is_silent = false;
        known_[each.number].last_ready = waits_;
        ready_.push_back(each.number);
    }
    speaking_again_.clear();
}

void PollSet::serve_silent_ones() {
    List silent(silent_waker_);
    for (;;) {
        const bool any = silent.wait(-1) > 0;
        const std::lock_guard lock(mutex_);
        if (ends_) return;
        bool speaks = false;
        for (std::size_t i = silent.size() - 1; any && i > 0; --i) {
            if (!silent.is_ready(i)) continue;
            const uint64_t number = silent.number(i);
            speaking_again_.push_back({number, silent.remove(i)});
            speaks = true;
        }
        if (any && silent.is_ready(0)) silent_waker_.clear();
        for (const Entry& each : falling_silent_)
            silent.add(each.number, each.entry);
        falling_silent_.clear();
        for (const uint64_t number : forgotten_)
            silent.remove_number(number);
        forgotten_.clear();
        changed_.notify_all();
        if (speaks) waker_.wake();
    }
}

}  // namespace kivsim
