#include "support/ControlAddress.h"

#include <httplib.h>

ControlAnswer ask_address(const std::string& address, const std::string& method, const std::string& path,
                          const std::string& body, const std::string& type) {
    httplib::Request request;
    request.method = method;
    request.path = path;
    request.body = body;
    request.set_header("Content-Type", type);
    httplib::Client client("http://" + address);
    client.set_read_timeout(50);  // Below the limit of a test; sanitizers slow a simulator down.
    const httplib::Result result = client.send(request);
    return result ? ControlAnswer{result->status, result->body} : ControlAnswer{};
}

ControlAnswer ask_control(const std::string& address, const std::string& method, const std::string& path,
                          const std::string& body, unsigned id) {
    return ask_address(address, method, "/cards/" + std::to_string(id) + path, body);
}
