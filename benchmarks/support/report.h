/// What a benchmark found: rows of figures against their floors, printed as a table and written as JSON.
#ifndef KIV_BENCHMARKS_REPORT_H
#define KIV_BENCHMARKS_REPORT_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kivbench {

/// What our figure may be: the floor so many times, and so much more in the row's unit.
struct Budget {
    double times = 0;
    double more = 0;
};

/// One figure. Less is better in all of them: a row tells the time for each task, not the tasks of a second.
struct Row {
    std::string name;
    std::string unit;
    double ours = 0;
    std::optional<double> floor = {};  ///< What the same costs without us.
    std::string what_the_floor_is = {};
    std::optional<Budget> budget = {};  ///< Without one the figure is for information.

    std::optional<double> ratio() const;
    bool met() const;
};

class Report {
  public:
    /// Rows that follow are about this.
    void about(const std::string& group) { group_ = group; }

    void add(Row row);

    /// Something that could not be measured here, and why.
    void skip(const std::string& name, const std::string& reason);

    struct Entry {
        std::string group;
        Row row;
        std::string skipped;  ///< The reason; empty for what was measured.
    };
    const std::vector<Entry>& entries() const { return entries_; }

  private:
    void keep(Entry entry);

    std::string group_;
    std::vector<Entry> entries_;
};

/// The main function of a benchmark. Prints the rows as they come, and writes them for `--json FILE`, with
/// machine and versions. The exit status is 1 when a budget is missed, unless `--no-budget` is given, and 2
/// when something could not be measured because it failed.
int run(int argc, char** argv, const std::function<void(Report&)>& benchmark);

}  // namespace kivbench

#endif
