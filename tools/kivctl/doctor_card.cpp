// What the doctor checks of a card.
#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>

#include "device/registers.h"

#include "cards.h"
#include "doctor.h"
#include "flash.h"
#include "functions.h"
#include "numbers.h"
#include "records.h"
#include "server.h"

namespace kivctl {

namespace {

namespace registers = kiv::registers;

/// Text and number of an IPv4 address need not be written the same.
bool same_address(const std::string& a, const std::string& b) {
    in_addr first{};
    in_addr second{};
    const bool both =
        inet_pton(AF_INET, a.c_str(), &first) == 1 && inet_pton(AF_INET, b.c_str(), &second) == 1;
    return both ? first.s_addr == second.s_addr : a == b;
}

bool reached(const Json& sensor, const char* limit) {
    const auto found = sensor.find(limit);
    return found != sensor.end() && found->is_number() && found->get<double>() != 0 &&
           sensor.at("input").get<double>() >= found->get<double>();
}

class CardUnderTest {
  public:
    CardUnderTest(const Machine& machine, uint8_t id) : machine_(machine), id_(id) {
        for (const auto& function : machine.functions) {
            if (function->device_conf.device_index == id) functions_.push_back(function);
        }
    }

    Outcome connection();
    Outcome versions();
    Outcome identity();
    Outcome server();
    Outcome interfaces();
    Outcome links();
    Outcome ptp();
    Outcome sensors();
    Outcome flash();
    Outcome time();

    bool has_server() const { return has_server_; }

  private:
    kivDriverClient& function(uint8_t id) { return function_of(functions_, id); }
    uint64_t read(const registers::Register& where) {
        kivDriverClient& client =
            function(where.function == 0 ? kivDriverClient::pf0_st2110_id : kivDriverClient::pf1_cpeng_id);
        uint64_t value = 0;
        check_driver(client.read_pci64(where.bar, where.offset, &value),
                     fmt::format("reading register 0x{:X}", where.offset), id_);
        return value;
    }
    Server management() {
        const kivDriverClient::device_conf_t& conf = functions_.front()->device_conf;
        return {conf.tun, conf.port};
    }

    const Machine& machine_;
    uint8_t id_;
    kivDriverClientList functions_;
    bool has_server_ = true;
};

Outcome CardUnderTest::connection() {
    for (const uint8_t id : {kivDriverClient::pf0_st2110_id, kivDriverClient::pf1_cpeng_id}) {
        kivDriverClient& client = function(id);
        kivDriverClient::boot_conf_t boot{};
        kivDriverClient::device_conf_t conf{};
        if (!client.isOpen())
            throw Failure(Layer::Driver, "NOT_OPEN", fmt::format("function {} is closed", id));
        const std::string what = fmt::format("asking function {} for its ", id);
        check_driver(client.load_boot_conf(boot), what + "boot configuration", id_);
        check_driver(client.get_device_conf(conf), what + "device configuration", id_);
    }
    const kivDriverClient::boot_conf_t& boot = functions_.front()->boot_conf;
    return {Result::Ok,
            fmt::format("{} functions at bus {}, device {}, identity {} \"{}\"", functions_.size(), boot.bus,
                        boot.device, hex64(boot.identity), boot.identity_text)};
}

Outcome CardUnderTest::versions() {
    uint16_t client[3]{};
    uint16_t driver[3]{};
    kivDriverClient& first = *functions_.front();
    first.get_version(client[0], client[1], client[2]);
    check_driver(first.get_version_dext(driver[0], driver[1], driver[2]), "asking the driver for its version",
                 id_);
    return {Result::Ok, fmt::format("client {}, driver {}", fmt::join(client, "."), fmt::join(driver, "."))};
}

Outcome CardUnderTest::identity() {
    uint64_t ones = UINT64_MAX;
    for (const registers::Register& where :
         {registers::kIdentity0, registers::kIdentity1, registers::kIdentity3, registers::kReadable})
        ones &= read(where);
    const uint64_t word = read(registers::kCardWord);
    if ((ones & word) == UINT64_MAX)
        return {Result::Fail, "every register reads as all ones: the card does not answer on PCI Express",
                "see whether the card sits in its slot and has power; then start the machine again"};
    return {Result::Ok, "card word " + hex64(word)};
}

Outcome CardUnderTest::server() {
    const std::optional<Failure> problem = management().problem();
    if (!problem) return {Result::Ok, management().url()};
    // One that gives a wrong answer may have a good one to another question.
    has_server_ = problem->name == "SERVER_ANSWER";
    return {Result::Fail, problem->message, problem->remedy};
}

Outcome CardUnderTest::interfaces() {
    if (!machine_.configuration) return {Result::Skip, "there is no configuration to compare with"};
    const Json& entries = machine_.configuration->at("devices");
    const auto entry = std::find_if(entries.begin(), entries.end(),
                                    [&](const Json& card) { return card.at("device_id") == id_; });
    if (entry == entries.end()) return {Result::Skip, "the configuration has no entry for the card"};
    std::string differences;
    std::string same;
    const Json list = management().get("/hps/info/networks").at("interfaces");
    for (const char* const name : {"maceth0", "maceth1"}) {
        const Json& wanted = entry->at(name);
        const auto found = std::find_if(list.begin(), list.end(),
                                        [&](const Json& port) { return port.at("if_name") == name; });
        const auto text_of = [&](const Json& port) {
            return port.at("ip_addr").get<std::string>() + "/" + port.at("netmask").get<std::string>();
        };
        const std::string has = found == list.end() ? "nothing" : text_of(*found);
        const bool equal = found != list.end() && same_address(found->at("ip_addr"), wanted.at("ip_addr")) &&
                           same_address(found->at("netmask"), wanted.at("netmask"));
        if (equal) same += (same.empty() ? "" : ", ") + has;
        if (!equal)
            differences += fmt::format("{}{}: the card has {}, the file {}", differences.empty() ? "" : "; ",
                                       name, has, text_of(wanted));
    }
    if (differences.empty()) return {Result::Ok, same};
    return {Result::Warn, differences,
            "\"kivctl ptp set\" changes the card's addresses, with --save the file's"};
}

Outcome CardUnderTest::links() {
    const uint64_t word = read(registers::kStatus);
    const auto up = [&](unsigned bit) { return (word >> bit & 1) != 0; };
    const bool all = up(registers::kStatusLink0) && up(registers::kStatusLink1);
    const auto text_of = [&](unsigned bit) { return up(bit) ? "up" : "down"; };
    return {all ? Result::Ok : Result::Warn,
            fmt::format("port 0 {}, port 1 {}", text_of(registers::kStatusLink0),
                        text_of(registers::kStatusLink1)),
            all ? "" : "see the cable, the module and the switch at the other end"};
}

Outcome CardUnderTest::ptp() {
    constexpr int kLocked = 4;
    constexpr std::pair<unsigned, const char*> kStates[] = {
        {registers::kStatusPtp0, "0"}, {registers::kStatusPtp1, "1"}, {registers::kStatusPtp3, "3"}};
    const uint64_t word = read(registers::kStatus);
    const char* state = "none";
    for (const auto& [bit, text] : kStates) {
        if ((word >> bit & 1) == 0) continue;
        state = text;  // The lowest that is set counts.
        break;
    }
    const int32_t locking = management().get_number("/hps/ptp/management", "masterLockingStatus");
    return {locking == kLocked ? Result::Ok : Result::Warn,
            fmt::format("master: {} ({}), register state {}", locking_text(locking), locking, state),
            locking == kLocked ? "" : "see that the grandmaster can be reached and has the same domain"};
}

Outcome CardUnderTest::sensors() {
    const Json list = management().get("/hps/hwmon/info");
    if (!list.is_array())
        throw Failure(Layer::Server, "SERVER_ANSWER", management().url() + ": lists no sensors");
    Result worst = Result::Ok;
    std::string high;
    for (const Json& sensor : list) {
        const bool critical = reached(sensor, "critical");
        if (!critical && !reached(sensor, "max")) continue;
        const char* const limit = critical ? "critical" : "max";
        worst = std::max(worst, critical ? Result::Fail : Result::Warn);
        high +=
            fmt::format("{}{}: {}, {} is {}", high.empty() ? "" : "; ", sensor.at("label").get<std::string>(),
                        sensor.at("input").dump(), limit, sensor.at(limit).dump());
    }
    if (worst == Result::Ok) return {worst, fmt::format("{} sensors, all below their limits", list.size())};
    return {worst, high, "see the air flow, the fans and the room; a hot card may switch itself off"};
}

Outcome CardUnderTest::flash() {
    const FlashSlots slots = read_slots(management());
    for (const std::string& image : slots.image) {
        if (image.empty())
            return {Result::Warn, "a slot has no identifier", "write an image to it: \"kivctl flash write\""};
    }
    if (!slots.next_boot)
        return {Result::Warn, "not exactly one slot is marked to boot next",
                "\"kivctl flash select\" marks one"};
    const std::string state = read_state(management());
    if (state != "idle")
        return {Result::Warn, "busy: " + state, "\"kivctl flash wait\" waits until it is idle"};
    return {Result::Ok, fmt::format("idle; slot {} boots next: {}", *slots.next_boot,
                                    slots.image[static_cast<std::size_t>(*slots.next_boot)])};
}

Outcome CardUnderTest::time() {
    const Json master = management().get("/hps/ptp/master");
    const Json valid = master.value("currentUtcOffsetValid", Json(false));
    // Cards write it as a number or as a boolean.
    const bool is_valid = valid.is_boolean() ? valid.get<bool>() : valid.is_number() && valid != 0;
    if (!is_valid) return {Result::Skip, "the card does not know the difference of TAI and UTC"};
    uint64_t tai = 0;
    check_driver(function(kivDriverClient::pf0_st2110_id).get_ptp_epoch_time(&tai), "asking for its PTP time",
                 id_);
    const std::chrono::duration<double> system = std::chrono::system_clock::now().time_since_epoch();
    const double ahead =
        static_cast<double>(tai) / 1e9 - master.at("currentUtcOffset").get<double>() - system.count();
    const std::string text = fmt::format("PTP time is {:.1f} s {} the system clock", std::abs(ahead),
                                         ahead < 0 ? "behind" : "ahead of");
    if (std::abs(ahead) > 1)
        return {Result::Warn, text,
                "see which of the two is right: \"kivctl ptp\", and the machine's own time"};
    return {Result::Ok, "within 1 s of the system clock"};
}

struct Row {
    const char* name;
    Outcome (CardUnderTest::*check)();
    bool asks_server;
};

// clang-format off
constexpr Row kRows[] = {
    {"connection", &CardUnderTest::connection, false},
    {"versions",   &CardUnderTest::versions,   false},
    {"identity",   &CardUnderTest::identity,   false},
    {"server",     &CardUnderTest::server,     false},
    {"interfaces", &CardUnderTest::interfaces, true},
    {"links",      &CardUnderTest::links,      false},
    {"ptp",        &CardUnderTest::ptp,        true},
    {"sensors",    &CardUnderTest::sensors,    true},
    {"flash",      &CardUnderTest::flash,      true},
    {"time",       &CardUnderTest::time,       true},
};
// clang-format on

}  // namespace

std::vector<Step> card_checks(const Machine& machine, uint8_t id) {
    const auto card = std::make_shared<CardUnderTest>(machine, id);
    std::vector<Step> steps;
    for (const Row& row : kRows) {
        steps.push_back({row.name, [card, row]() -> Outcome {
                             if (row.asks_server && !card->has_server())
                                 return {Result::Skip, "the management server does not answer"};
                             return (card.get()->*row.check)();
                         }});
    }
    return steps;
}

}  // namespace kivctl
