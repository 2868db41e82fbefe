// The sensor document of a card's server.
#include <kiv/SystemMonitorData.h>

#include <algorithm>
#include <cstring>

#include <kiv/kiv_json.h>
#include "base/jsonSyntax.h"
#include "base/jsonText.h"
#include "input.h"

namespace {

using fuzz::expect;
using kiv::device::SystemMonitorData;

bool same(const SystemMonitorData& a, const SystemMonitorData& b) {
    return a.board_power == b.board_power && std::memcmp(a.sensors, b.sensors, sizeof a.sensors) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::be_quiet();
    const std::string text = fuzz::text_of(data, size);
    expect(kiv::json::is_valid(text) == nlohmann::json::accept(text), "JSON is what the JSON library takes");
    SystemMonitorData read;
    const auto labels = read.labels;
    const bool is_good = kiv::device::parse_json_to_struct_cpp(text, read);
    expect(read.labels == labels, "a document does not change the labels");

    SystemMonitorData used;
    std::memset(used.sensors, 0x5A, sizeof used.sensors);
    expect(kiv::device::parse_json_to_struct_cpp(text, used) == is_good && same(read, used),
           "a record that was used before reads the same");
    if (!is_good) return 0;
    SystemMonitorData again;
    expect(kiv::device::parse_json_to_struct_cpp(kiv::json::parse(text).dump(2), again) && same(read, again),
           "a document reads the same when it is written anew");
    return 0;
}
