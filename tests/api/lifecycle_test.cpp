// Opening the library, its version, saving the configuration, and the application's own log lines.
#include <kiv/kiv_api.h>

#include "support/CapturedLog.h"
#include "support/ConfigurationFile.h"
#include "support/Test.h"

namespace {

constexpr const char* kPath = "/Library/Application Support/Velmora/config/hps_boot.json";

std::string open_error() {
    try {
        kiv_open(nullptr);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

}  // namespace

TEST(Lifecycle, OpenLoadsTheConfigurationAndSaveWritesItBack) {
    ConfigurationFile file;
    SKIP_UNLESS_USABLE(file);
    CapturedLog log;
    ASSERT_EQ(kiv_open(nullptr), KIV_OK);  // Null settings keep the captured log in force.
    EXPECT_EQ(log.take(), Lines{std::string("Starting KIV SDK: Config path=") + kPath});

    file.write("{}");
    const std::string missing = open_error();
    EXPECT_EQ(missing.find("Error during JSON deserialization: "), 0u) << missing;
    EXPECT_TRUE(has(missing, "'version'"));
    file.write("{");
    EXPECT_EQ(open_error().find(std::string("Error: JSON parsing failed in ") + kPath + " - "), 0u);
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(kiv_configure_save(), KIV_OK);
    EXPECT_EQ(file.read(), ConfigurationFile::sample()) << "what was loaded first is still there";

    std::string other = ConfigurationFile::sample();
    other.replace(other.find("\"version\": 1"), 12, "\"version\": 2");
    file.write(other);
    ASSERT_EQ(kiv_open(nullptr), KIV_OK);
    file.write("");
    EXPECT_EQ(kiv_configure_save(), KIV_OK);
    EXPECT_EQ(file.read(), other) << "a second open replaces everything";
}

TEST(Lifecycle, TheLogIsOpenEvenWhenTheConfigurationCannotBeLoaded) {
    ConfigurationFile file("{");
    SKIP_UNLESS_USABLE(file);
    const kiv_log_config_t config{KIV_LOG_LEVEL_DEBUG};
    EXPECT_THROW(kiv_open(&config), std::runtime_error);
    EXPECT_EQ(kivLog_get_level(), KIV_LOG_LEVEL_DEBUG);
    EXPECT_EQ(kivLog_get_type(), KIV_LOG_SINK_DEFAULT);
}

TEST(Lifecycle, TheVersionIsZeroOneOne) {
    kiv_sw_version_t version{9, 9, 9};
    EXPECT_EQ(kiv_get_sw_version(&version), KIV_OK);
    EXPECT_EQ((std::vector{version.major, version.minor, version.revision}), (std::vector<uint8_t>{0, 1, 1}));
    EXPECT_EQ(kiv_get_sw_version(nullptr), KIV_OK);
}

TEST(Lifecycle, AnApplicationsLineIsAFormatText) {
    CapturedLog log(KIV_LOG_LEVEL_WARNING);
    struct Case {
        kiv_log_level_t level;
        const char* message;
        kiv_result_t result;
        Lines lines;
    };
    const Case cases[] = {
        {KIV_LOG_LEVEL_ERROR, "up", KIV_OK, {"up"}},
        {KIV_LOG_LEVEL_WARNING, "{{}}", KIV_OK, {"{}"}},
        {KIV_LOG_LEVEL_ERROR, "a {} too many", KIV_ERR_FAILED, {}},
        {KIV_LOG_LEVEL_ERROR, "open {", KIV_ERR_FAILED, {}},
        {KIV_LOG_LEVEL_INFO, "not wanted, so not even looked at {", KIV_OK, {}},
        {KIV_LOG_LEVEL_NONE, "never", KIV_OK, {}},
        {KIV_LOG_LEVEL_INFO, nullptr, KIV_ERR_NULL_ARGUMENT, {"Argument is NULL"}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(kiv_log_print(c.level, c.message), c.result);
        EXPECT_EQ(log.take(), c.lines) << (c.message != nullptr ? c.message : "null");
    }
}
