/// Sockets and pipes that a program started meanwhile does not inherit, and that raise no SIGPIPE when they
/// are written to with kNoSignal.
#ifndef KIVOS_SOCKETS_H
#define KIVOS_SOCKETS_H

#include <kivos/descriptor.h>
#include <sys/socket.h>

namespace kivos {

// Linux has flags that make a descriptor and close it on exec in one step. Elsewhere, and where
// KIV_PLAIN_POSIX asks for the same, a program that another thread starts between the two steps inherits it.
#if defined(__linux__) && !defined(KIV_PLAIN_POSIX)
/// Of recvmsg(): descriptors that come along are closed on exec.
inline constexpr int kReceivedCloseOnExec = MSG_CMSG_CLOEXEC;
#else
inline constexpr int kReceivedCloseOnExec = 0;
#endif

// macOS has an option of the socket instead of the flag.
#ifdef SO_NOSIGPIPE
inline constexpr int kNoSignal = 0;
#else
inline constexpr int kNoSignal = MSG_NOSIGNAL;
#endif

// Each gives no descriptor, with errno, when there is none to be had.

/// A stream socket of that domain: AF_UNIX or AF_INET.
Descriptor stream_socket(int domain);

/// Two stream sockets that are connected to each other; false when there are none.
bool socket_pair(Descriptor& one, Descriptor& other);

/// A pipe; false when there is none.
bool pipe_pair(Descriptor& read_end, Descriptor& write_end);

/// The next connection at a listening socket, one that waits whatever the listener does.
Descriptor accept_from(int listener);

/// Calls on that descriptor do not wait any more. False when it is none.
bool do_not_wait(int descriptor);

/// For descriptors that came through a socket: close on exec, and no SIGPIPE.
void adopt(int descriptor);

}  // namespace kivos

#endif
