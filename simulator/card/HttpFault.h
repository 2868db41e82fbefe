/// What goes wrong with a request to a management server, and how its answers are wrapped.
#ifndef KIVSIM_HTTP_FAULT_H
#define KIVSIM_HTTP_FAULT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/ConfigNode.h"

namespace kivsim {

/// How a payload P stands in an answer: {"data": P}, {"data": "the text of P"}, or P alone.
enum class Wrapping { Object, Text, None };

/// Where the connection ends.
enum class Cut { Nowhere, BeforeAnswer, InsideBody };

struct HttpFault {
    std::string method;           ///< Empty: any.
    std::string path;             ///< Below the base path; one that ends in "/" stands for all below it.
    std::optional<uint32_t> nth;  ///< The nth matching request, from 1; every one when absent.
    uint32_t delay_ms = 0;        ///< The answer comes that much later.
    Cut cut = Cut::Nowhere;
    std::optional<int> status;        ///< In place of the answer's.
    std::optional<std::string> body;  ///< In place of the answer's, as it stands.
    /// JSON that is merged into the payload: null removes a key, anything else replaces it. Null itself
    /// changes nothing.
    std::string patch = "null";

    uint32_t seen = 0;  ///< Matching requests so far.

    bool matches(const std::string& request_method, const std::string& request_path) const;
};

/// Throw BadConfig.
HttpFault http_fault_of(const ConfigNode& node);
std::vector<HttpFault> http_faults_of(const ConfigNode& node);
Wrapping wrapping_of(const ConfigNode& node);

}  // namespace kivsim

#endif
