/// What the callers of the soak do: each kind of call, with the codes that its documentation names.
#ifndef KIV_TEST_SOAK_CALLS_H
#define KIV_TEST_SOAK_CALLS_H

#include <kiv/kiv_api.h>

#include <atomic>
#include <map>
#include <random>
#include <span>
#include <string>
#include <vector>

using Random = std::mt19937;

/// 0 to `count` - 1.
inline unsigned below(unsigned count, Random& random) {
    return std::uniform_int_distribution<unsigned>(0, count - 1)(random);
}

constexpr uint8_t kCards = 4;  ///< Their ids are 1 to 4.

struct Call {
    const char* name;
    unsigned weight;  ///< How often it is chosen, in comparison with the others.
    kiv_result_t (*make)(uint8_t id, Random& random);
    std::vector<kiv_result_t> codes;
    bool drivers = false;  ///< The driver's own statuses are documented too.
    bool query = false;    ///< KIV_OK when everything is well.
    std::atomic<long> made{0}, good{0};
};

/// Of one card, from several threads at once.
std::span<Call> calls();

/// Those that the rules want alone, for one thread: scans, closes, opens.
std::span<Call> life_cycle();

/// Chooses by weight, makes the call, and fails the test when the code is none of its own.
void make_one(std::span<Call> from, Random& random);

/// Counts what else happens.
void count(const std::string& kind);
std::map<std::string, long> counts();

/// Forgets the registrations that a close has ended.
void forget_registrations();

/// Path of a firmware image.
extern std::string g_image;

#endif
