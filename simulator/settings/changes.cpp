#include "settings/changes.h"

#include <chrono>
#include <nlohmann/json.hpp>

#include "common/hex.h"
#include "settings/members.h"

namespace kivsim {

namespace {

using Pointer = Json::json_pointer;

/// A place: the member, and where in its value.
struct Split {
    explicit Split(const std::string& place)
        : member(place.substr(0, place.find('/', 1))), rest(place.substr(member.size())) {
        member.erase(0, 1);
    }

    /// The first key of the rest, and what follows it.
    Split inside() const { return Split(rest); }

    std::string member;
    std::string rest;
};

std::optional<RegisterSettings> register_at(const Split& way) {
    const Split bar = way.inside();
    uint64_t number = 0;
    RegisterSettings entry;
    if (way.member != "registers" || !ConfigNode::parse(bar.member, number) || bar.rest.empty() ||
        !ConfigNode::parse(bar.rest.substr(1), entry.offset) || number >= BarMemory::kBars ||
        !BarMemory::inside(static_cast<uint32_t>(number), entry.offset, sizeof(uint32_t))) {
        return std::nullopt;
    }
    entry.bar = static_cast<uint32_t>(number);
    return entry;
}

void add_registers(const ConfigNode& node, std::vector<std::string>& places) {
    node.each_member([&](const std::string& bar, const ConfigNode& registers) {
        registers.each_member([&](const std::string& text, const ConfigNode& value) {
            RegisterSettings entry{0, 0, value.number<uint64_t>()};
            ConfigNode::parse(text, entry.offset);
            for (std::size_t at = 0; at < entry.size(); at += sizeof(uint32_t))
                places.push_back("/registers/" + bar + "/" + hex_number(entry.offset + at));
        });
    });
}

}  // namespace

void change(VirtualCard& card, const ConfigNode& members) {
    card.apply(changed_card(members, card.settings));
    if (card.wake_driver) card.wake_driver();
}

void send_messages(VirtualCard& card, const ConfigNode& node) {
    node.members({"arguments", "count", "rate"});
    MessageStream stream;
    node.at("arguments").each([&](const ConfigNode& item) {
        stream.arguments.push_back(item.number<uint64_t>());
    });
    if (stream.arguments.size() == 2 || stream.arguments.size() > 16)
        node.at("arguments").complain("must be none, one, or 3 to 16");
    take(node, "count", stream.left);
    uint32_t rate = 0;
    take(node, "rate", rate);
    if (rate != 0) stream.pause = std::chrono::nanoseconds(1'000'000'000 / rate);
    card.driver.streams.push_back(stream);
    if (card.wake_driver) card.wake_driver();
}

std::vector<std::string> places_of(const ConfigNode& members) {
    std::vector<std::string> places;
    members.each_member([&](const std::string& key, const ConfigNode& value) {
        if (key == "registers") {
            add_registers(value, places);
        } else if (key ==
                   "firmware") {  // Its status is not to be set when nobody means it: that ends a write.
            value.each_member(
                [&](const std::string& part, const ConfigNode&) { places.push_back("/firmware/" + part); });
        } else {
            places.push_back(key == "pci_link" ? "/functions" : "/" + key);  // As it is read back.
        }
    });
    return places;
}

std::optional<std::string> value_at(VirtualCard& card, const std::string& place) {
    if (!place.starts_with('/')) return std::nullopt;
    const Split way(place);
    if (const auto entry = register_at(way)) {
        uint32_t value = 0;
        card.bars.read(entry->bar, entry->offset, value);
        return std::to_string(value);
    }
    const Json whole = member_json(card.with_status(), way.member);
    try {
        if (way.rest.empty()) return whole.is_discarded() ? "null" : text_of(whole);
        return text_of(whole.at(Pointer(way.rest)));
    } catch (const Json::exception&) {
        return std::nullopt;
    }
}

void set_at(VirtualCard& card, const std::string& place, const std::string& value,
            const std::string& source) {
    const Split way(place);
    Json whole;
    if (register_at(way)) {
        whole[way.inside().member][way.inside().rest.substr(1)] = parse_json(value);
    } else {
        whole = member_json(card.with_status(), way.member);
        whole.at(Pointer(way.rest)) = parse_json(value);
        if (way.member == "firmware") whole = {{way.inside().member, whole.at(way.inside().member)}};
    }
    Json members;
    members[way.member] = std::move(whole);
    change(card, ConfigNode(text_of(members), source));
}

}  // namespace kivsim
