#include "common/LocalSocket.h"

#include <fcntl.h>
#include <kivos/sockets.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace kivsim {

namespace {

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error(path + ": longer than a socket's path can be");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

/// Makes way for a socket at `path`: removes one whose process is gone. Throws when anything else is there.
void make_way(const std::string& path, const sockaddr_un& address) {
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) return;
    if (!S_ISSOCK(found.st_mode)) throw std::runtime_error(path + ": exists and is not a socket");
    const Descriptor probe = checked(kivos::stream_socket(AF_UNIX), "socket");
    if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        throw std::runtime_error(path + ": another simulator serves this socket");
    }
    if (errno != ECONNREFUSED) throw std::runtime_error(path + ": somebody else serves this socket");
    unlink(path.c_str());
}

}  // namespace

Descriptor checked(Descriptor owner, const std::string& what) {
    if (!owner) throw std::runtime_error(what + ": " + std::generic_category().message(errno));
    return owner;
}

Descriptor listening_socket(const std::string& path) {
    const sockaddr_un address = address_of(path);
    make_way(path, address);
    Descriptor listener = checked(kivos::stream_socket(AF_UNIX), "socket");
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), 0600) != 0 || listen(listener.get(), SOMAXCONN) != 0 ||
        !kivos::do_not_wait(listener.get())) {
        throw std::runtime_error(path + ": " + std::generic_category().message(errno));
    }
    return listener;
}

Descriptor spare_descriptor() {
    return Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

Descriptor accept_or_refuse(int listener, Descriptor& spare) {
    Descriptor accepted = kivos::accept_from(listener);
    if (accepted || (errno != EMFILE && errno != ENFILE)) return accepted;
    spare.reset();
    kivos::accept_from(listener).reset();
    spare = spare_descriptor();
    return accepted;
}

}  // namespace kivsim
