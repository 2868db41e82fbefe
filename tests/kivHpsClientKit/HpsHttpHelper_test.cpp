#include <kiv/HpsHttpHelper.h>

#include "base/jsonSyntax.h"
#include "kivHpsClientKit/HttpTexts.h"
#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"

namespace {

/// handle_json's payload, the order of its keys included, or the caller's value, kept.
std::string payload(const HttpResult& result) {
    Json out = "kept";
    return HpsHttpHelper::handle_json(result, out) ? text_of(out) : "failure " + text_of(out);
}

/// The log of a body that is not JSON.
Lines parse_error(const std::string& body) {
    try {
        return {"valid: " + text_of(parsed(body))};
    } catch (const Json::exception& error) {
        return {std::string("JSON parse error: ") + error.what(), "body=[" + body + "]"};
    }
}

}  // namespace

TEST(HpsHttpHelper, SaysInOneLineWhatFailed) {
    const std::pair<HttpResult, Lines> cases[] = {
        {{true, 0, "not JSON", "ignored"}, {}},
        {{false, 0, "body", "retry over"}, {"HTTP Network error: retry over"}},
        {{false, 500, "body", "http status 500"}, {"HTTP Server error status=500, msg=http status 500"}},
        {{false, 9'000'000'000, "", ""}, {"HTTP Server error status=9000000000, msg="}},
        {{false, 499, "", "x"}, {"HTTP status=499, no body"}},
        {{false, 401, "body", "x"}, {"HTTP Auth error status=401"}},
        {{false, 403, "", "x"}, {"HTTP Auth error status=403"}},
        {{false, 404, "body", "x"}, {"HTTP not found"}},
        {{false, 402, "{} {0} \xff", "x"}, {"HTTP status=402, body={} {0} \xff"}},
        {{false, 200, "kept", "file write error"}, {"HTTP status=200, body=kept"}},
    };
    CapturedLog log(KIV_LOG_LEVEL_ERROR);
    const TemporaryDirectory directory;
    for (const auto& [result, lines] : cases) {
        EXPECT_EQ(HpsHttpHelper::handle(result), result.success);
        EXPECT_EQ(log.take(), lines);
        EXPECT_EQ(HpsHttpHelper::handle_download(result, directory / "."), result.success);
        EXPECT_EQ(log.take(), lines);
        EXPECT_EQ(payload(result), R"(failure "kept")");
        EXPECT_EQ(log.take(), result.success ? parse_error("not JSON") : lines);
    }
    EXPECT_FALSE(HpsHttpHelper::handle_download({true, 200, "{}", ""}, directory / "none"));
    EXPECT_EQ(log.take(), Lines{"Download file not exist: " + (directory / "none")});
}

TEST(HpsHttpHelper, FindsThePayloadOnceWrappedOrNot) {
    const std::pair<std::string, std::string> cases[] = {
        {R"({"data":{"z":1,"a":{"data":2}},"status":0})", R"({"z":1,"a":{"data":2}})"},
        {R"({"first":0,"data":[3,1,2]})", "[3,1,2]"},
        {R"({"data":null})", "null"},
        {R"({"data":"{\"z\":1,\"a\":[]}"})", R"({"z":1,"a":[]})"},
        {R"({"data":"{\"data\":1}"})", R"({"data":1})"},
        {R"({"data":"{} // why"})", R"("{} // why")"},
        {R"([{"data":1}])", R"([{"data":1}])"},
    };
    CapturedLog log(KIV_LOG_LEVEL_ERROR);
    for (const auto& [body, wanted] : cases)
        EXPECT_EQ(payload({true, 200, body, ""}), wanted) << body;
    EXPECT_EQ(log.take(), Lines{});
    for (const std::string body : {"", R"({"data":1} // why)", R"({"data":)", "1e999", "\"\xff\""}) {
        EXPECT_EQ(payload({true, 200, body, ""}), R"(failure "kept")");
        EXPECT_EQ(log.take(), parse_error(body));
    }
}

TEST(HpsHttpHelper, KnowsWhatIsJsonAsTheJsonLibraryDoes) {
    using namespace std::string_literals;
    const auto agree = [](const std::string& text) {
        ASSERT_EQ(kiv::json::is_valid(text), nlohmann::json::accept(text)) << testing::PrintToString(text);
    };
    const std::string texts[] = {
        R"({"a":[{"b":"#5","c":-4.25,"d":[]},{}],"t":true,"n":null,"f":false, "e" : 0})",
        "\xef\xbb\xbf [1,2e3,-0.5E-2,\"\\u00e9\\uD83d\\ude00\"]\r\n",
        "[\"\\\"\\\\\\/\\b\xc3\xbc\xe0\xa0\x80\xf0\x9f\x98\x80\"\t]",
        R"([[[{}],[[]]],{"k":{"l":[1]},"k":"\n"}])",
        "\"\xed\x9f\xbf\xee\x80\x80\xf4\x8f\xbf\xbf\"",
        "[" + std::string(320, '7') + ",1e308]",
    };
    const std::string bytes = "{}[]\",:019-+.eEtuDd\\/ \n\v\x1f\x7f\x80\x9f\xa0\xc1\xed\xf4\xf5\xff\0"s;
    for (const std::string& text : texts) {
        for (std::size_t at = 0; at <= std::min<std::size_t>(text.size(), 110); ++at) {
            agree(text.substr(0, at));
            agree(text.substr(at));
            for (const char byte : bytes) {
                std::string changed = text;
                agree(changed.insert(at, 1, byte));
                agree(changed.erase(at + 1, 1));
            }
        }
    }
    for (const std::size_t digits : {299u, 300u, 308u, 309u, 400u})
        agree(std::string(digits, '9'));
}

TEST(HpsHttpHelper, RefusesMoreLevelsOrKeysThanAnyAnswerHas) {
    const auto nested = [](std::size_t levels) {
        return std::string(levels, '[') + "7" + std::string(levels, ']');
    };
    const auto keyed = [](std::size_t keys) {  // All the same: they count as written.
        std::string text = R"({"a:{[":":\\\":[{")";
        for (std::size_t i = 1; i < keys; ++i)
            text += R"(,"b\\":{"c":[]})";
        return text + "}";
    };
    const auto as_text = [](const std::string& text) { return R"({"data":)" + text_of(text) + "}"; };
    std::string objects = '[' + keyed(1000);
    for (int i = 0; i < 20'000; ++i)
        objects += R"(,{},{"key":0})";
    objects += "]";
    const std::string levels = "more than 100 levels", keys = "more than 1000 keys in one object";
    const std::pair<std::string, std::string> cases[] = {
        {nested(100), ""},
        {nested(101), levels},
        {nested(300'000), levels},
        {keyed(1000), ""},
        {keyed(1001), keys},
        {objects, ""},
        {as_text(nested(100)), ""},
        {as_text(nested(101)), levels},
        {as_text(keyed(1001)), keys},
    };
    CapturedLog log(KIV_LOG_LEVEL_ERROR);
    const Stopwatch watch;
    for (const auto& [body, refused] : cases) {
        EXPECT_EQ(payload({true, 200, body, ""}) == R"(failure "kept")", !refused.empty());
        EXPECT_EQ(log.take(),
                  refused.empty() ? Lines{} : Lines({"JSON parse error: " + refused, "body=[" + body + "]"}));
    }
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(5))
        << "the work grows with the text, not with its square";
}
