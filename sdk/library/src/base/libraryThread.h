/// How every thread of the library starts.
#ifndef KIV_LIBRARY_THREAD_H
#define KIV_LIBRARY_THREAD_H

#include <csignal>
#include <thread>
#include <utility>

namespace kiv {

/// Blocks all signals of the calling thread while it lives, but those that a fault of the thread itself
/// raises: blocked, they would end the process without the application's handler.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
            sigdelset(&all, fault);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

  private:
    sigset_t before_;
};

/// Starts a thread on `body`. Signals that are sent to the process find the application's threads: a new
/// thread inherits the mask of the one that starts it. Throws std::system_error when no thread is to be had.
template <typename Body>
std::thread start_library_thread(Body body) {
    const SignalsBlocked blocked;
    return std::thread(std::move(body));
}

}  // namespace kiv

#endif
