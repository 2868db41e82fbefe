/// Unix-domain sockets, and connections that come when there is no descriptor left.
#ifndef KIVSIM_LOCAL_SOCKET_H
#define KIVSIM_LOCAL_SOCKET_H

#include <kivos/descriptor.h>

#include <string>

namespace kivsim {

using kivos::Descriptor;

/// The descriptor. Throws std::runtime_error with the system's reason when it is none.
Descriptor checked(Descriptor owner, const std::string& what);

/// Listens at `path`, for this user only; takes the place of a socket that nobody serves any more. Throws
/// std::runtime_error when somebody does, or it cannot be made.
Descriptor listening_socket(const std::string& path);

/// A descriptor to be given up when there are no others.
Descriptor spare_descriptor();

/// Accepts a connection. When the process has no descriptor left, the caller at the other end is hung up
/// instead of waiting for ever: empty then.
Descriptor accept_or_refuse(int listener, Descriptor& spare);

}  // namespace kivsim

#endif
