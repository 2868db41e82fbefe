/// Notification ports by their names.
#ifndef KIVPLATFORM_NOTIFICATION_PORT_H
#define KIVPLATFORM_NOTIFICATION_PORT_H

#include <mach/mach_types.h>

#include <memory>

#include "channel.h"

namespace kivplatform {

/// The channels of the port with that name; null when there is none.
std::shared_ptr<Channels> channels_of(mach_port_t port_name);

}  // namespace kivplatform

#endif
