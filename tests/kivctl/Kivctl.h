/// kivctl as a person runs it.
#ifndef KIV_TEST_KIVCTL_H
#define KIV_TEST_KIVCTL_H

#include <string>
#include <vector>

#include "support/ConfigurationFile.h"
#include "support/Json.h"
#include "support/Program.h"
#include "support/RunningSimulator.h"
#include "support/Test.h"

using Words = std::vector<std::string>;

extern const char* const kKivctlProgram;

class Kivctl : public testing::Test {
  protected:
    static Words kivctl(Words words);

    /// A command with its blanks; '' is an empty word.
    static Words words_of(const std::string& command);

    /// A line for a shell that knows the program as $0 and the further words as $1, $2...
    static Words shell(const std::string& line, const Words& further = {});

    static Ended run(const Words& words);

    /// Runs it; the test fails unless it ends so and says this, on either stream.
    static Ended expect(const Words& words, int status, const std::string& phrase = "");

    /// A program that has ended so, and said this as an error.
    static void expect_error(const Ended& ended, int status, const std::string& phrase);

    /// The JSON that a run prints which ends with `status`, without its schema, which must be the command's.
    static Json json_of(Words words, int status = 0);
};

/// With one card, whose server's requests are logged.
class KivctlCard : public Kivctl {
  protected:
    KivctlCard();

    std::string control(const std::string& method, const std::string& path, const std::string& body = "");
    void change(const Json& members);
    void add_fault(const std::string& fault);

    /// The last reconfiguration that the card's server was asked for.
    std::string last_reconfiguration() const;

    bool was_asked(const std::string& what) const;

    std::string image(const std::string& content = "a firmware image") const;

    TemporaryDirectory directory_;
    kivsim::Simulator simulator_;
};

/// With a card configuration of the test's own, which is the machine's: one such test at a time.
template <typename Base>
class Configured : public Base {
  protected:
    void SetUp() override { SKIP_UNLESS_USABLE(configuration_); }

    ConfigurationFile configuration_;
};
using KivctlConfigured = Configured<Kivctl>;
using KivctlSettings = Configured<KivctlCard>;

#endif
