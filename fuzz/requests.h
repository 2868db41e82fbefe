/// Stands before libcurl: requests end in the target, and nothing goes to any network. A source of the
/// targets that use it is also tests/kivHpsClientKit/LibcurlOptions.cpp.
#ifndef KIV_FUZZ_REQUESTS_H
#define KIV_FUZZ_REQUESTS_H

#include <functional>
#include <string>

namespace fuzz {

struct Sent {
    std::string url;
    std::string method;  ///< Empty: GET.
    std::string body;
};

struct Answer {
    long status = 0;  ///< 0: the server cannot be reached.
    std::string body;
};

/// The target's server, on whatever thread asks.
using Server = std::function<Answer(const Sent& sent)>;
void set_server(Server server);

}  // namespace fuzz

#endif
