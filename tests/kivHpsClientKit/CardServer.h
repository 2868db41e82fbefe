/// The management server of one virtual card, in the test's own process; and what else the tests here share.
#ifndef KIV_TEST_CARD_SERVER_H
#define KIV_TEST_CARD_SERVER_H

#include "Simulator.h"

#include <sstream>

#include <kiv/hpsClient.h>
#include "support/CapturedLog.h"
#include "support/ControlAddress.h"
#include "support/Json.h"
#include "support/TemporaryDirectory.h"
#include "support/Test.h"

template <typename... Values>
std::string words(const Values&... values) {
    std::ostringstream out;
    ((out << values << ' '), ...);
    return out.str();
}

/// What get_firmware_info() gives, and the images that it names.
inline std::string images(hpsClient& client) {
    std::string one = "kept1", two = "kept2";
    const int32_t result = client.get_firmware_info(one, two);
    return words(result, one, two);
}

class CardServer {
  public:
    CardServer() : simulator_({card()}, directory_ / "socket", "", log_) {}

    std::string port() const { return simulator_.server_addresses()[0].substr(10); }
    int32_t open(hpsClient& client, bool threads) const {
        return client.open_config("127.0.0.1", port(), threads);
    }

    /// Asks the control address: status and JSON of the answer.
    std::string control(const std::string& method, const std::string& path = "", const Json& body = {}) {
        const ControlAnswer answer = ask_control(simulator_.control_address(), method, path, text_of(body));
        return std::to_string(answer.status) + " " + text_of(parsed(answer.body));
    }

    /// The requests so far, whole, and the methods of those whose path below the base path starts so.
    std::string log() const { return read_file(log_); }
    std::string methods(const std::string& start) const {
        const std::string text = log(), path = "\",\"path\":\"/api/v1.0" + start;
        std::string found;
        for (std::size_t at = 0; (at = text.find(path, at)) != std::string::npos; ++at)
            found += text.substr(text.rfind('"', at - 1) + 1, at - text.rfind('"', at - 1) - 1) + " ";
        return found;
    }

  private:
    static kivsim::CardSettings card() {
        kivsim::CardSettings card = kivsim::believable_card(1);
        card.flash_ms = 1200;
        return card;
    }

    TemporaryDirectory directory_;
    const std::string log_ = directory_ / "requests";
    kivsim::Simulator simulator_;
};

#endif
