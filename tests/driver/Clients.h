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

#endif
