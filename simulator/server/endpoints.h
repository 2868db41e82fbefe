/// The REST API of a card's management server.
#ifndef KIVSIM_ENDPOINTS_H
#define KIVSIM_ENDPOINTS_H

#include <optional>
#include <string>

#include "card/VirtualCard.h"
#include "common/json.h"

namespace kivsim {

struct HttpRequest {
    std::string method;
    std::string path;  ///< As in the request line, without a query.
    std::string body;
    std::optional<std::string> file;  ///< Content of the form field "file" of a multipart request.
};

struct Answer {
    int status = 200;
    std::string body;
    std::string content_type = "application/json";
    uint32_t delay_ms = 0;  ///< To wait before it is sent.
    Cut cut = Cut::Nowhere;
    bool carried_out = true;  ///< False: a fault answers in place of the card, which did nothing.
};

/// Answers one request to a card, with the card's faults.
Answer answer_request(VirtualCard& card, const HttpRequest& request);

/// Whether there is anything at a path below the base path; of one that ends in "/", whether there is below
/// it.
bool is_path_of_server(const std::string& path);

/// Whether GET is answered at just that path.
bool is_answer_of_server(const std::string& path);

/// As the server lists them.
Json json_of(const InterfaceSettings& interface);
Json json_of(const Membership& membership);

}  // namespace kivsim

#endif
