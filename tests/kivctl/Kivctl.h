/// kivctl as a person runs it, with a card configuration of the test's own.
#ifndef KIV_TEST_KIVCTL_H
#define KIV_TEST_KIVCTL_H

#include <gtest/gtest.h>

#include "support/ConfigurationFile.h"
#include "support/Json.h"
#include "support/Program.h"

extern const char* const kKivctlProgram;

class Kivctl : public testing::Test {
  protected:
    void SetUp() override { SKIP_UNLESS_USABLE(configuration_); }

    static std::vector<std::string> kivctl(std::vector<std::string> words) {
        words.insert(words.begin(), kKivctlProgram);
        return words;
    }

    static Ended run(const std::vector<std::string>& words) { return run_program(kivctl(words)); }

    /// The JSON that a successful run prints; the test fails when it does not succeed.
    static Json json_of(std::vector<std::string> words) {
        words.push_back("--json");
        const Ended ended = run(words);
        EXPECT_EQ(ended.status, 0) << ended.err;
        return ended.status == 0 ? parsed(ended.out) : Json();
    }

    ConfigurationFile configuration_;
};

#endif
