// Console routines of the engine, over the host's two print primitives.
#include "host/console.h"

#include "host/messages.h"

namespace tarnel {

std::FILE* ptr = nullptr;

std::string trim_trailing_blanks(std::string_view text) {
  std::size_t n = text.size();
  while (n > 0 && (text[n - 1] == ' ' || text[n - 1] == '\0')) --n;
  return std::string(text.substr(0, n));
}

namespace {
void host_printf(const char* format, ...) {
  std::va_list ap;
  va_start(ap, format);
  host_vprintf(format, ap);
  va_end(ap);
}
}  // namespace

void cprintd(std::string_view format, double x) {
  const std::string f(format);
  if (ptr) {
    std::fprintf(ptr, f.c_str(), x);
  } else {
    host_printf(f.c_str(), x);
  }
}

void cprinti(std::string_view format, int x) {
  const std::string f(format);
  if (ptr) {
    std::fprintf(ptr, f.c_str(), x);
  } else {
    host_printf(f.c_str(), x);
  }
}

void cprintc(std::string_view format) {
  const std::string f(format);
  if (ptr) {
    std::fputs(f.c_str(), ptr);
  } else {
    host_puts(f.c_str());
  }
}

void cpflush() {
  if (ptr) std::fflush(ptr);
}

void vprt(const char* format, ...) {
  std::va_list ap;
  va_start(ap, format);
  host_vprintf(format, ap);
  va_end(ap);
}

void fmessage(std::string_view text) {
  const std::string clock = xtime();
  const std::string t = trim_trailing_blanks(text);
  if (ptr) {
    std::fprintf(ptr, "%s %s", t.c_str(), clock.c_str());
    std::fflush(ptr);
  } else {
    host_printf("%s %s", t.c_str(), clock.c_str());
  }
}

}  // namespace tarnel
