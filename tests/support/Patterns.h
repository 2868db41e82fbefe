/// Regular expressions in tests, as ECMAScript writes them. Compiled in Patterns.cpp: in every test that uses
/// them they would take the compiler seconds.
#ifndef KIV_TEST_PATTERNS_H
#define KIV_TEST_PATTERNS_H

#include <string>

#include "support/Lines.h"

/// Where the pattern is in the text, in order. A text that it matches as a whole is the only one.
Lines matches_of(const std::string& text, const std::string& pattern);

/// The text with `by` for each of them, in which $1 is the first group.
std::string replaced(const std::string& text, const std::string& pattern, const std::string& by);

#endif
