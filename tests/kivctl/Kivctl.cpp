#include "kivctl/Kivctl.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <utility>

const char* const kKivctlProgram = KIVCTL_PROGRAM;

Words Kivctl::kivctl(Words words) {
    words.insert(words.begin(), kKivctlProgram);
    return words;
}

Words Kivctl::words_of(const std::string& command) {
    std::istringstream in(command);
    Words words{std::istream_iterator<std::string>(in), {}};
    std::replace(words.begin(), words.end(), std::string("''"), std::string());
    return words;
}

Words Kivctl::shell(const std::string& line, const Words& further) {
    Words words{"/bin/sh", "-c", line, kKivctlProgram};
    words.insert(words.end(), further.begin(), further.end());
    return words;
}

Ended Kivctl::run(const Words& words) {
    return run_program(kivctl(words));
}

Ended Kivctl::expect(const Words& words, int status, const std::string& phrase) {
    SCOPED_TRACE(testing::PrintToString(words));
    Ended ended = run(words);
    EXPECT_EQ(ended.status, status) << ended.err;
    EXPECT_TRUE(has(ended.out + ended.err, phrase));
    return ended;
}

void Kivctl::expect_error(const Ended& ended, int status, const std::string& phrase) {
    EXPECT_EQ(ended.status, status) << ended.err;
    EXPECT_TRUE(has(ended.err, phrase));
}

Json Kivctl::json_of(Words words, int status) {
    words.emplace_back("--json");
    const Ended ended = run(words);
    EXPECT_EQ(ended.status, status) << ended.err;
    if (ended.out.empty()) return {};
    Json json = parsed(ended.out);
    EXPECT_TRUE(json["schema"].get<std::string>().starts_with("kivctl.")) << ended.out;
    json.erase("schema");
    return json;
}

KivctlCard::KivctlCard()
    : simulator_({kivsim::believable_card(1)}, directory_ / "socket", "", directory_ / "requests") {
    setenv("KIVSIM_SOCKET", (directory_ / "socket").c_str(), 1);
    change({{"flash_ms", 1500}, {"interrupt_ms", 5}});
}

std::string KivctlCard::control(const std::string& method, const std::string& path, const std::string& body) {
    const ControlAnswer answer = ask_control(simulator_.control_address(), method, path, body);
    EXPECT_EQ(answer.status, 200) << answer.body;
    return answer.body;
}

void KivctlCard::change(const Json& members) {
    control("PATCH", "", text_of(members));
}

void KivctlCard::add_fault(const std::string& fault) {
    control("POST", "/http_faults", fault);
}

std::string KivctlCard::last_reconfiguration() const {
    const std::string log = read_file(directory_ / "requests");
    const std::size_t start = log.rfind("macethP=");
    return start == std::string::npos ? "none" : log.substr(start, log.find("mactun", start) - start);
}

bool KivctlCard::was_asked(const std::string& what) const {
    return read_file(directory_ / "requests").find(what) != std::string::npos;
}

std::string KivctlCard::image(const std::string& content) const {
    write_file(directory_ / "image", content);
    return directory_ / "image";
}
