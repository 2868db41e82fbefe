// What HpsHttpHelper costs over the JSON library alone, for a reply of 1 MB: its limits are counted before
// the text is parsed. The calling thread's processor time, so that other programs matter little; the JSON
// library runs twice in each round, which shows the noise.
#include <kiv/HpsHttpHelper.h>
#include <kiv/kiv_json.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

using Json = nlohmann::ordered_json;

constexpr double kTarget = 1.2;
constexpr int kRounds = 25;
constexpr std::size_t kReplySize = 1'000'000;

struct Variant {
    const char* name;
    std::function<bool(Json&)> parse;
    std::vector<double> times = {};  ///< Milliseconds.
};

double processor_time() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return 1e3 * static_cast<double>(now.tv_sec) + 1e-6 * static_cast<double>(now.tv_nsec);
}

/// False when the variant gives no array.
bool time_once(Variant& variant) {
    Json out;
    const double start = processor_time();
    const bool parsed = variant.parse(out);
    variant.times.push_back(processor_time() - start);
    return parsed && (out.is_object() ? out["data"] : out).is_array();
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// Sensors as a card reports them.
std::string report() {
    std::string text = R"({"data":[)";
    while (text.size() < kReplySize)
        text += R"({"label":"FPGA FABRIC Digital Temperature #5","input":41,"max":95,"critical":100},)";
    text.back() = ']';
    return text + "}";
}

/// Numbers only: of all texts the one that the JSON library reads fastest, so that the count weighs most.
std::string numbers() {
    std::string text = R"({"data":[)";
    while (text.size() < kReplySize)
        text += "12345678,";
    text.back() = ']';
    return text + "}";
}

bool measure(const char* title, const HttpResult& reply) {
    const auto alone = [&](Json& out) {
        out = Json::parse(reply.body);
        return true;
    };
    Variant variants[] = {
        {"JSON library", alone},
        {"HpsHttpHelper", [&](Json& out) { return HpsHttpHelper::handle_json(reply, out); }},
        {"JSON library again", alone},
    };
    for (int round = 0; round < kRounds; ++round) {
        if (!std::all_of(std::begin(variants), std::end(variants), time_once) ||
            !std::all_of(std::rbegin(variants), std::rend(variants), time_once)) {
            std::fprintf(stderr, "cannot measure: the reply is not read\n");
            return false;
        }
    }
    const double base = median(variants[0].times);
    std::printf("%s\n", title);
    for (const Variant& variant : variants)
        std::printf("  %-34s %9.4f ms  %6.3f\n", variant.name, median(variant.times),
                    median(variant.times) / base);
    const double ratio = median(variants[1].times) / base;
    std::printf("at most %.2f times the JSON library's own parse: %s\n", kTarget,
                ratio <= kTarget ? "met" : "not met");
    return ratio <= kTarget;
}

}  // namespace

int main() {
    const bool report_met = measure("reply of 1 MB, sensors", {true, 200, report(), ""});
    const bool numbers_met = measure("reply of 1 MB, numbers", {true, 200, numbers(), ""});
    return report_met && numbers_met ? 0 : 1;
}
