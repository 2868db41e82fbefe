/// What can be changed and looked at while the simulator runs, over its control address.
#ifndef KIVSIM_CONTROL_H
#define KIVSIM_CONTROL_H

#include <memory>
#include <vector>

#include "server/endpoints.h"

namespace kivsim {

/// Answers a request to the control address (see docs/simulator.md).
Answer answer_control(const std::vector<std::shared_ptr<VirtualCard>>& cards, const HttpRequest& request);

}  // namespace kivsim

#endif
