/// Results on standard output, everything else on standard error, and failures that say what to try.
#ifndef KIVCTL_OUTPUT_H
#define KIVCTL_OUTPUT_H

#include <kiv/kiv_api.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json_fwd.hpp>
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

/// A member of JSON objects, and what a person reads for it.
struct Name {
    const char* key;
    const char* text;
};

/// While it lives, results go to what was standard output, and whatever else the process writes there (the
/// library's own lines) goes to standard error. Several threads may print; a text stays in one piece.
class Output {
  public:
    Output();

    void print(const std::string& text);
    void print_json(const Json& json, int indent = 4);  ///< With a line end; -1 for one line.

    /// Rows under a heading, in columns.
    void print_table(const std::vector<std::vector<std::string>>& rows);

    /// An array of objects, an object a row, under the names of the columns.
    void print_table(const std::vector<Name>& columns, const Json& objects);

    /// Members of one object, a line each.
    void print_record(const std::vector<Name>& lines, const Json& object);

    /// True when a person looks at the results as they come.
    bool is_terminal() const;

    /// A message beside the results.
    static void note(const std::string& text);

  private:
    struct CloseFile {
        void operator()(FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<FILE, CloseFile> results_;
};

/// A value as a person reads it: null is "-", a fraction has two decimals, members of an array stand side by
/// side.
std::string text_of(const Json& value);

std::string dotted(uint32_t address);
std::string hex64(uint64_t value);

}  // namespace kivctl

#endif
