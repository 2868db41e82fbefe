// The driver process behind a socket.
#include <kivos/sockets.h>
#include <kivplatform/driver_process.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "driver_process.h"

namespace kivctl {

namespace {

std::string error_text() {
    return std::generic_category().message(errno);
}

/// Why the platform gives no path.
DriverProcess unusable() {
    const char* const chosen = std::getenv("KIVSIM_SOCKET");
    if (chosen != nullptr && *chosen != '\0') {
        return {false, chosen,
                "the path in KIVSIM_SOCKET is longer than the " +
                    std::to_string(KIVPLATFORM_SOCKET_PATH_SIZE - 1) + " bytes of a socket's path",
                "put the socket into a directory with a shorter name"};
    }
    return {false, "/tmp/kivsim-" + std::to_string(getuid()),
            "the directory is not this user's own with mode 0700",
            "somebody else may be listening there: remove it, and start kivsim again"};
}

/// Why nobody answers at the socket; empty when somebody does.
std::string problem_at(const char* path) {
    struct stat state {};
    if (stat(path, &state) != 0) return error_text();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, strnlen(path, sizeof address.sun_path - 1));
    const kivos::Descriptor socket = kivos::stream_socket(AF_UNIX);
    if (socket && connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return "";
    const std::string problem = error_text();
    return state.st_uid != getuid() ? problem + " (another user's socket)" : problem;
}

}  // namespace

DriverProcess look_for_driver() {
    char path[KIVPLATFORM_SOCKET_PATH_SIZE];
    if (!kivplatform_driver_socket(path)) return unusable();
    const std::string problem = problem_at(path);
    if (problem.empty()) return {true, path, "", ""};
    return {false, path, problem,
            "start kivsim as this user, or set KIVSIM_SOCKET to the socket of the one that runs; "
            "\"kivctl --sim COMMAND\" starts one for a single command"};
}

}  // namespace kivctl
