/// What an HttpResult of a card's management server means: yes or no, one log line, and the JSON payload.
/// Needs the version of nlohmann/json that kiv was built with: see kivClient.h.
#ifndef KIV_HPS_HTTP_HELPER_H
#define KIV_HPS_HTTP_HELPER_H

#include <nlohmann/json_fwd.hpp>
#include <string>

#include <kiv/kivClient.h>
#include <kiv/kiv_export.h>

/// Stateless; any thread. Nothing here throws for what a server sent.
class KIV_API HpsHttpHelper {
  public:
    /// True for a success; otherwise logs one line that classifies the failure (none before kivLog_open or
    /// kiv_open).
    static bool handle(const HttpResult& result);

    /// handle(), then the payload of the body into `out`: the member "data" when the body is an object that
    /// has it (a text that is itself JSON is parsed once more), else the whole body. False when the body is
    /// not JSON, or more of it than any answer has: more than 100 levels, or 1000 keys in one object.
    static bool handle_json(const HttpResult& result, nlohmann::ordered_json& out);

    /// handle(), then whether the downloaded file exists.
    static bool handle_download(const HttpResult& result, const std::string& file_path);
};

#endif
