#include "support/ControlAddress.h"

#include <httplib.h>

ControlAnswer ask_control(const std::string& address, const std::string& method, const std::string& path,
                          const std::string& body, unsigned id) {
    httplib::Request request;
    request.method = method;
    request.path = "/cards/" + std::to_string(id) + path;
    request.body = body;
    request.set_header("Content-Type", "application/json");
    const httplib::Result result = httplib::Client("http://" + address).send(request);
    return result ? ControlAnswer{result->status, result->body} : ControlAnswer{};
}
