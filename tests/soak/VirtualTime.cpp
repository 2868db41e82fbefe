#include "soak/VirtualTime.h"

#include <pthread.h>
#include <semaphore.h>

#include <cerrno>
#include <ctime>
#include <limits>
#include <list>
#include <map>

#include "support/Test.h"

namespace {

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

struct Participant {
    explicit Participant(void* (*todo)(void*) = nullptr, void* with = nullptr) : body(todo), argument(with) {
        sem_init(&turn, 0, 0);
    }
    void take_turn() {
        while (sem_wait(&turn) != 0) {
        }
    }

    void* (*body)(void*);
    void* argument;
    sem_t turn;  ///< Not the C++ library's, which yields for a while before it waits: a busy machine is slow
                 ///< then.
    const void* waits_for = nullptr;
    int64_t alarm = kNever;
    bool timed_out = false, ended = false;
};
using Participants = std::list<Participant*>;

/// Touched by the one participant that runs only.
struct World {
    int64_t now;  ///< Nanoseconds of the steady clock.
    Participants ready{}, waiting{};
    std::map<pthread_t, Participant*> started{};
};
World* g_world = nullptr;
thread_local Participant* t_self = nullptr;  ///< Null outside of virtual time.

int64_t ns_of(const timespec& time) {
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

void wake(Participants::iterator who, bool timed_out) {
    (*who)->timed_out = timed_out;
    g_world->ready.splice(g_world->ready.end(), g_world->waiting, who);
}

bool wake_first(const void* what) {
    Participants& all = g_world->waiting;
    const auto found =
        std::find_if(all.begin(), all.end(), [=](auto* one) { return one->waits_for == what; });
    if (found != all.end()) wake(found, false);
    return found != all.end();
}

/// When nobody is ready, the clock goes on to the next alarm.
void wake_by_alarm() {
    Participants& all = g_world->waiting;
    const auto sooner = [](auto* one, auto* other) { return one->alarm < other->alarm; };
    for (bool first = true;; first = false) {
        const auto next = std::min_element(all.begin(), all.end(), sooner);
        const int64_t alarm = next != all.end() ? (*next)->alarm : kNever;
        if (first && alarm == kNever) std::abort();  // Everybody waits for ever.
        if (!first && alarm > g_world->now) return;
        g_world->now = std::max(g_world->now, alarm);
        wake(next, true);
    }
}

/// Gives the turn to the next one, and waits for its own.
void give_way() {
    if (g_world->ready.empty()) wake_by_alarm();
    Participant* const next = g_world->ready.front();
    g_world->ready.pop_front();
    if (next == t_self) return;
    sem_post(&next->turn);
    if (!t_self->ended) t_self->take_turn();
}

/// Until somebody wakes the caller: 0, or until the alarm: ETIMEDOUT.
int wait_for(const void* what, int64_t alarm) {
    t_self->waits_for = what;
    t_self->alarm = alarm;
    g_world->waiting.push_back(t_self);
    give_way();
    return t_self->timed_out ? ETIMEDOUT : 0;
}

int wait_on(pthread_cond_t* condition, pthread_mutex_t* mutex, int64_t alarm) {
    pthread_mutex_unlock(mutex);
    const int result = wait_for(condition, alarm);
    pthread_mutex_lock(mutex);
    return result;
}

int wake_all(const void* what) {
    while (wake_first(what)) {
    }
    return 0;
}

void* run(void* participant) {
    t_self = static_cast<Participant*>(participant);
    t_self->take_turn();
    void* const result = t_self->body(t_self->argument);
    t_self->ended = true;
    wake_first(t_self);
    give_way();
    return result;
}

int create(decltype(&pthread_create) real, pthread_t* thread, const pthread_attr_t* attributes,
           void* (*body)(void*), void* argument) {
    auto* const fresh = new Participant(body, argument);
    if (real(thread, attributes, run, fresh) != 0) std::abort();
    g_world->started[*thread] = fresh;
    g_world->ready.push_back(fresh);
    return 0;
}

int join(decltype(&pthread_join) real, pthread_t thread, void** result) {
    Participant* const other = g_world->started.at(thread);
    if (!other->ended) wait_for(other, kNever);
    g_world->started.erase(thread);
    const int status = real(thread, result);
    delete other;
    return status;
}

}  // namespace

VirtualTime::VirtualTime(std::chrono::nanoseconds start) {
    t_self = new Participant;
    g_world = new World{start.count()};
}

VirtualTime::~VirtualTime() {
    delete std::exchange(g_world, nullptr);
    delete std::exchange(t_self, nullptr);
}

void VirtualTime::pass(std::chrono::nanoseconds length) {
    wait_for(nullptr, g_world->now + length.count());
    // Those that the same moment has woken run first.
    while (!g_world->ready.empty()) {
        g_world->ready.push_back(t_self);
        give_way();
    }
}

// The definitions that stand before the system's.
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
    nanoseconds passed(t_self != nullptr ? g_world->now : ns_of(time));
    if (t_self != nullptr) passed -= passed / hours(1) % 24 * minutes(50);
    return time_point(duration_cast<duration>(passed));
}

/// A function, and what it does in virtual time; `real` is the system's.
// NOLINTBEGIN(bugprone-macro-parentheses): a list of parameters bears none.
#define KIV_INSTEAD(name, parameters, arguments, virtually)       \
    extern "C" INSTEAD int name parameters {                      \
        static const auto real = original<decltype(name)>(#name); \
        return t_self == nullptr ? real arguments : (virtually);  \
    }
// NOLINTEND(bugprone-macro-parentheses)

// clang-format off
KIV_INSTEAD(nanosleep, (const timespec* length, timespec* left), (length, left), (wait_for(nullptr, g_world->now + ns_of(*length)), 0))
KIV_INSTEAD(pthread_cond_wait, (pthread_cond_t* condition, pthread_mutex_t* mutex), (condition, mutex), wait_on(condition, mutex, kNever))
KIV_INSTEAD(pthread_cond_clockwait, (pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* end), (condition, mutex, clock, end), wait_on(condition, mutex, ns_of(*end)))
// By the wall clock, that is: nothing of the library waits so.
KIV_INSTEAD(pthread_cond_timedwait, (pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* end), (condition, mutex, end), (std::abort(), 0))
KIV_INSTEAD(pthread_cond_signal, (pthread_cond_t* condition) noexcept, (condition), (wake_first(condition), 0))
KIV_INSTEAD(pthread_cond_broadcast, (pthread_cond_t* condition) noexcept, (condition), wake_all(condition))
KIV_INSTEAD(pthread_create, (pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) noexcept, (thread, attributes, body, argument), create(real, thread, attributes, body, argument))
KIV_INSTEAD(pthread_join, (pthread_t thread, void** result), (thread, result), join(real, thread, result))
// clang-format on
