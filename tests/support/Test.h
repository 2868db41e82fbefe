/// What nearly every test needs.
#ifndef KIV_TEST_TEST_H
#define KIV_TEST_TEST_H

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/Lines.h"
#include "support/Waiting.h"

/// Whether `part` is in `text`; says both.
inline testing::AssertionResult has(const std::string& text, const std::string& part) {
    const bool found = text.find(part) != std::string::npos;
    return testing::AssertionResult(found) << "\"" << part << "\" is " << (found ? "" : "not ") << "in\n"
                                           << text;
}

/// Threads that run body(0), body(1)... to their ends.
class Threads {
  public:
    template <typename Body>
    Threads(int count, Body body) {
        for (int i = 0; i < count; ++i)
            threads_.emplace_back(body, i);
    }
    ~Threads() { join(); }
    void join() {
        for (std::thread& thread : std::exchange(threads_, {}))
            thread.join();
    }

  private:
    std::vector<std::thread> threads_;
};

/// The function of that name that the test's own stands before.
template <typename Function>
Function* original(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

#endif
