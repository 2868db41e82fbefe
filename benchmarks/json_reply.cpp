// What the library's JSON costs over the JSON library alone: replies, and the configuration file. The calling
// thread's processor time, so that other programs matter little.
#include <kiv/CardConfig.h>
#include <kiv/HpsHttpHelper.h>
#include <kiv/kiv_json.h>
#include <unistd.h>
#include "support/measure.h"
#include "support/report.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

namespace {

using kivbench::Clock;
using kivbench::each;
using kivbench::measure;
using kivbench::Plan;
using kivbench::Report;
using kivbench::require;
using Json = nlohmann::ordered_json;

/// An array of 1 MB.
std::string array_of(const std::string& element) {
    std::string text = "[";
    while (text.size() < 1'000'000)
        text += element + ",";
    text.back() = ']';
    return text;
}

const Plan kPlan{.rounds = 15, .clock = Clock::ThisThread};

/// `floor`: what the JSON library alone has to do for the same payload.
template <typename Floor>
void measure_reply(Report& report, const std::string& name, const std::string& data, Floor floor) {
    const HttpResult reply{true, 200, "{\"data\":" + data + "}", ""};
    const auto times =
        measure(kPlan, {each([&] {
                            Json out;
                            require(HpsHttpHelper::handle_json(reply, out) && out.is_array(),
                                    "the reply is not read");
                        }),
                        each([&] { require(floor(reply.body).is_array(), "it is no JSON"); })});
    report.add({"reply of 1 MB, " + name,
                "ms",
                times[0].median() / 1e6,
                times[1].median() / 1e6,
                "the JSON library's parse",
                {{1.2}}});
}

void measure_replies(Report& report) {
    const auto parse = [](const std::string& body) {
        Json root = Json::parse(body);
        return std::move(root["data"]);
    };
    const auto parse_twice = [&](const std::string& body) {
        const Json text = parse(body);
        return Json::parse(text.get_ref<const std::string&>());
    };
    const std::string sensors =
        array_of(R"({"label":"FPGA FABRIC Digital Temperature #5","input":41,"max":95,"critical":100})");
    measure_reply(report, "sensors", sensors, parse);
    measure_reply(report, "numbers", array_of("12345678"), parse);
    measure_reply(report, "sensors as a text", Json(sensors).dump(), parse_twice);
}

void measure_configuration(Report& report) {
    kiv::config::CardConfig config;
    for (int i = 1; i <= 255; ++i)
        config.devices.push_back({i,
                                  "KIV-1001",
                                  {"192.168.10." + std::to_string(i), "255.255.255.0", 46, 64, 0},
                                  {"192.168.20." + std::to_string(i), "255.255.255.0", 46, 64, 0}});
    const std::string path =
        std::filesystem::temp_directory_path() / ("kiv_benchmark_" + std::to_string(getpid()) + ".json");
    config.save_to_file(path);
    const auto times = measure(
        kPlan, {each([&] { kiv::config::CardConfig::load_from_file(path).save_to_file(path); }), each([&] {
                    std::ifstream in(path);
                    const Json json = Json::parse(in);
                    std::ofstream(path) << json.dump(4) << std::endl;
                })});
    std::remove(path.c_str());
    report.add({"configuration of 255 devices, loaded and saved",
                "ms",
                times[0].median() / 1e6,
                times[1].median() / 1e6,
                "parse and dump, file to file",
                {{1.3}}});
}

}  // namespace

int main(int argc, char** argv) {
    return kivbench::run(argc, argv, [](Report& report) {
        report.about("JSON");
        measure_replies(report);
        measure_configuration(report);
    });
}
