// The test build's console: standard output, or a capture buffer that
// tests read back to check texts word for word.
#ifndef TARNEL_TESTS_CONSOLE_CAPTURE_H
#define TARNEL_TESTS_CONSOLE_CAPTURE_H

#include <string>

namespace tarnel_test {
// Starts capturing console output (and clears what was captured).
void capture_begin();
// Stops capturing and returns what was printed since capture_begin.
std::string capture_end();
}  // namespace tarnel_test

#endif
