/// Requests, results and log lines of the management-server client as texts to compare.
#ifndef KIV_TEST_HTTP_TEXTS_H
#define KIV_TEST_HTTP_TEXTS_H

#include <curl/curl.h>

#include <kiv/kivClient.h>
#include "support/Json.h"
#include "support/LoopbackServer.h"
#include "support/Test.h"

/// "success 200 [body]", "failure 404 [body] error".
inline std::string text(const HttpResult& result) {
    return (result.success ? "success " : "failure ") + std::to_string(result.status) + " [" + result.body +
           "]" + (result.error.empty() ? "" : " " + result.error);
}

/// A request as it must arrive. Without a content type it carries no body.
inline std::string wanted(const LoopbackServer& server, const std::string& request_line,
                          const std::string& type = "", const std::string& body = "") {
    const std::string head =
        request_line + " HTTP/1.1\r\nHost: " + server.url().substr(7) + "\r\nAccept: */*\r\n";
    if (type.empty()) return head + "\r\n";
    const std::string length = std::to_string(body.size());
    return head + "Content-Type: " + type + "\r\nContent-Length: " + length + "\r\n\r\n" + body;
}

/// The log of attempts that all failed in the same way, and of what follows.
inline Lines failed_attempts(CURLcode code, int attempts, const Lines& then = {}) {
    Lines lines = then;
    for (int i = 0; i < attempts; ++i)
        lines.insert(lines.begin(), {curl_easy_strerror(code), "network error"});
    return lines;
}

const LoopbackServer::Reply kHangsUp{"", {}};

#endif
