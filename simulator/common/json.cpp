#include "common/json.h"

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <vector>

namespace kivsim {

namespace {

/// Goes through a text of which nothing is kept: what is beyond the limits costs no more than being read.
class Limits {
  public:
    bool null() { return true; }
    bool boolean(bool) { return true; }
    bool number_integer(Json::number_integer_t) { return true; }
    bool number_unsigned(Json::number_unsigned_t) { return true; }
    bool number_float(Json::number_float_t, const std::string&) { return true; }
    bool string(std::string&) { return true; }
    bool binary(Json::binary_t&) { return true; }
    bool start_object(std::size_t) { return begin(false); }
    bool key(std::string&) { return count(open_.back()); }
    bool end_object() { return end(); }
    bool start_array(std::size_t) { return begin(true); }
    bool end_array() { return end(); }

    /// The parser of the whole says it.
    bool parse_error(std::size_t, const std::string&, const Json::exception&) { return false; }

  private:
    static constexpr std::size_t kMostLevels = 64;

    struct Open {
        bool is_array;
        int entries = 0;  ///< Members, or objects and arrays.
    };

    bool begin(bool is_array) {
        if (open_.size() == kMostLevels) throw std::runtime_error("more than 64 levels of JSON");
        if (!open_.empty() && open_.back().is_array) count(open_.back());
        open_.push_back({is_array});
        return true;
    }

    static bool count(Open& open) {
        if (++open.entries > kMostMembers)
            throw std::runtime_error(
                "more than " + std::to_string(kMostMembers) +
                (open.is_array ? " objects in one JSON array" : " members in one JSON object"));
        return true;
    }

    bool end() {
        open_.pop_back();
        return true;
    }

    std::vector<Open> open_;
};

}  // namespace

Json parse_json(const std::string& text) {
    Limits limits;
    Json::sax_parse(text, &limits);
    return Json::parse(text);
}

std::string text_of(const Json& json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

std::string quoted(const std::string& text) {
    return text_of(text);
}

}  // namespace kivsim
