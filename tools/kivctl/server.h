/// A card's management server, asked directly: what went wrong, in more words than the library's codes have.
#ifndef KIVCTL_SERVER_H
#define KIVCTL_SERVER_H

#include <cstdint>
#include <optional>
#include <string>

#include "failure.h"

namespace kivctl {

/// The value as a whole number of 32 bits; nothing when it is anything else, a fraction for instance.
std::optional<int32_t> whole_number(const Json& value);

struct Answer {
    int64_t status = 0;  ///< Of HTTP; 0: there was no answer.
    std::string body;
};

class Server {
  public:
    /// IPv4, first octet in the most significant byte, and the TCP port, as the driver reports them.
    Server(uint32_t address, uint32_t port) : address_(address), port_(port) {}

    std::string address() const;  ///< "A.B.C.D:PORT"
    std::string url() const;      ///< Of the REST API.

    /// Why the server cannot be used, found out by asking it: no connection (network), no answer or one that
    /// cannot be used (server). Nothing when it answers well. Takes up to 4 s.
    std::optional<Failure> problem() const;

    /// Why no connection can be made; nothing when one can. Takes up to 2 s.
    std::optional<Failure> connection_problem() const;

    /// The payload of a GET, asked once. Throws Failure; takes up to 2 s.
    Json get(const std::string& path) const;

    /// A member of such a payload, which must be a whole number of 32 bits. Throws Failure.
    int32_t get_number(const std::string& path, const std::string& key) const;

    /// The answer of a GET as it came, byte for byte, asked once. Takes up to `seconds`.
    Answer ask(const std::string& path, int seconds) const;

  private:
    uint32_t address_;
    uint32_t port_;
};

}  // namespace kivctl

#endif
