/// What figures depend on beside our code.
#ifndef KIV_BENCHMARKS_MACHINE_H
#define KIV_BENCHMARKS_MACHINE_H

#include <map>
#include <memory>
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

/// Binds the calling thread, and those that it starts, to one core, until what it gives is gone; then the
/// calling thread runs where it did before. Nothing where the system has no such thing.
std::shared_ptr<void> stay_on_one_core();

}  // namespace kivbench

#endif
