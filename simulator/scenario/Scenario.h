/// Virtual cards, and what happens to them in the course of time.
#ifndef KIVSIM_SCENARIO_H
#define KIVSIM_SCENARIO_H

#include <optional>
#include <string>
#include <vector>

#include "card/CardSettings.h"
#include "common/ConfigNode.h"

namespace kivsim {

struct Action;

/// One line of a timeline. Times are in seconds of the timeline.
struct Step {
    double at_s = 0;  ///< From the beginning of the period.
    uint8_t card = 0;
    const Action* action = nullptr;
    ConfigNode what;                ///< The action's own settings.
    double over_s = 0;              ///< How long a ramp takes.
    std::optional<double> for_s{};  ///< How long from `at_s` until it is undone; absent: it is not.
};

struct Scenario {
    std::vector<CardSettings> cards;
    std::vector<Step> timeline{};  ///< By their times.
    double speed = 1;              ///< Seconds of the timeline in a second.
    std::optional<double>
        loop_s{};  ///< The period after which the timeline begins anew; absent: it runs once.
};

inline constexpr double kLeastSpeed = 0.001;
inline constexpr double kGreatestSpeed = 1000;

/// Reads a scenario; a cards file is one without a timeline (see docs/simulator.md for its keys). Throws
/// BadConfig, also about a step that its card would refuse when its time comes.
Scenario load_scenario(const std::string& path);

}  // namespace kivsim

#endif
