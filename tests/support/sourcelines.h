#ifndef VELA_TESTS_SOURCELINES_H
#define VELA_TESTS_SOURCELINES_H

#include <string>

// The 1-based line of the first line of `file` (relative to the source tree)
// that contains `fragment`; 0 when none does. Lets tests check that a log
// record carries the line of the statement that wrote it.
int sourceLineOf(const std::string& file, const std::string& fragment);

#endif
