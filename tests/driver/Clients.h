/// The driver's clients for the functions of virtual cards.
#ifndef KIV_TEST_CLIENTS_H
#define KIV_TEST_CLIENTS_H

#include <IOKit/IOKitLib.h>

#include <kiv/kivDriverClient.h>
#include "driver/DriverLines.h"
#include "support/DriverFault.h"
#include "support/RunningSimulator.h"
#include "support/Test.h"

inline kivDriverClientList clients() {
    return kivDriverClient::enumerateDevices("kivPCIService");
}
inline std::shared_ptr<kivDriverClient> first_client() {
    return clients().at(0);
}

/// Virtual cards, and a client for the first function of the first one.
class OneClient : public testing::Test {
  protected:
    /// The nth call of the selector from now on fails with kIOReturnBusy.
    void fail_call(uint32_t selector, uint32_t nth) const {
        const std::string body = R"({"status": "0xE00002D5", "selector": )" + std::to_string(selector) +
                                 R"(, "nth": )" + std::to_string(nth) + "}";
        EXPECT_EQ(simulator_.control("POST", "/driver_faults", body).status, 200);
    }

    RunningSimulator simulator_;
    std::shared_ptr<kivDriverClient> client_ = first_client();
};

#endif
