// Everything that somebody far away needs to understand a card, in one file.
#include <fmt/format.h>
#include <sys/utsname.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>

#include "cards_file.h"
#include "child.h"
#include "commands.h"
#include "configuration.h"
#include "guard.h"
#include "numbers.h"
#include "server.h"
#include "support_archive.h"
#include "time_text.h"

namespace kivctl {

namespace {

constexpr int kParts = 30;       ///< Of the time limit: one for a command, three for the doctor.
constexpr int kAnswerLimit = 2;  ///< Seconds.
constexpr int kLogLimit = 20;    ///< Seconds for a card's log, which may be long.

struct Missing {
    std::string name;
    std::string reason;
};

std::string text_of_document(const Json& json) {
    return json.dump(4, ' ', true, Json::error_handler_t::replace) + "\n";
}

/// What is collected. The commands run as this program's children: a call to a driver that hangs cannot be
/// ended inside a process, a child ends at its time limit; and so the file holds what the commands print.
class Collection {
  public:
    explicit Collection(int limit) : limit_(limit) {}

    void collect();

    std::vector<Member> members;
    std::vector<Missing> missing;

  private:
    void add(const std::string& name, const std::string& what, std::string text) {
        members.push_back({name, what, std::move(text)});
    }

    /// The document that the command prints; null without one. `share`: of the time limit.
    Json command(const std::string& name, const std::vector<std::string>& words, int share = 1);
    void card(uint8_t id, const std::string& server);  ///< Whose address a scan has told, if it has.
    std::map<std::string, Answer> answers(const std::string& folder, const std::string& address);
    void configuration();
    void add_contents();

    int limit_;
    bool in_time_ = true;  ///< The last command was.
    std::string log_;
    Json cards_ = Json::array();  ///< Of the cards file.
};

Json Collection::command(const std::string& name, const std::vector<std::string>& words, int share) {
    std::string line = "kivctl";
    for (const std::string& word : words)
        line += " " + word;
    std::vector<std::string> all{"--json", "-v", "--timeout", std::to_string(limit_ * share)};
    all.insert(all.end(), words.begin(), words.end());
    const Ended ended = run_self(all);
    in_time_ = ended.status != kTimeIsUp;
    log_ += fmt::format("== {}: exit status {}\n{}", line, ended.status, ended.err);
    Json json = Json::parse(ended.out, nullptr, false);
    if (!json.is_object()) {
        missing.push_back({name, line + fmt::format(": printed nothing, exit status {}", ended.status)});
        return nullptr;
    }
    add(name, line + " --json", ended.out);
    if (json.value("schema", "") != "kivctl.error/1") return json;
    missing.push_back({name, line + ": " + json.value("message", "")});
    return nullptr;
}

/// The raw answers of the card's management server.
std::map<std::string, Answer> Collection::answers(const std::string& folder, const std::string& address) {
    std::map<std::string, Answer> answers;
    const std::size_t colon = address.find(':');
    const std::optional<Network> host = network_of(address.substr(0, colon) + "/32");
    const std::optional<int64_t> port = number_of(address.substr(colon + 1), 0, 65535);
    if (!host || !port) {
        missing.push_back({folder + "server", "nobody tells the address of the management server"});
        return answers;
    }
    const Server server(host->address, static_cast<uint32_t>(*port));
    bool answers_at_all = false;
    for (const std::string path : kAnswers) {
        const bool is_log = path == kLog;
        const std::string name = folder + "server" + path + (is_log ? ".txt" : ".json");
        const Answer& answer = answers[path] =
            server.ask(path, is_log && answers_at_all ? kLogLimit : kAnswerLimit);
        answers_at_all |= answer.status != 0;
        if (answer.status == 0) {
            missing.push_back({name, "GET " + path + ": the management server gave no whole answer"});
        } else {
            add(name, fmt::format("the card's answer to GET {}, HTTP status {}", path, answer.status),
                answer.body);
        }
    }
    return answers;
}

void Collection::card(uint8_t id, const std::string& server) {
    constexpr const char* kCommands[] = {"info",    "status", "net",    "link",      "ptp",
                                         "streams", "time",   "driver", "registers", "flash"};
    const std::string folder = fmt::format("card-{}/", id);
    std::map<std::string, Json> documents;
    in_time_ = true;
    for (const char* const name : kCommands) {
        const std::string file = folder + name + ".json";
        if (in_time_) {
            documents[name] = command(file, {name, std::to_string(id)});
        } else {
            missing.push_back({file, "not asked: a command before it had no end in time"});
        }
    }
    const Json& driver = documents["driver"];
    const std::map<std::string, Answer> all =
        answers(folder, driver.is_null() ? server : driver.at("tunnel").get<std::string>());
    if (driver.is_null()) {
        missing.push_back({"cards.json", fmt::format("card {}: the driver does not tell enough of it", id)});
        return;
    }
    Json registers = documents["registers"];
    if (registers.is_null()) registers["registers"] = Json::array();
    cards_.push_back(cards_file_entry(driver, registers, all));
}

void Collection::configuration() {
    const std::string path = configuration_path();
    const std::string name = "configuration/hps_boot.json";
    try {
        add(name, "the card configuration of the machine, " + path, read_text(path));
    } catch (const Failure& failure) {
        missing.push_back({name, failure.message});
    }
}

/// The lists of what is there, last.
void Collection::add_contents() {
    utsname system{};
    uname(&system);
    Json index = document("support-index");
    index["made"] = time_now(true);
    index["system"] = fmt::format("{} {} {}", system.sysname, system.release, system.machine);
    index["members"] = Json::array();
    index["left_out"] = Json::array();
    std::string text = "What a \"kivctl support\" collected. Look through it before you send it.\n\n";
    add("index.json", "this list for programs, with time and system", "");
    add("README.txt", "this list", "");
    for (const Member& member : members) {
        index["members"].push_back({{"name", member.name}, {"what", member.what}});
        text += fmt::format("{:<44}  {}\n", member.name, printable(member.what));
    }
    if (!missing.empty()) text += "\nLeft out, or not what it should be:\n\n";
    for (const Missing& left : missing) {
        index["left_out"].push_back({{"name", left.name}, {"reason", left.reason}});
        text += fmt::format("{:<44}  {}\n", left.name, printable(left.reason));
    }
    members[members.size() - 2].text = text_of_document(index);
    members.back().text = text;
}

void Collection::collect() {
    constexpr int kDoctorShare = 3;
    const Json doctor = command("doctor.json", {"doctor"}, kDoctorShare);
    command("version.json", {"version"});
    const Json scan = command("scan.json", {"scan"});
    command("configuration/check.json", {"config", "check"});
    command("configuration/show.json", {"config", "show"});
    configuration();
    // By id the addresses of their servers. The doctor finds cards that no scan does.
    std::map<uint8_t, std::string> cards;
    for (const Json& check : doctor.is_null() ? Json::array() : doctor.at("checks")) {
        if (check.at("card").is_number()) cards[check.at("card").get<uint8_t>()];
    }
    for (const Json& card : scan.is_null() ? Json::array() : scan.at("cards"))
        cards[card.at("card").get<uint8_t>()] = card.at("server").get<std::string>();
    for (const auto& [id, server] : cards)
        card(id, server);
    if (!cards_.empty())
        add("cards.json", "the cards for a simulator: kivsim --config cards.json",
            text_of_document({{"cards", cards_}}));
    add("log.txt", "the library's log of the commands above, and their messages", log_);
    add_contents();
}

std::string default_name() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    char text[64];
    return {text, std::strftime(text, sizeof text, "kivctl-support-%Y%m%d-%H%M%S", &parts)};
}

Json to_json(const Collection& collection, const std::string& path) {
    Json json = document("support");
    json["file"] = path;
    json["complete"] = collection.missing.empty();
    json["members"] = Json::array();
    for (const Member& member : collection.members)
        json["members"].push_back(
            {{"name", member.name}, {"what", member.what}, {"size", member.text.size()}});
    json["left_out"] = Json::array();
    for (const Missing& left : collection.missing)
        json["left_out"].push_back({{"name", left.name}, {"reason", left.reason}});
    return json;
}

}  // namespace

Options support_options(Request& request) {
    return {{text_option("-o,--output", "File to make; a folder when FILE ends in \"/\" or is one", "FILE",
                         request.file)}};
}

Exit support(const Request& request, Output& output) {
    const std::string name = default_name();
    waiting_for(Layer::Card, "what the commands collect");
    guard().also_say("no file is left; --timeout gives it more time");
    Archive archive(request.file.empty() ? name + ".tar.gz" : request.file, name);
    Collection collection(std::max(static_cast<int>(request.timeout.value_or(kSupportLimit)) / kParts, 1));
    collection.collect();
    archive.write(collection.members);
    if (request.json) {
        output.print_json(to_json(collection, archive.path()));
    } else {
        output.print(collection.members.back().text + "\n" + archive.path() +
                     ": look through it before you send it\n");
    }
    return collection.missing.empty() ? kDone : kAttention;
}

}  // namespace kivctl
