/// Unix-domain sockets that keep messages apart and carry descriptors.
#ifndef KIVSIM_LOCAL_SOCKET_H
#define KIVSIM_LOCAL_SOCKET_H

#include <kivplatform/descriptor.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

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

/// Receives one message into `room`, and the descriptor that comes with it, if it is exactly one; any others
/// are closed. Returns its size, or -1 with errno: EMSGSIZE when it does not fit.
ssize_t receive_message_from(int socket, std::vector<std::byte>& room, Descriptor& descriptor);

/// Sends one message, with a descriptor unless that is -1. False when the peer is gone or full.
bool send_message_to(int socket, const std::vector<std::byte>& bytes, int descriptor);

}  // namespace kivsim

#endif
