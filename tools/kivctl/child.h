/// This program as a child of itself.
#ifndef KIVCTL_CHILD_H
#define KIVCTL_CHILD_H

#include <string>
#include <vector>

namespace kivctl {

struct Ended {
    int status;  ///< Exit status; -1 when something else ended it.
    std::string out;
    std::string err;
};

/// Runs this program with these words to its end. Throws Failure when it cannot be started.
Ended run_self(const std::vector<std::string>& words);

}  // namespace kivctl

#endif
