#include <kiv/RestApiClient.h>

#include <iostream>

namespace kiv::rest {

RestApiClient::RestApiClient(std::string address) : address_(std::move(address)) {}

int32_t RestApiClient::open() {
    const auto [ip, port] = split_ip_port(address_);
    return open_config(ip, port, false) == 0 ? 0 : -1;
}

int32_t RestApiClient::close() {
    return 0;
}

std::pair<std::string, std::string> split_ip_port(const std::string& text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        // Not in the library's log: docs/oddities.md.
        std::cerr << "Error: Colon ':' not found in string." << std::endl;
        return {};
    }
    return {text.substr(0, colon), text.substr(colon + 1)};
}

}  // namespace kiv::rest
