/// What is done while something runs out.
#ifndef KIV_TEST_TORTURE_SCENARIOS_H
#define KIV_TEST_TORTURE_SCENARIOS_H

#include "support/Test.h"
#include "torture/seams.h"

/// Where a run finds its cards, and files of its own.
struct Place {
    std::string control;  ///< Of the simulator, as "address:port".
    std::string port;     ///< Of the card's management server.
    std::string image;    ///< To upload.
    std::string scratch;  ///< To write.
};

/// The calls of a scenario, of which something may be refused or must succeed.
struct Calls {
    const bool all_well;  ///< Nothing is refused.
    const bool for_good;  ///< What is refused once is refused until the end.

    /// A call that gives a code, `good` when all is well. `may_throw`: its contract names an exception, too.
    template <bool may_throw = false, typename Body>
    bool code(const char* name, Body body, long good = 0) {
        try {
            const auto result = [&] {
                const Counted counted;
                return static_cast<long>(body());
            }();
            EXPECT_TRUE(!all_well || result == good) << name << " gives " << result;
            return result == good;
        } catch (const std::exception&) {
            EXPECT_TRUE(!all_well && may_throw) << name << " throws";
        } catch (...) {
            ADD_FAILURE() << name << " throws what it should not";
        }
        return false;
    }
};

struct Scenario {
    const char* name;
    void (*run)(Calls&, const Place&);
};
inline void PrintTo(const Scenario& scenario, std::ostream* out) {
    *out << scenario.name;
}
extern const std::vector<Scenario> kScenarios;

#endif
