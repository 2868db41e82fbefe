/// What the steps of a timeline do.
#ifndef KIVSIM_SCENARIO_ACTIONS_H
#define KIVSIM_SCENARIO_ACTIONS_H

#include <string>
#include <vector>

#include "scenario/Scenario.h"

namespace kivsim {

class VirtualCard;

/// A place of a card (see settings/changes.h) that a step has changed: JSON texts.
struct Change {
    std::string place;
    std::string before;
    std::string after;
};

/// A step that was begun, and is under way or to be undone.
struct Deed {
    const Step* step;
    double began;                   ///< From the first beginning of the timeline.
    bool ramping = false;           ///< Until its ramp is at its end.
    double from = 0;                ///< Where its ramp began.
    std::vector<Change> changes{};  ///< In the order in which they were made.
};

/// All functions are called holding the card's mutex, and throw BadConfig.
struct Action {
    const char* key;
    bool lasts;  ///< Whether it leaves anything that can be undone.
    void (*begin)(VirtualCard& card, Deed& deed);
    void (*undo)(VirtualCard& card, const Step& step);  ///< Beside its changes; null: nothing.
};

/// The action of a step, which must have just one. Throws BadConfig.
const Action& action_of(const ConfigNode& step);

/// The keys of all actions.
std::vector<const char*> action_keys();

/// Brings the ramp of a deed to this part of its way, from 0 to 1.
void ramp_on(VirtualCard& card, Deed& deed, double part);

}  // namespace kivsim

#endif
