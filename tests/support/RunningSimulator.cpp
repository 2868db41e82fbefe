#include "support/RunningSimulator.h"

#include <cstdlib>
#include <sstream>

RunningSimulator::RunningSimulator(std::vector<kivsim::CardSettings> cards) {
    setenv("KIVSIM_SOCKET", socket_path().c_str(), 1);
    simulator_ = std::make_unique<kivsim::Simulator>(cards, socket_path(), directory_ / "trace",
                                                     directory_ / "requests");
}

RunningSimulator::~RunningSimulator() = default;

std::vector<nlohmann::json> RunningSimulator::lines_of(const char* file) const {
    std::vector<nlohmann::json> events;
    std::istringstream lines(read_file(directory_ / file));
    for (std::string line; std::getline(lines, line);)
        events.push_back(nlohmann::json::parse(line));
    return events;
}

std::vector<nlohmann::json> RunningSimulator::calls(unsigned selector) const {
    std::vector<nlohmann::json> found;
    for (auto& event : trace()) {
        if (event["event"] == "call" && event["selector"] == selector) found.push_back(event);
    }
    return found;
}
