/// Asks the simulator's control address.
#ifndef KIV_TEST_CONTROL_ADDRESS_H
#define KIV_TEST_CONTROL_ADDRESS_H

#include <nlohmann/json.hpp>
#include <string>

#include <kiv/kivClient.h>
#include "support/RunningSimulator.h"

/// The answer to a request for the first default card, or "STATUS".
inline nlohmann::json control(RunningSimulator& simulator, const std::string& method,
                              const std::string& path = "", const nlohmann::json& body = nullptr) {
    HttpClient client("http://" + simulator->control_address() + "/cards/1");
    const HttpResult result = client.perform(method, path, body.dump(), "application/json", 5);
    return result.success ? nlohmann::json::parse(result.body)
                          : nlohmann::json(std::to_string(result.status));
}

#endif
