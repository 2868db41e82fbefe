#include "card/HttpFault.h"

namespace kivsim {

bool HttpFault::matches(const std::string& request_method, const std::string& request_path) const {
    if (!method.empty() && method != request_method) return false;
    return path.ends_with('/') ? request_path.starts_with(path) : request_path == path;
}

HttpFault http_fault_of(const ConfigNode& node) {
    node.members({"method", "path", "nth", "delay_ms", "cut", "status", "body", "patch"});
    HttpFault fault;
    fault.path = node.at("path").text();
    if (node.has("method")) fault.method = node.at("method").text();
    if (node.has("nth")) fault.nth = node.at("nth").number<uint32_t>();
    take(node, "delay_ms", fault.delay_ms);
    if (node.has("cut")) {
        const std::string cut = node.at("cut").text();
        if (cut != "before" && cut != "inside") node.at("cut").complain("must be \"before\" or \"inside\"");
        fault.cut = cut == "before" ? Cut::BeforeAnswer : Cut::InsideBody;
    }
    if (node.has("status")) fault.status = node.at("status").number<uint16_t>();
    if (node.has("body")) fault.body = node.at("body").text();
    if (node.has("patch")) fault.patch = text_of(node.at("patch").json());
    return fault;
}

std::vector<HttpFault> http_faults_of(const ConfigNode& node) {
    std::vector<HttpFault> faults;
    node.each([&](const ConfigNode& item) { faults.push_back(http_fault_of(item)); });
    return faults;
}

Wrapping wrapping_of(const ConfigNode& node) {
    const std::string text = node.text();
    if (text == "object") return Wrapping::Object;
    if (text == "text") return Wrapping::Text;
    if (text != "none") node.complain("must be \"object\", \"text\" or \"none\"");
    return Wrapping::None;
}

}  // namespace kivsim
