// Gives the files, and those of the folders, on the command line to the target: what libFuzzer does where
// there is none.
#include <algorithm>
#include <filesystem>
#include <vector>

#include "input.h"
#include "support/TemporaryDirectory.h"

int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape): it is to be seen.
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            files.emplace_back(argv[i]);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        std::fprintf(stderr, "%s\n",
                     file.c_str());  // Before it is given: the last one named is the one that fails.
        const std::string input = read_file(file);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    }
    return files.empty() ? 1 : 0;
}
