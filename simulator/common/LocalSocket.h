/// Unix-domain sockets that keep messages apart and carry descriptors.
#ifndef KIVSIM_LOCAL_SOCKET_H
#define KIVSIM_LOCAL_SOCKET_H

#include <kivplatform/descriptor.h>

#include <string>

namespace kivsim {

using kivplatform::Descriptor;

/// Owner of `fd`, under a number above those of the standard streams. Throws std::runtime_error with the
/// system's reason when it is none.
Descriptor checked(int fd, const std::string& what);

/// Listens at `path`, for this user only; takes the place of a socket that nobody serves any more. Throws
/// std::runtime_error when somebody does, or it cannot be made.
Descriptor listening_socket(const std::string& path);

/// A descriptor to be given up when there are no others.
Descriptor spare_descriptor();

/// Accepts a connection. When the process has no descriptor left, the caller at the other end is hung up
/// instead of waiting for ever: empty then.
Descriptor accept_or_refuse(int listener, int flags, Descriptor& spare);

}  // namespace kivsim

#endif
