#include <fcntl.h>
#include <kivos/sockets.h>
#include <unistd.h>

namespace kivos {

namespace {

#if defined(__linux__) && !defined(KIV_PLAIN_POSIX)

int socket_of(int domain) {
    return socket(domain, SOCK_STREAM | SOCK_CLOEXEC, 0);
}
int pair_of(int ends[2]) {
    return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
}
int pipe_of(int ends[2]) {
    return pipe2(ends, O_CLOEXEC);
}
int connection_of(int listener) {
    return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
}

#else

int socket_of(int domain) {
    return socket(domain, SOCK_STREAM, 0);
}
int pair_of(int ends[2]) {
    return socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
}
int pipe_of(int ends[2]) {
    return pipe(ends);
}
/// Some systems hand the listener's O_NONBLOCK down.
int connection_of(int listener) {
    const int accepted = accept(listener, nullptr, nullptr);
    if (accepted >= 0) fcntl(accepted, F_SETFL, fcntl(accepted, F_GETFL) & ~O_NONBLOCK);
    return accepted;
}

#endif

Descriptor adopted(int number) {
    Descriptor owner = above_standard(number);
    if (owner) adopt(owner.get());
    return owner;
}

bool adopt_both(const int ends[2], Descriptor& one, Descriptor& other) {
    one = adopted(ends[0]);
    other = adopted(ends[1]);
    return one && other;
}

}  // namespace

Descriptor stream_socket(int domain) {
    return adopted(socket_of(domain));
}

bool socket_pair(Descriptor& one, Descriptor& other) {
    int ends[2];
    return pair_of(ends) == 0 && adopt_both(ends, one, other);
}

bool pipe_pair(Descriptor& read_end, Descriptor& write_end) {
    int ends[2];
    return pipe_of(ends) == 0 && adopt_both(ends, read_end, write_end);
}

Descriptor accept_from(int listener) {
    return adopted(connection_of(listener));
}

bool do_not_wait(int descriptor) {
    const int flags = fcntl(descriptor, F_GETFL);
    return flags >= 0 && fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) == 0;
}

void adopt([[maybe_unused]] int descriptor) {
#if !defined(__linux__) || defined(KIV_PLAIN_POSIX)
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
#endif
#ifdef SO_NOSIGPIPE
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
#endif
}

}  // namespace kivos
