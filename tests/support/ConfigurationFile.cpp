#include "support/ConfigurationFile.h"

#include <filesystem>
#include <fstream>

#include "support/TemporaryDirectory.h"

namespace fs = std::filesystem;

namespace {

const fs::path kPath = "/Library/Application Support/Velmora/config/hps_boot.json";
const fs::path kKept = kPath.string() + ".kept-by-tests";

}  // namespace

ConfigurationFile::ConfigurationFile(const std::string& text) {
    std::error_code error;
    fs::create_directories(kPath.parent_path(), error);
    if (fs::exists(kKept)) restore();
    if (fs::exists(kPath)) {
        fs::copy_file(kPath, kKept, error);
    } else {
        std::ofstream(kKept).close();  // Empty: there was none.
    }
    usable_ = fs::exists(kKept);
    if (usable_) write(text);
}

ConfigurationFile::~ConfigurationFile() {
    if (usable_) restore();
}

void ConfigurationFile::restore() {
    std::error_code ignored;
    fs::remove(path() + ".bak", ignored);  // Of a program under test.
    if (fs::file_size(kKept, ignored) == 0) {
        fs::remove(kPath, ignored);
        fs::remove(kKept, ignored);
    } else {
        fs::rename(kKept, kPath, ignored);
    }
}

void ConfigurationFile::write(const std::string& text) {
    write_file(kPath.string(), text);
}

void ConfigurationFile::remove() {
    std::error_code ignored;
    fs::remove(kPath, ignored);
}

std::string ConfigurationFile::path() {
    return kPath.string();
}

std::string ConfigurationFile::read() const {
    return read_file(kPath.string());
}

std::string ConfigurationFile::sample() {
    return read_file(KIV_SAMPLE_CONFIGURATION);
}
