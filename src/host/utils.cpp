// Small host utilities.
#include "host/utils.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tarnel {

// The date of this build of the engine, as "Mmm dd yyyy".
static const char kBuildDate[] = "Nov 21 2026";

namespace {
inline double packed(span<const double> a, int i, int j) {  // 1-based, any order
  if (j > i) std::swap(i, j);
  return a[static_cast<std::size_t>(i) * (i - 1) / 2 + j - 1];
}
}  // namespace

void aimat(span<const double> aivec, span<const double> g, span<const int> tgamma, double s,
           int convrt, span<double> ai, int n) {
  for (int i = 1; i <= n; ++i) {
    for (int j = 1; j <= i; ++j) {
      double v = packed(aivec, i, j);
      if (convrt != 0 && !(i == n && j == n)) {
        const bool fi = (tgamma[i - 1] % 2) != 0;
        const bool fj = (tgamma[j - 1] % 2) != 0;
        const double ann = packed(aivec, n, n);
        const double gi = g[i - 1], gj = g[j - 1];
        if (i == j) {
          if (!fi) v = gi * gi * ann + 2 * s * gi * packed(aivec, i, n) + s * s * packed(aivec, i, i);
        } else if (i == n) {
          if (!fj) v = gj * ann + s * packed(aivec, j, n);
        } else if (!fi && !fj) {
          v = gi * gj * ann + gi * s * packed(aivec, j, n) + gj * s * packed(aivec, i, n) +
              s * s * packed(aivec, i, j);
        } else if (!fi && fj) {
          v = gi * packed(aivec, j, n) + s * packed(aivec, i, j);
        } else if (fi && !fj) {
          v = gj * packed(aivec, i, n) + s * packed(aivec, i, j);
        }
      }
      ai[static_cast<std::size_t>(j - 1) * n + (i - 1)] = v;
      ai[static_cast<std::size_t>(i - 1) * n + (j - 1)] = v;
    }
  }
}

bool can_be_numeric(const char* s) {
  if (std::strcmp(s, "NA") == 0) return true;
  char* end = nullptr;
  std::strtod(s, &end);
  return end != s && *end == '\0';
}

std::string rtext_copy(const std::string& source, int start, int end) {
  if (start < 1) start = 1;
  if (end > static_cast<int>(source.size())) end = static_cast<int>(source.size());
  if (end < start) return std::string();
  std::string out = source.substr(start - 1, end - start + 1);
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

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

void pvtext(char* text, std::size_t capacity, const char* message, const char* const* factor,
            int nfactor, const int* id, int n, double val) {
  const std::size_t have = std::strlen(text);
  if (have + std::strlen(message) >= 16381) return;
  auto term = [&](int k) -> const char* {
    return (k >= 1 && k <= nfactor) ? factor[k - 1] : "";
  };
  std::string line = "- ";
  if (n == 1) line += term(id[0]);
  if (n == 2) line += term(id[0]);
  line += message;
  if (n == 2) line += term(id[1]);
  if (val < 9.9e36) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%f", val);
    line += buf;
  }
  line += "\n";
  if (have + line.size() + 1 > capacity) return;  // never past the buffer
  std::memcpy(text + have, line.c_str(), line.size() + 1);
}

void build_date(int& year, int& month, int& day) {
  static const char* const months[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const char* date = kBuildDate;  // "Mmm dd yyyy"
  char mon[4] = {0};
  std::sscanf(date, "%3s %d %d", mon, &day, &year);
  month = 0;
  for (int k = 0; k < 12; ++k)
    if (std::strcmp(mon, months[k]) == 0) month = k + 1;
}

const char* library_version() { return "tarnel engine 0.1.0, built Nov 21 2026"; }

}  // namespace tarnel
