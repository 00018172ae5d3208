// Fixed-width text fields for the engine's reports.
#include <cstdio>
#include <cstring>
#include <string>

#include "host/utils.h"

namespace tarnel {

void txtarr(char* result, std::size_t length, const char* const* arr, int i) {
  put_text(result, length, arr[i - 1]);
}

namespace {
// Shared layout of txtdble and txtint: values of `width` characters, line
// breaks after each eighth value and a leading newline only when n > 4.
template <class F>
void format_values(char* text, std::size_t length, int n, std::size_t width, char fill, F one) {
  std::memset(text, fill, length);
  if (n <= 0 || length == 0) return;
  std::string tmp(length + 32, fill);
  const std::size_t limit = length / 9;
  const std::size_t m = static_cast<std::size_t>(n) < limit ? static_cast<std::size_t>(n) : limit;
  const bool lines = n > 4;
  std::size_t at = 0;
  if (lines) tmp[at++] = '\n';
  char buf[64];
  for (std::size_t k = 0; k < m; ++k) {
    const bool eighth = lines && (k + 1) % 8 == 0;
    const int w = one(buf, sizeof buf, k, eighth);
    for (int c = 0; c < w && at < tmp.size(); ++c) tmp[at++] = buf[c];
  }
  std::size_t copy = static_cast<std::size_t>(n) * width - 1 + (lines ? 1 : 0);
  if (copy > length) copy = length;
  std::memcpy(text, tmp.data(), copy);
}
}  // namespace

void txtdble(char* text, std::size_t length, const double* values, int n) {
  format_values(text, length, n, 9, '\0', [&](char* b, std::size_t sz, std::size_t k, bool e) {
    return std::snprintf(b, sz, e ? "%8.3lf\n" : "%8.3lf ", values[k]);
  });
}

void txtint(char* text, std::size_t length, const int* values, int n) {
  format_values(text, length, n, 4, ' ', [&](char* b, std::size_t sz, std::size_t k, bool e) {
    return std::snprintf(b, sz, e ? "%3d\n" : "%3d ", values[k]);
  });
}

}  // namespace tarnel
