#include "soak/VirtualTime.h"

#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <map>
#include <unordered_map>

namespace {

struct Participant {
    Participant() { sem_init(&turn, 0, 0); }
    sem_t turn;
    const void* waits_for = nullptr;
    std::multimap<int64_t, Participant*>::iterator alarm;
    bool has_alarm = false;
    bool timed_out = false;
    bool ended = false;
    void* (*body)(void*) = nullptr;
    void* argument = nullptr;
};

/// Touched by the one participant that runs only.
struct World {
    int64_t now;  ///< Nanoseconds of the steady clock.
    std::deque<Participant*> ready;
    std::multimap<int64_t, Participant*> alarms;
    std::unordered_map<const void*, std::deque<Participant*>> waiting;  ///< By what they wait for.
    std::unordered_map<pthread_t, Participant*> started;
};
World* g_world = nullptr;
thread_local Participant* t_self = nullptr;  ///< Null outside of virtual time.

/// The system's own, for threads outside of virtual time.
#define REAL(function) \
    static const auto real = reinterpret_cast<decltype(&(function))>(dlsym(RTLD_NEXT, #function))

int64_t ns_of(const timespec& time) {
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

void set_alarm(int64_t time) {
    t_self->alarm = g_world->alarms.emplace(time, t_self);
    t_self->has_alarm = true;
}

void wake(Participant* who, bool timed_out) {
    if (who->has_alarm) g_world->alarms.erase(who->alarm);
    if (who->waits_for != nullptr) std::erase(g_world->waiting[who->waits_for], who);
    who->has_alarm = false;
    who->waits_for = nullptr;
    who->timed_out = timed_out;
    g_world->ready.push_back(who);
}

/// Gives the turn to the next one.
Participant* hand_over() {
    if (g_world->ready.empty()) {
        if (g_world->alarms.empty()) std::abort();  // Everybody waits for ever.
        g_world->now = std::max(g_world->now, g_world->alarms.begin()->first);
        while (!g_world->alarms.empty() && g_world->alarms.begin()->first <= g_world->now)
            wake(g_world->alarms.begin()->second, true);
    }
    Participant* const next = g_world->ready.front();
    g_world->ready.pop_front();
    if (next != t_self) sem_post(&next->turn);
    return next;
}

void take_turn() {
    while (sem_wait(&t_self->turn) != 0) {
    }
}

/// Until the alarm, or until somebody wakes the caller. False when it was the alarm.
bool wait_for(const void* what) {
    t_self->waits_for = what;
    if (what != nullptr) g_world->waiting[what].push_back(t_self);
    if (hand_over() != t_self) take_turn();
    return !t_self->timed_out;
}

bool wake_first(const void* what) {
    const auto found = g_world->waiting.find(what);
    if (found == g_world->waiting.end() || found->second.empty()) return false;
    wake(found->second.front(), false);
    return true;
}

void* run(void* participant) {
    t_self = static_cast<Participant*>(participant);
    take_turn();
    void* const result = t_self->body(t_self->argument);
    t_self->ended = true;
    wake_first(t_self);
    hand_over();
    return result;
}

bool wait_on(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    pthread_mutex_unlock(mutex);
    const bool woken = wait_for(condition);
    pthread_mutex_lock(mutex);
    return woken;
}

}  // namespace

VirtualTime::VirtualTime(std::chrono::nanoseconds start) {
    t_self = new Participant;
    g_world = new World{start.count(), {}, {}, {}, {}};
}

VirtualTime::~VirtualTime() {
    delete g_world;
    g_world = nullptr;
    delete t_self;
    t_self = nullptr;
}

void VirtualTime::pass(std::chrono::nanoseconds length) {
    set_alarm(g_world->now + length.count());
    wait_for(nullptr);
    // Those that the same moment has woken run first.
    for (std::size_t left = g_world->ready.size(); left > 0; left = g_world->ready.size()) {
        g_world->ready.push_back(t_self);
        if (hand_over() != t_self) take_turn();
    }
}

#define INSTEAD __attribute__((visibility("default")))

INSTEAD std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
    timespec time{};
    if (t_self == nullptr) clock_gettime(CLOCK_MONOTONIC, &time);
    return time_point(duration(t_self != nullptr ? g_world->now : ns_of(time)));
}

/// Somebody sets it back by 50 minutes each hour, and on again once a day.
INSTEAD std::chrono::system_clock::time_point std::chrono::system_clock::now() noexcept {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    nanoseconds passed(ns_of(time));
    if (t_self != nullptr) {
        passed = nanoseconds(g_world->now);
        passed -= passed / hours(1) % 24 * minutes(50);
    }
    return time_point(duration_cast<duration>(passed));
}

extern "C" {

INSTEAD int nanosleep(const timespec* length, timespec* left) {
    REAL(nanosleep);
    if (t_self == nullptr) return real(length, left);
    set_alarm(g_world->now + ns_of(*length));
    wait_for(nullptr);
    return 0;
}

INSTEAD int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    REAL(pthread_cond_wait);
    if (t_self == nullptr) return real(condition, mutex);
    wait_on(condition, mutex);
    return 0;
}

INSTEAD int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                   const timespec* end) {
    REAL(pthread_cond_clockwait);
    if (t_self == nullptr) return real(condition, mutex, clock, end);
    set_alarm(std::max(g_world->now, ns_of(*end)));
    return wait_on(condition, mutex) ? 0 : ETIMEDOUT;
}

/// By the wall clock, that is: nothing of the library waits so.
INSTEAD int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* end) {
    REAL(pthread_cond_timedwait);
    if (t_self == nullptr) return real(condition, mutex, end);
    std::abort();
}

INSTEAD int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    REAL(pthread_cond_signal);
    if (t_self == nullptr) return real(condition);
    wake_first(condition);
    return 0;
}

INSTEAD int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
    REAL(pthread_cond_broadcast);
    if (t_self == nullptr) return real(condition);
    while (wake_first(condition)) {
    }
    return 0;
}

INSTEAD int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                           void* argument) noexcept {
    REAL(pthread_create);
    if (t_self == nullptr) return real(thread, attributes, body, argument);
    auto* const fresh = new Participant;
    fresh->body = body;
    fresh->argument = argument;
    const int result = real(thread, attributes, run, fresh);
    if (result != 0) std::abort();
    g_world->started[*thread] = fresh;
    g_world->ready.push_back(fresh);
    return result;
}

INSTEAD int pthread_join(pthread_t thread, void** result) {
    REAL(pthread_join);
    if (t_self == nullptr) return real(thread, result);
    Participant* const other = g_world->started.at(thread);
    if (!other->ended) wait_for(other);
    const int status = real(thread, result);
    g_world->started.erase(thread);
    delete other;
    return status;
}
}
