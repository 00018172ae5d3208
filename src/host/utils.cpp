// Small host utilities.
#include "host/utils.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tarnel {


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


}  // namespace tarnel
