// The JSON library's exceptions as an application meets them that links the shared library.
#include <gtest/gtest.h>
#include <kiv/hpsClient.h>
#include <kiv/kivClient.h>
#include <kiv/kiv_json.h>

#include <typeinfo>

using Json = nlohmann::ordered_json;

TEST(JsonTypes, OfTheLibraryAndOfTheApplicationAreOne) {
    HttpClient client("http://127.0.0.1:1");
    try {
        client.post("/", "Z\xfcrich");
        FAIL() << "not UTF-8";
    } catch (const Json::type_error& error) {
        // Not every platform compares the names of types where their addresses differ.
        EXPECT_EQ(&typeid(error), &typeid(Json::type_error));
    }
    try {
        hpsClient().http_post("/", "{");
        FAIL() << "not JSON";
    } catch (const std::exception& error) {
        EXPECT_EQ(&typeid(error), &typeid(Json::parse_error));
    }
}
