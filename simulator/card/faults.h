/// What goes wrong with a card: with calls of its driver, and with requests to its management server.
#ifndef KIVSIM_FAULTS_H
#define KIVSIM_FAULTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kivsim {

/// How often a fault was met.
struct FaultCount {
    uint32_t seen = 0;  ///< Calls or requests that it could have met.
    uint32_t hits = 0;  ///< Those that it met.
};

struct DriverFault {
    uint32_t selector = 0;
    std::optional<uint32_t> nth;         ///< The nth call of that selector, from 1; every call when absent.
    int32_t status = 0;                  ///< Non-zero: the call fails with it.
    uint32_t delay_ms = 0;               ///< The reply comes that much later.
    std::optional<uint32_t> reply_size;  ///< The reply is cut to so many bytes.
    FaultCount count{};
};

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
    bool carried_out = true;  ///< Whether the card does what the request asks before the fault answers.
    FaultCount count{};

    bool matches(const std::string& request_method, const std::string& request_path) const {
        if (!method.empty() && method != request_method) return false;
        return path.ends_with('/') ? request_path.starts_with(path) : request_path == path;
    }
};

/// The first fault that fits, or null; counts at all that could have been met.
template <typename Fault, typename Matches>
const Fault* next_fault(std::vector<Fault>& faults, const Matches& matches) {
    Fault* met = nullptr;
    for (Fault& fault : faults) {
        if (!matches(fault)) continue;
        ++fault.count.seen;
        if (met == nullptr && (!fault.nth || *fault.nth == fault.count.seen)) met = &fault;
    }
    if (met != nullptr) ++met->count.hits;
    return met;
}

}  // namespace kivsim

#endif
