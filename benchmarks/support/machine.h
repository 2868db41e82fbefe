/// What figures depend on beside our code.
#ifndef KIV_BENCHMARKS_MACHINE_H
#define KIV_BENCHMARKS_MACHINE_H

#include <sched.h>

#include <map>
#include <string>

namespace kivbench {

/// Processor, cores, system, compiler and the versions of the libraries, by their names.
std::map<std::string, std::string> machine();

/// What this process has now: KiB of memory in use, and threads. Zeros where the system does not tell.
struct Usage {
    double memory = 0;
    double threads = 0;
};
Usage usage();

/// Binds the calling thread, and those that it starts, to the first core; the calling thread until this
/// object's end. Nothing where the system has no such thing.
class OneCore {
  public:
    OneCore();
    ~OneCore();
    OneCore(const OneCore&) = delete;
    OneCore& operator=(const OneCore&) = delete;

#ifdef __linux__
  private:
    cpu_set_t before_{};
#endif
};

}  // namespace kivbench

#endif
