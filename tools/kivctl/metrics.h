/// The values of all cards in Prometheus' text format.
#ifndef KIVCTL_METRICS_H
#define KIVCTL_METRICS_H

#include "collector.h"

namespace kivctl {

/// Only what is good at this moment: a part that is stale has no series, nor one that should have been
/// sampled since `fresh` and was not.
std::string metrics_text(const Snapshot& snapshot, Clock::time_point fresh);

}  // namespace kivctl

#endif
