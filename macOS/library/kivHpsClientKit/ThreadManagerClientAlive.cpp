#include "kivHpsClientKit/ThreadManagerClientAlive.h"

#include <chrono>
#include <utility>

#include "log/kivLogDispatch.h"

using kiv::kHpsSource;
using kiv::log_error;

ThreadManagerClientAlive::ThreadManagerClientAlive(int32_t id, Callback registry, Callback keep_alive)
    : id_(id), registry_(std::move(registry)), keep_alive_(std::move(keep_alive)) {}

void ThreadManagerClientAlive::run_thread() {
    if (!registry_ || !keep_alive_) {
        log_error(kHpsSource, "function null");
        return;
    }
    if (stopping()) return;
    call(registry_);
    if (!set_running()) return;
    for (;;) {
        call(keep_alive_);
        if (!wait_awhile(std::chrono::seconds(2))) return;
    }
}

/// What becomes of a request does not stop the thread, not even an exception.
void ThreadManagerClientAlive::call(const Callback& callback) const {
    try {
        callback(id_);
    } catch (...) {
    }
}
