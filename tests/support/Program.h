/// A program started by a test.
#ifndef KIV_TEST_PROGRAM_H
#define KIV_TEST_PROGRAM_H

#include <kivos/descriptor.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

/// What a program that has ended left.
struct Ended {
    int status;       ///< Exit status, or minus the signal that ended it.
    std::string out;  ///< Standard output.
    std::string err;  ///< Standard error.
};

using Environment = std::vector<std::pair<std::string, std::string>>;

/// Runs a program to its end; one that takes longer than `limit` is killed and ends with -9.
Ended run_program(const std::vector<std::string>& arguments, const Environment& environment = {},
                  std::chrono::seconds limit = std::chrono::seconds(30));

/// A program that runs beside the test. Killed with the object unless it has ended.
class Program {
  public:
    explicit Program(const std::vector<std::string>& arguments, const Environment& environment = {});
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void send_signal(int number);

    /// The next line of its standard output, without line end; empty when there is none within 20 s.
    std::string read_line();

    Ended wait(std::chrono::seconds limit = std::chrono::seconds(30));

    /// Sends the signal before it waits.
    Ended end(int signal, std::chrono::seconds limit = std::chrono::seconds(30));

  private:
    bool read_some(std::chrono::milliseconds limit);

    pid_t pid_ = -1;
    kivos::Descriptor out_;
    kivos::Descriptor err_;
    std::string out_text_;
    std::string err_text_;
};

#endif
