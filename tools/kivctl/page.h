/// The web page, which CMake puts into the program.
#ifndef KIVCTL_PAGE_H
#define KIVCTL_PAGE_H

#include <cstddef>

namespace kivctl {

extern const char kPage[];
extern const std::size_t kPageSize;

}  // namespace kivctl

#endif
