// Opening the library, its version, saving the configuration, and the application's own log lines.
#include <kiv/kiv_api.h>

#include "support/CapturedLog.h"
#include "support/ConfigurationFile.h"
#include "support/Test.h"

namespace {

const std::string kPath = "/Library/Application Support/Velmora/config/hps_boot.json";

std::string open_error(const kiv_log_config_t* config = nullptr) {
    try {
        kiv_open(config);
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
    EXPECT_EQ(log.take(), Lines{"Starting KIV SDK: Config path=" + kPath});

    file.write("{}");
    const std::string missing = open_error();
    EXPECT_TRUE(missing.starts_with("Error during JSON deserialization: ")) << missing;
    EXPECT_TRUE(has(missing, "'version'"));
    file.write("{");
    const kiv_log_config_t warnings{KIV_LOG_LEVEL_WARNING};
    EXPECT_TRUE(open_error(&warnings).starts_with("Error: JSON parsing failed in " + kPath + " - "));
    EXPECT_EQ(kivLog_get_level(), KIV_LOG_LEVEL_WARNING) << "the log is open all the same";
    EXPECT_EQ(kivLog_get_type(), KIV_LOG_SINK_DEFAULT);
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

TEST(Lifecycle, TheVersionIsZeroOneOne) {
    kiv_sw_version_t version{9, 9, 9};
    EXPECT_EQ(kiv_get_sw_version(&version), KIV_OK);
    EXPECT_EQ((std::vector{version.major, version.minor, version.revision}), (std::vector<uint8_t>{0, 1, 1}));
    EXPECT_EQ(kiv_get_sw_version(nullptr), KIV_OK);
}

TEST(Lifecycle, AnApplicationsLineIsAFormatText) {
    CapturedLog log(KIV_LOG_LEVEL_WARNING);
    const std::tuple<kiv_log_level_t, const char*, kiv_result_t, Lines> cases[] = {
        {KIV_LOG_LEVEL_ERROR, "up", KIV_OK, {"up"}},
        {KIV_LOG_LEVEL_WARNING, "{{}}", KIV_OK, {"{}"}},
        {KIV_LOG_LEVEL_ERROR, "a {} too many", KIV_ERR_FAILED, {}},
        {KIV_LOG_LEVEL_ERROR, "open {", KIV_ERR_FAILED, {}},
        {KIV_LOG_LEVEL_INFO, "not wanted, so not even looked at {", KIV_OK, {}},
        {KIV_LOG_LEVEL_NONE, "never", KIV_OK, {}},
        {KIV_LOG_LEVEL_INFO, nullptr, KIV_ERR_NULL_ARGUMENT, {"Argument is NULL"}},
    };
    for (const auto& [level, message, result, lines] : cases) {
        SCOPED_TRACE(message != nullptr ? message : "null");
        EXPECT_EQ(kiv_log_print(level, message), result);
        EXPECT_EQ(log.take(), lines);
    }
}
