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

/// True as soon as `condition()` is; false when that takes longer than `limit`.
template <typename Condition>
bool wait_until(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// Measures from its creation on.
class Stopwatch {
  public:
    std::chrono::milliseconds elapsed() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                     start_);
    }

  private:
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// The function of that name that the test's own stands before.
template <typename Function>
Function* original(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

#endif
