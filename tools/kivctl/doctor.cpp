// The doctor: a fixed list of checks, also where hardly anything works.
#include "doctor.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <memory>
#include <mutex>
#include <thread>

#include "commands.h"

namespace kivctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* kWords[] = {"SKIP", "OK", "WARN", "FAIL"};

const char* name_of(Result result) {
    return kWords[static_cast<int>(result)];
}

struct Check {
    std::string name;
    std::optional<uint8_t> card;
    Outcome outcome;
};

Outcome run(const Step& step) {
    try {
        return step.run();
    } catch (const Failure& failure) {
        return {Result::Fail, failure.message,
                failure.remedy.empty()
                    ? "\"kivctl support\" collects what tells more, the card's log among it"
                    : failure.remedy};
    } catch (const std::exception& error) {
        return {Result::Fail, std::string("an answer that cannot be used: ") + error.what(),
                "the versions of driver, card and this program may not fit together"};
    }
}

/// Checks on a thread of their own. A call to a driver that hangs never returns: the thread is then left
/// where it is, and what it uses stays.
class Part {
  public:
    Part(std::optional<uint8_t> card, std::vector<Step> steps)
        : card_(card), state_(std::make_shared<State>()) {
        state_->steps = std::move(steps);
        std::thread([state = state_] {
            for (const Step& step : state->steps) {
                Outcome outcome = kivctl::run(step);
                const std::lock_guard lock(state->mutex);
                state->outcomes.push_back(std::move(outcome));
                state->one_more.notify_one();
            }
        }).detach();
    }

    /// Adds a check for every step. True when the last one has come back by `end`, which was `limit` away.
    bool collect(std::vector<Check>& checks, Clock::time_point end, milliseconds limit) {
        std::unique_lock lock(state_->mutex);
        const std::vector<Step>& steps = state_->steps;
        const std::vector<Outcome>& outcomes = state_->outcomes;
        const bool whole =
            state_->one_more.wait_until(lock, end, [&] { return outcomes.size() == steps.size(); });
        for (std::size_t i = 0; i < steps.size(); ++i) {
            Outcome outcome{Result::Skip, "a check before it did not come back"};
            if (i < outcomes.size()) outcome = outcomes[i];
            if (i == outcomes.size())
                outcome = {
                    Result::Fail,
                    fmt::format("no answer within {:g} s", static_cast<double>(limit.count()) / 1000),
                    "the driver, or the card behind it, hangs: start the driver again, or the machine"};
            checks.push_back({steps[i].name, card_, std::move(outcome)});
        }
        return whole;
    }

  private:
    struct State {
        std::vector<Step> steps;
        std::mutex mutex;
        std::condition_variable one_more;
        std::vector<Outcome> outcomes;
    };

    std::optional<uint8_t> card_;
    std::shared_ptr<State> state_;
};

/// First the machine, then all cards at once, each part with the same limit.
std::vector<Check> examine(std::optional<uint8_t> only, milliseconds limit) {
    // Never destroyed: the end of a driver client asks the driver again, which may hang.
    Machine& machine = *new Machine;
    std::vector<Check> checks;
    Part first({}, machine_checks(machine, only));
    if (!first.collect(checks, Clock::now() + limit, limit)) return checks;
    const auto end = Clock::now() + limit;
    std::vector<Part> parts;
    for (const uint8_t id : cards_of(machine.functions)) {
        if (only.value_or(id) == id) parts.emplace_back(id, card_checks(machine, id));
    }
    for (Part& part : parts)
        part.collect(checks, end, limit);
    if (only) return checks;
    for (const uint8_t id : missing_cards(machine))
        checks.push_back(
            {"connection", id, {Result::Skip, "the configuration has it, the driver does not list it"}});
    return checks;
}

void print(const std::vector<Check>& checks, Output& output) {
    std::string text;
    for (const Check& check : checks) {
        const Outcome& outcome = check.outcome;
        text += fmt::format("{:<4}  {:<8}  {:<13}  {}\n", name_of(outcome.result),
                            check.card ? fmt::format("card {}", *check.card) : "", check.name,
                            printable(outcome.message));
        if (!outcome.remedy.empty()) text += fmt::format("{:31}{}\n", "", printable(outcome.remedy));
    }
    output.print(text);
}

Json to_json(const std::vector<Check>& checks, Result worst) {
    Json json = document("doctor");
    json["result"] = name_of(worst);
    json["checks"] = Json::array();
    for (const Check& check : checks) {
        const Outcome& outcome = check.outcome;
        json["checks"].push_back({{"check", check.name},
                                  {"card", check.card ? Json(*check.card) : Json()},
                                  {"result", name_of(outcome.result)},
                                  {"message", outcome.message},
                                  {"remedy", outcome.remedy.empty() ? Json() : Json(outcome.remedy)}});
    }
    return json;
}

}  // namespace

Exit doctor(const Request& request, Output& output) {
    constexpr int kParts = 3;  // The machine, the cards, and time to say what was found.
    const milliseconds limit = std::chrono::seconds(request.timeout.value_or(kDoctorLimit));
    const std::vector<Check> checks = examine(request.card, limit / kParts);
    Result worst = Result::Ok;
    for (const Check& check : checks)
        worst = std::max(worst, check.outcome.result);
    request.json ? output.print_json(to_json(checks, worst)) : print(checks, output);
    return worst == Result::Fail ? kFailed : worst == Result::Warn ? kAttention : kDone;
}

}  // namespace kivctl
