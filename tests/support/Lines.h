/// Texts one by one: lines of a log, requests, words.
#ifndef KIV_TEST_LINES_H
#define KIV_TEST_LINES_H

#include <string>
#include <vector>

using Lines = std::vector<std::string>;

#endif
