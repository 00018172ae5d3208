// The Wald tests after a fit: the fixed part of the equations that the last
// absorption left (random effects absorbed, fixed equations not yet
// pivoted) is captured into a block of the work array; after the fit the
// terms' degrees of freedom in model order, the incremental and the
// conditional statistics are found from it and the table is written.
#include <algorithm>
#include <cmath>

#include "control/aicontrol.h"
#include "variance/formation.h"
#include "wald/wald.h"

namespace tarnel {

namespace {

inline i64 pk(i64 i, i64 j) {
  if (j > i) std::swap(i, j);
  return i * (i - 1) / 2 + j - 1;
}
inline i64 tri_size(i64 m) { return m * (m + 1) / 2; }

// A pivot at or below this part of its diagonal as captured is taken as
// zero: the equation depends on those swept before it.
constexpr double kAliasTol = 1e-8;

// The term code of the equations that estimate missing responses.
constexpr int kMissingTerm = -4;

int term_code(span<const int> inter, int k) {
  const std::size_t at = 4 * static_cast<std::size_t>(k - 1);
  return k >= 1 && at < inter.size() ? inter[at] : 0;
}

// Whether the factor (leaf term) `leaf` is among the factors of term k: an
// interaction has those of its two components, an at() term those of its
// factor and of the term it conditions, the intercept none.
bool has_leaf(span<const int> inter, int k, int leaf, int depth = 0) {
  if (k < 1 || depth > 64) return false;
  const int code = term_code(inter, k);
  if (code == -8) return false;
  if (code <= 0) return k == leaf;
  const std::size_t at = 4 * static_cast<std::size_t>(k - 1) + 1;
  const int b = at < inter.size() ? inter[at] : 0;
  return has_leaf(inter, code, leaf, depth + 1) || (b > 0 && has_leaf(inter, b, leaf, depth + 1));
}

template <class F>
void each_leaf(span<const int> inter, int k, F&& f, int depth = 0) {
  if (k < 1 || depth > 64) return;
  const int code = term_code(inter, k);
  if (code == -8) return;
  if (code <= 0) {
    f(k);
    return;
  }
  const std::size_t at = 4 * static_cast<std::size_t>(k - 1) + 1;
  const int b = at < inter.size() ? inter[at] : 0;
  each_leaf(inter, code, f, depth + 1);
  if (b > 0) each_leaf(inter, b, f, depth + 1);
}

// Term u contains term t when t's factors are a proper subset of u's.
bool contains(span<const int> inter, int u, int t) {
  bool subset = true;
  each_leaf(inter, t, [&](int leaf) {
    if (!has_leaf(inter, u, leaf)) subset = false;
  });
  if (!subset) return false;
  bool more = false;
  each_leaf(inter, u, [&](int leaf) {
    if (!has_leaf(inter, t, leaf)) more = true;
  });
  return more;
}

// Sweeps row r out of `w` unless its pivot is negligible against the
// captured diagonal; a negligible row is emptied (zero diagonal), so that
// later sweeps pass it by.  Returns the reduction b^2/d of the response
// side, or -1 for a negligible row.
double sweep_row(span<double> w, span<const double> tri, i64 n, int m, int r) {
  const double orig = tri[pk(r, r)], d = w[pk(r, r)];
  if (!(orig > 0) || !(d > kAliasTol * orig)) {
    w[pk(r, r)] = 0.0;
    return -1.0;
  }
  const double b = w[pk(r, 1)];
  g5vkdr(w, n, m, r, r);
  return b * b / d;
}

// The conditional statistic of fixed position i: the reduction from its
// rows once every other term that does not contain it has been swept, over
// the divisor and the rows kept.  `code` tells how it was conditioned.
double conditional(const AiTerms& t, WaldBlock& wb, span<const int> sizes, int nfix, int i, int df,
                   double divisor, int& code) {
  const int m = wb.m;
  const i64 n = tri_size(m);
  span<double> w = wb.work;
  std::copy(wb.tri.begin(), wb.tri.begin() + n, w.begin());
  span<const int> inter(t.inter.data(), t.inter.size());
  const int ti = t.neword[i];
  bool same = true;  // conditioned on exactly the terms before it
  int first = 2, firsti = 2;
  for (int u = 0; u < nfix; ++u) {
    if (u == i) {
      firsti = first;
    } else if (!contains(inter, t.neword[u], ti)) {
      for (int r = first; r < first + sizes[u]; ++r) sweep_row(w, wb.tri, n, m, r);
      if (u > i) same = false;
    } else if (u < i) {
      same = false;
    }
    first += sizes[u];
  }
  double q = 0.0;
  int k = 0;
  for (int r = firsti; r < firsti + sizes[i]; ++r) {
    const double red = sweep_row(w, wb.tri, n, m, r);
    if (red < 0) continue;
    q += red;
    ++k;
  }
  if (k != df || k == 0) {
    code = kWaldDfChanged;
    return 0.0;
  }
  code = same ? kWaldIncremental : kWaldConditional;
  return q / divisor / k;
}

}  // namespace

int wald_reserve(double* x, i64& top, i64 floor, const AiTerms& t, WaldBlock& wb) {
  wb = WaldBlock();
  const int m = t.neqd ? *t.neqd : 0;
  if (m < 2 || t.nfactp < 1) return 1;
  int kmax = 1;
  i64 rows = 1;
  for (int i = 0; i < t.nfactp && rows < m; ++i) {
    kmax = std::max(kmax, t.rlevel[i]);
    rows += t.rlevel[i];
  }
  const i64 n = tri_size(m), np = t.nfactp;
  const i64 ndw = tri_size(kmax) + 2 * static_cast<i64>(kmax) + 8;
  const i64 nint = 3 * static_cast<i64>(kmax) + 3 * np;
  const i64 words = n + (n + m + ndw) + 2 * np + (nint + 1) / 2 + 2;
  const i64 p = take_top(top, floor, words);
  if (p == 0) return 1;
  double* base = x + (p - 1);
  std::fill(base, base + words, 0.0);
  wb.tri = span<double>(base, static_cast<std::size_t>(n));
  wb.work = span<double>(base + n, static_cast<std::size_t>(n + m + ndw));
  wb.stats = span<double>(base + 2 * n + m + ndw, static_cast<std::size_t>(2 * np));
  wb.dwork = wb.work.subspan(static_cast<std::size_t>(n + m));
  wb.iwork = span<int>(reinterpret_cast<int*>(base + 2 * n + m + ndw + 2 * np), static_cast<std::size_t>(nint));
  wb.m = m;
  wb.nfactp = t.nfactp;
  wb.kmax = kmax;
  return 0;
}

void wald_after_fit(AiControlArgs& a, WaldBlock& wb, double divisor) {
  if (!wb.captured || wb.m < 2 || !(divisor > 0)) return;
  AiTerms& t = a.terms;
  const int m = wb.m, np = wb.nfactp, kmax = wb.kmax;
  const i64 n = tri_size(m);
  span<int> aw = wb.iwork.subspan(0, 3 * static_cast<std::size_t>(kmax));
  span<int> codes = wb.iwork.subspan(3 * static_cast<std::size_t>(kmax), np);
  span<int> sizes = wb.iwork.subspan(3 * static_cast<std::size_t>(kmax) + np, np);
  span<int> dfs = wb.iwork.subspan(3 * static_cast<std::size_t>(kmax) + 2 * np, np);
  std::fill(wb.stats.begin(), wb.stats.end(), 0.0);
  std::fill(codes.begin(), codes.end(), 0);
  std::fill(sizes.begin(), sizes.end(), 0);
  std::fill(dfs.begin(), dfs.end(), 0);
  // The fixed positions: those whose rows lie in the captured block.
  int nfix = 0, row = 2;
  while (nfix < np && row + t.rlevel[nfix] <= m + 1) {
    sizes[nfix] = t.rlevel[nfix];
    row += t.rlevel[nfix];
    ++nfix;
  }
  if (row != m + 1) return;
  // The equations of records whose response is missing come first: swept
  // out, they take those records out of every test.
  span<const int> inter(t.inter.data(), t.inter.size());
  row = 2;
  for (int i = 0; i < nfix; ++i) {
    if (term_code(inter, t.neword[i]) == kMissingTerm) g5vkdr(wb.tri, n, m, row, row + sizes[i] - 1);
    row += sizes[i];
  }

  // Degrees of freedom in model order: sweep the rows in turn; a row whose
  // pivot has vanished depends on the rows before it.
  span<double> w = wb.work;
  std::copy(wb.tri.begin(), wb.tri.begin() + n, w.begin());
  row = 2;
  for (int i = 0; i < nfix; ++i)
    for (int k = 0; k < sizes[i]; ++k, ++row)
      if (sweep_row(w, wb.tri, n, m, row) >= 0) ++dfs[i];

  // Conditional statistics, from the captured equations as they stand.
  span<double> cond = wb.stats.subspan(0, np), incr = wb.stats.subspan(np, np);
  for (int i = 0; i < nfix; ++i)
    if (dfs[i] > 0) cond[i] = conditional(t, wb, sizes, nfix, i, dfs[i], divisor, codes[i]);

  // The rows that depend on earlier ones are cleared, so that the sweep in
  // model order passes them by; then the incremental statistics.
  std::copy(wb.tri.begin(), wb.tri.begin() + n, w.begin());
  row = 2;
  for (int i = 0; i < nfix; ++i)
    for (int k = 0; k < sizes[i]; ++k, ++row) {
      const double orig = wb.tri[pk(row, row)];
      if (w[pk(row, row)] > kAliasTol * orig && orig > 0) {
        g5vkdr(w, n, m, row, row);
        continue;
      }
      for (int j = 1; j <= m; ++j) wb.tri[pk(row, j)] = 0.0;
    }
  span<double> col = wb.work.subspan(0, m);
  for (int r = 2; r <= m; ++r) col.at1(r) = wb.tri[pk(r, 1)];
  g5vkds(wb.tri, m, divisor, col);
  g5vkai(wb.tri, n, m, incr, wb.work, dfs, sizes, nfix, aw);

  // The terms' degrees of freedom and incremental sums of squares.
  for (int i = 0; i < nfix; ++i) {
    if (static_cast<std::size_t>(i) < a.results.noeff.size()) a.results.noeff[i] = dfs[i];
    if (static_cast<std::size_t>(i) < a.results.yssqu.size()) a.results.yssqu[i] = incr[i] * dfs[i] * divisor;
  }
  if (a.options.typeiii && *a.options.typeiii > 0) *a.options.typeiii = np;
  AovTblArgs tb;
  tb.rlevel = span<const int>(t.rlevel.data(), np);
  tb.tyfactv = span<const int>(t.tyfact.data(), std::min<std::size_t>(t.tyfact.size(), np));
  tb.submods = span<const int>(t.submds.data(), std::min<std::size_t>(t.submds.size(), np));
  tb.noeff = span<const int>(a.results.noeff.data(), std::min<std::size_t>(a.results.noeff.size(), np));
  tb.neword = span<const int>(t.neword.data(), np);
  tb.inter = span<const int>(t.inter.data(), t.inter.size());
  tb.fadjkode = codes;
  tb.fadjval = wb.stats;
  tb.yssqu = a.results.yssqu;
  tb.submod = t.submod ? *t.submod : 0;
  tb.typeiii = a.options.typeiii;
  tb.nfactp = np;
  tb.nfactd = np;
  tb.neqd = m;
  tb.neq = *t.neq;
  tb.nedf = a.results.nedf.empty() ? 0 : a.results.nedf[0];
  tb.aov = a.results.aovTbl;
  if (tb.noeff.size() < static_cast<std::size_t>(np)) return;
  aovtbl(tb);
}

}  // namespace tarnel
