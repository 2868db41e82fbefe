// The values of all cards for a monitoring system and for a browser.
#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "cards_document.h"
#include "collector.h"
#include "commands.h"
#include "guard.h"
#include "http_server.h"
#include "metrics.h"
#include "page.h"

namespace kivctl {

namespace {

constexpr std::chrono::milliseconds kScrape{1500};  ///< How long a scrape may wait for the cards,
constexpr std::chrono::milliseconds kLook{300};     ///< and a browser, which asks again soon.

HttpAnswer json_answer(const Json& json) {
    return {"application/json", json.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n"};
}

HttpAnswer metrics(Collector& collector) {
    const Clock::time_point fresh = collector.refresh(kScrape);
    return {"text/plain; version=0.0.4; charset=utf-8", metrics_text(collector.snapshot(), fresh)};
}

HttpAnswer cards(Collector& collector) {
    collector.refresh(kLook);
    return json_answer(cards_document(collector.snapshot()));
}

HttpAnswer history(Collector& collector, const std::string& text) {
    const std::optional<int64_t> id = number_of(text, 0, UINT8_MAX);
    if (!id) return {"text/plain", "history.json?card=ID: the id is a decimal number from 0 to 255\n", 400};
    const std::optional<Json> series = collector.history(static_cast<uint8_t>(*id));
    if (!series) return {"text/plain", fmt::format("there is no card {}\n", *id), 404};
    Json json = document("history");
    json["card"] = *id;
    json.update(*series);
    return json_answer(json);
}

Pages pages(Collector& collector) {
    return {{"/",
             [](const Parameters&) {
                 return HttpAnswer{"text/html; charset=utf-8", {kPage, kPageSize}};
             }},
            {"/metrics", [&](const Parameters&) { return metrics(collector); }},
            {"/cards.json", [&](const Parameters&) { return cards(collector); }},
            {"/history.json",
             [&](const Parameters& parameter) { return history(collector, parameter("card")); }}};
}

}  // namespace

Options serve_options(Request& request) {
    const auto take = [&request](const std::string& text) -> std::string {
        try {
            endpoint_of(text);
        } catch (const std::invalid_argument& error) {
            return error.what();
        }
        request.listen = text;
        return "";
    };
    return {{{"--listen", "Where to listen, 127.0.0.1:9644 unless told otherwise; port 0 is any free one",
              "ADDRESS:PORT", take}}};
}

Exit serve(const Request& request, Output& output) {
    HttpServer server(endpoint_of(request.listen), pages(*new Collector));
    guard().signals_are_the_end();
    const Endpoint& endpoint = server.endpoint();
    const std::string url = "http://" + endpoint.text() + "/";
    if (request.json) {
        Json json = document("serve");
        json.update({{"url", url}, {"address", endpoint.address}, {"port", endpoint.port}});
        output.print_json(json, -1);
    } else {
        output.print("listening at " + url + "\n");
    }
    server.run();
}

}  // namespace kivctl
