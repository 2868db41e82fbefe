/// Asks a simulator's control address, where cards are changed while they run and faults are switched on.
#ifndef KIV_TEST_CONTROL_ADDRESS_H
#define KIV_TEST_CONTROL_ADDRESS_H

#include <cstdint>
#include <string>

struct ControlAnswer {
    int status = 0;
    std::string body;  ///< JSON.
};

/// Any path of any server; status 0 when it does not answer. An empty `body` sends none.
ControlAnswer ask_address(const std::string& address, const std::string& method, const std::string& path,
                          const std::string& body = "", const std::string& type = "application/json");

/// `path` is behind "/cards/ID"; an empty `body` sends none.
ControlAnswer ask_control(const std::string& address, const std::string& method, const std::string& path = "",
                          const std::string& body = "", unsigned id = 1);

#endif
