/// State that belongs to one process.
#ifndef KIVOS_PER_PROCESS_H
#define KIVOS_PER_PROCESS_H

#include <unistd.h>

#include <atomic>
#include <memory>

namespace kivos {

/// The T of this process, made at its first use. A forked child gets a T of its own: what it inherits is the
/// parent's, and a thread that the child does not have may have held its lock at the fork. T is built with
/// the inherited T, or null, of which it may read atomics only. Never destroyed: connections may be closed
/// late in a process's exit.
template <typename T>
T& of_this_process() {
    struct Instance {
        explicit Instance(const Instance* from)
            : inherited(from), value(from == nullptr ? nullptr : &from->value) {}
        const pid_t process = getpid();
        const Instance* const inherited;  ///< Stays reachable for the leak checkers.
        T value;
    };
    static std::atomic<Instance*> newest = nullptr;
    Instance* known = newest;
    while (known == nullptr || known->process != getpid()) {
        auto fresh = std::make_unique<Instance>(known);
        if (newest.compare_exchange_strong(known, fresh.get())) return fresh.release()->value;
    }
    return known->value;
}

/// Tells a forked child that an object is its parent's.
class Birthplace {
  public:
    bool is_elsewhere() const { return process_ != getpid(); }

  private:
    const pid_t process_ = getpid();
};

}  // namespace kivos

#endif
