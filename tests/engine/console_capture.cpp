#include "console_capture.h"

#include <cstdio>

#include "host/console.h"

namespace {
bool capturing = false;
std::string captured;
}  // namespace

namespace tarnel {
void host_puts(const char* text) {
  if (capturing) {
    captured += text;
  } else {
    std::fputs(text, stdout);
  }
}
void host_vprintf(const char* format, std::va_list ap) {
  char buf[4096];
  std::va_list copy;
  va_copy(copy, ap);
  std::vsnprintf(buf, sizeof buf, format, copy);
  va_end(copy);
  host_puts(buf);
}
bool host_interrupt_pending() { return false; }
}  // namespace tarnel

namespace tarnel_test {
void capture_begin() {
  captured.clear();
  capturing = true;
}
std::string capture_end() {
  capturing = false;
  return captured;
}
}  // namespace tarnel_test
