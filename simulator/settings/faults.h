/// Faults as the cards file and the control address write them.
#ifndef KIVSIM_SETTINGS_FAULTS_H
#define KIVSIM_SETTINGS_FAULTS_H

#include "card/faults.h"
#include "common/ConfigNode.h"

namespace kivsim {

/// Throw BadConfig, also about a selector or a path that does not exist.
DriverFault driver_fault_of(const ConfigNode& node);
HttpFault http_fault_of(const ConfigNode& node);

/// With every member that can be said, without the count.
Json json_of(const DriverFault& fault);
Json json_of(const HttpFault& fault);

}  // namespace kivsim

#endif
