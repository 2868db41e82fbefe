/// kivctl as a person runs it.
#ifndef KIV_TEST_KIVCTL_H
#define KIV_TEST_KIVCTL_H

#include <iterator>
#include <sstream>

#include "support/ConfigurationFile.h"
#include "support/Json.h"
#include "support/Program.h"
#include "support/RunningSimulator.h"
#include "support/Test.h"

using Words = std::vector<std::string>;

extern const char* const kKivctlProgram;

class Kivctl : public testing::Test {
  protected:
    static Words kivctl(Words words) {
        words.insert(words.begin(), kKivctlProgram);
        return words;
    }

    /// A command with its blanks; '' is an empty word.
    static Words words_of(const std::string& command) {
        std::istringstream in(command);
        Words words{std::istream_iterator<std::string>(in), {}};
        std::replace(words.begin(), words.end(), std::string("''"), std::string());
        return words;
    }

    /// A line for a shell that knows the program as $0 and the further words as $1, $2...
    static Words shell(const std::string& line, const Words& further = {}) {
        Words words{"/bin/sh", "-c", line, kKivctlProgram};
        words.insert(words.end(), further.begin(), further.end());
        return words;
    }

    static Ended run(const Words& words) { return run_program(kivctl(words)); }

    /// Runs it; the test fails unless it ends so and says this, on either stream.
    static Ended expect(const Words& words, int status, const std::string& phrase = "") {
        SCOPED_TRACE(testing::PrintToString(words));
        Ended ended = run(words);
        EXPECT_EQ(ended.status, status) << ended.err;
        EXPECT_TRUE(has(ended.out + ended.err, phrase));
        return ended;
    }

    /// A program that has ended so, and said this as an error.
    static void expect_error(const Ended& ended, int status, const std::string& phrase) {
        EXPECT_EQ(ended.status, status) << ended.err;
        EXPECT_TRUE(has(ended.err, phrase));
    }

    /// The JSON that a run prints which ends with `status`, without its schema, which must be the command's.
    static Json json_of(Words words, int status = 0) {
        words.emplace_back("--json");
        const Ended ended = run(words);
        EXPECT_EQ(ended.status, status) << ended.err;
        if (ended.out.empty()) return {};
        Json json = parsed(ended.out);
        EXPECT_TRUE(json["schema"].get<std::string>().starts_with("kivctl.")) << ended.out;
        json.erase("schema");
        return json;
    }
};

/// With one card, whose server's requests are logged.
class KivctlCard : public Kivctl {
  protected:
    KivctlCard() {
        setenv("KIVSIM_SOCKET", (directory_ / "socket").c_str(), 1);
        change({{"flash_ms", 1500}, {"interrupt_ms", 5}});
    }

    std::string control(const std::string& method, const std::string& path, const std::string& body = "") {
        const ControlAnswer answer = ask_control(simulator_.control_address(), method, path, body);
        EXPECT_EQ(answer.status, 200) << answer.body;
        return answer.body;
    }
    void change(const Json& members) { control("PATCH", "", text_of(members)); }
    void add_fault(const std::string& fault) { control("POST", "/http_faults", fault); }

    /// The last reconfiguration that the card's server was asked for.
    std::string last_reconfiguration() const {
        const std::string log = read_file(directory_ / "requests");
        const std::size_t start = log.rfind("macethP=");
        return start == std::string::npos ? "none" : log.substr(start, log.find("mactun", start) - start);
    }

    bool was_asked(const std::string& what) const {
        return read_file(directory_ / "requests").find(what) != std::string::npos;
    }

    std::string image(const std::string& content = "a firmware image") const {
        write_file(directory_ / "image", content);
        return directory_ / "image";
    }

    TemporaryDirectory directory_;
    kivsim::Simulator simulator_{
        {kivsim::believable_card(1)}, directory_ / "socket", "", directory_ / "requests"};
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
