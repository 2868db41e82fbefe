/// A forked child of the test.
#ifndef KIV_TEST_CHILD_H
#define KIV_TEST_CHILD_H

#include <sys/wait.h>
#include <unistd.h>

/// Exit status of a forked child that runs `body`; -1 when a signal ended it, SIGALRM after 20 s.
template <typename Body>
int in_child(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        _exit(body());
    }
    int status = 0;
    const bool exited = child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status);
    return exited ? WEXITSTATUS(status) : -1;
}

#endif
