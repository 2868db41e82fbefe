#include "support/TemporaryDirectory.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

TemporaryDirectory::TemporaryDirectory() {
    // Short, because sockets live here too.
    std::string name = "/tmp/kivtest-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
    path_ = name;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    if (!file) throw std::runtime_error("cannot write " + path);
}
