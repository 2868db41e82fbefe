/// The REST API of a card's management server.
#ifndef KIVSIM_ENDPOINTS_H
#define KIVSIM_ENDPOINTS_H

#include <string>

#include "VirtualCard.h"

namespace kivsim {

struct Answer {
    int status = 200;
    std::string body;  ///< JSON.
};

/// Answers one request to a card. `path` as in the request line, without a query.
Answer answer_request(VirtualCard& card, const std::string& method, const std::string& path,
                      const std::string& body);

}  // namespace kivsim

#endif
