#include <kiv/HpsHttpHelper.h>

#include <filesystem>
#include <utility>

#include <kiv/kiv_json.h>
#include "base/jsonSyntax.h"
#include "base/jsonText.h"
#include "log/kivLogDispatch.h"

using kiv::kHpsSource;
using kiv::log_error;
using Json = nlohmann::ordered_json;

bool HpsHttpHelper::handle(const HttpResult& result) {
    if (result.success) return true;
    const int64_t status = result.status;
    if (status == 0) {
        log_error(kHpsSource, "HTTP Network error: {}", result.error);
    } else if (status >= 500) {
        log_error(kHpsSource, "HTTP Server error status={}, msg={}", status, result.error);
    } else if (status == 401 || status == 403) {
        log_error(kHpsSource, "HTTP Auth error status={}", status);
    } else if (status == 404) {
        log_error(kHpsSource, "HTTP not found");
    } else if (result.body.empty()) {
        log_error(kHpsSource, "HTTP status={}, no body", status);
    } else {
        log_error(kHpsSource, "HTTP status={}, body={}", status, result.body);
    }
    return false;
}

bool HpsHttpHelper::handle_json(const HttpResult& result, Json& out) {
    if (!handle(result)) return false;
    try {
        Json root = kiv::json::parse(result.body);
        if (!root.is_object() || !root.contains("data")) {
            out = std::move(root);
            return true;
        }
        Json& data = root["data"];
        if (data.is_string() && kiv::json::is_valid(data.get_ref<const std::string&>())) {
            out = kiv::json::parse(data.get_ref<const std::string&>());
        } else {
            out = std::move(data);
        }
        return true;
    } catch (const std::exception& error) {
        log_error(kHpsSource, "JSON parse error: {}", error.what());
        log_error(kHpsSource, "body=[{}]", result.body);
        return false;
    }
}

bool HpsHttpHelper::handle_download(const HttpResult& result, const std::string& file_path) {
    if (!handle(result)) return false;
    std::error_code ignored;
    if (std::filesystem::exists(std::filesystem::status(file_path, ignored))) return true;
    log_error(kHpsSource, "Download file not exist: {}", file_path);
    return false;
}
