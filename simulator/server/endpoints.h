/// The REST API of a card's management server.
#ifndef KIVSIM_ENDPOINTS_H
#define KIVSIM_ENDPOINTS_H

#include <string>

#include "card/HttpFault.h"
#include "card/VirtualCard.h"

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
};

/// Answers one request to a card, with the card's faults.
Answer answer_request(VirtualCard& card, const HttpRequest& request);

}  // namespace kivsim

#endif
