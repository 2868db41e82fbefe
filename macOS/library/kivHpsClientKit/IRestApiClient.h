/// The management-server client as the device layer sees it.
#ifndef KIV_I_REST_API_CLIENT_H
#define KIV_I_REST_API_CLIENT_H

#include <kiv/hpsClient.h>
#include <kiv/kiv_export.h>

namespace kiv::rest {

/// Every hpsClient operation is reachable through it.
class KIV_API IRestApiClient : public hpsClient {
  public:
    virtual ~IRestApiClient() = default;

    /// Finds and checks the server. 0, or -1; throws when the port is not a number.
    virtual int32_t open() = 0;

    /// 0. The connection's state goes with the object.
    virtual int32_t close() = 0;
};

}  // namespace kiv::rest

#endif
