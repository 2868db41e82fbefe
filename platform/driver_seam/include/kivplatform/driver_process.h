/* Where the driver process of this machine is. */
#ifndef KIVPLATFORM_DRIVER_PROCESS_H
#define KIVPLATFORM_DRIVER_PROCESS_H

#include <stdbool.h>
#include <sys/un.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Longest path of a Unix-domain socket, with its terminator. */
#define KIVPLATFORM_SOCKET_PATH_SIZE sizeof(((struct sockaddr_un*)0)->sun_path)

/*
 * Writes the driver process's socket: the environment variable KIVSIM_SOCKET, else "driver.sock" in a
 * directory of this user. False, with `path` empty, when the path is too long, or when the user's directory
 * exists but is not a directory of mode 0700 that this user owns (somebody else could be listening there).
 */
bool kivplatform_driver_socket(char path[KIVPLATFORM_SOCKET_PATH_SIZE]);

/* True when a driver process answers there. */
bool kivplatform_driver_running(void);

#ifdef __cplusplus
}
#endif

#endif
