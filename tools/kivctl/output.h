/// Results on standard output, everything else on standard error, and failures that say what to try.
#ifndef KIVCTL_OUTPUT_H
#define KIVCTL_OUTPUT_H

#include <kiv/kiv_api.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace kivctl {

using Json = nlohmann::ordered_json;

/// An operation that failed; the text is for a person.
class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Throws a Failure that names the operation, the code and what to try, unless `result` is KIV_OK.
void check(kiv_result_t result, const std::string& operation);

/// While it lives, results go to what was standard output, and whatever else the process writes there (the
/// library's own lines) goes to standard error.
class Output {
  public:
    Output();

    void print(const std::string& text);
    void print(const Json& json);  ///< Indented, with a line end.

    /// Rows under a heading, in columns.
    void print_table(const std::vector<std::vector<std::string>>& rows);

    /// A message beside the results.
    static void note(const std::string& text);

  private:
    struct CloseFile {
        void operator()(FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<FILE, CloseFile> results_;
};

std::string dotted(uint32_t address);
std::string hex64(uint64_t value);

}  // namespace kivctl

#endif
