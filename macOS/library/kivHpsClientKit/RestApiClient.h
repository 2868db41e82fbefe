/// IRestApiClient over an address text.
#ifndef KIV_REST_API_CLIENT_H
#define KIV_REST_API_CLIENT_H

#include <string>
#include <utility>

#include <kiv/IRestApiClient.h>
#include <kiv/kiv_export.h>

namespace kiv::rest {

/// The management-server client of a card that a scan has found.
class KIV_API RestApiClient final : public IRestApiClient {
  public:
    /// `address`: dotted IPv4 address, colon, decimal port. No network activity.
    explicit RestApiClient(std::string address);

    int32_t open() override;  ///< Configures the client, without background threads.
    int32_t close() override;

  private:
    std::string address_;
};

/// Splits at the first colon. Without one: a line on standard error and two empty texts.
KIV_API std::pair<std::string, std::string> split_ip_port(const std::string& text);

}  // namespace kiv::rest

#endif
