/// Results on standard output, everything else on standard error.
#ifndef KIVCTL_OUTPUT_H
#define KIVCTL_OUTPUT_H

#include <cstddef>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "failure.h"

namespace kivctl {

/// A member of JSON objects, and what a person reads for it.
struct Name {
    const char* key;
    const char* text;
};

struct TerminalSize {
    std::size_t rows;
    std::size_t columns;
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

    /// The failure on standard error; with `json` also as an object among the results. Never throws, and
    /// never waits for another thread that prints, nor long for who reads.
    void print_failure(const Failure& failure, bool json) noexcept;

    /// True when a person looks at the results as they come, on a terminal that can move its cursor.
    bool is_terminal() const;

    /// Of that terminal: 24 by 80 when it does not tell.
    TerminalSize terminal_size() const;

    /// A message beside the results. Gives up when nobody takes it within a second.
    static void note(const std::string& text) noexcept;

  private:
    int results_;  ///< A descriptor; the process ends with it open.
    std::mutex mutex_;
};

/// Rows with their members in columns, without line ends.
std::vector<std::string> table_lines(const std::vector<std::vector<std::string>>& rows);

/// The object that a command prints: "schema" says what it is and which version of it.
Json document(const std::string& command);

/// One line with its end. What a card sends as text need not be text, and may hold codes that a terminal
/// obeys.
std::string json_line(const Json& json);

/// As a terminal may show it: control characters of texts that came from a card are escaped, and a text that
/// no person would read to its end is cut.
std::string printable(const std::string& text);

/// The same between quotation marks.
std::string quoted(const std::string& text);

/// A value as a person reads it: null is "-", a fraction has two decimals, members of an array stand side by
/// side, of an object only "text".
std::string text_of(const Json& value);

}  // namespace kivctl

#endif
