#include "support/RunningSimulator.h"

#include <cstdlib>
#include <sstream>

#include "support/Json.h"

namespace {

/// One object for each whole line of a file: the last may be half written.
template <typename Make>
auto objects_of(const std::string& file, Make make) {
    std::vector<decltype(make(Json()))> objects;
    std::istringstream lines(read_file(file));
    for (std::string line; std::getline(lines, line) && !lines.eof();)
        objects.push_back(make(parsed(line)));
    return objects;
}

}  // namespace

std::vector<kivsim::CardSettings> cards_of(const std::string& file) {
    const TemporaryDirectory directory;
    write_file(directory / "cards.json", file);
    return kivsim::load_scenario(directory / "cards.json").cards;
}

RunningSimulator::RunningSimulator(std::vector<kivsim::CardSettings> cards) {
    setenv("KIVSIM_SOCKET", socket_path().c_str(), 1);
    simulator_ = std::make_unique<kivsim::Simulator>(cards, socket_path(), directory_ / "trace",
                                                     directory_ / "requests");
}

std::vector<DriverEvent> RunningSimulator::trace() const {
    return objects_of(directory_ / "trace", [](const Json& line) {
        const auto text = [&](const char* key) { return line.value(key, std::string()); };
        const auto number = [&](const char* key) { return line.value(key, 0u); };
        return DriverEvent{text("event"), text("service"), number("type"), number("selector"),
                           text("input"), text("status"),  text("reply")};
    });
}

std::vector<CardRequest> RunningSimulator::requests() const {
    return objects_of(directory_ / "requests", [](const Json& line) {
        return CardRequest{line.at("method"), line.at("path"), line.at("body"), line.at("carried_out")};
    });
}

std::vector<DriverEvent> RunningSimulator::calls(uint32_t selector) const {
    std::vector<DriverEvent> found = trace();
    std::erase_if(found, [=](const DriverEvent& e) { return e.event != "call" || e.selector != selector; });
    return found;
}

std::vector<uint32_t> RunningSimulator::selectors(const std::string& service) const {
    std::vector<uint32_t> found;
    for (const DriverEvent& event : trace()) {
        if (event.event == "call" && (service.empty() || event.service == service))
            found.push_back(event.selector);
    }
    return found;
}

int RunningSimulator::open_connections() const {
    int open = 0;
    for (const DriverEvent& event : trace()) {
        if (event.event == "open" && event.status == "0x00000000") ++open;
        if (event.event == "close") --open;
    }
    return open;
}
