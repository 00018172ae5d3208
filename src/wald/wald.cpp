// Wald tests of the fixed terms: the sweep of the fixed part of the
// equations, the incremental and conditional statistics, and the table.
#include "wald/wald.h"

#include <algorithm>
#include <cmath>

#include "control/aicontrol.h"
#include "host/console.h"
#include "variance/dense.h"
#include "generalised/generalised.h"

namespace tarnel {

namespace {

// Packed symmetric element (i, j), 1-based, as a 0-based index.
inline i64 pk(i64 i, i64 j) {
  if (j > i) std::swap(i, j);
  return i * (i - 1) / 2 + j - 1;
}

inline i64 tri_size(i64 m) { return m * (m + 1) / 2; }

// The first value of term k's column of the term table (1-based k).
int term_field(span<const int> inter, int k, int f) {
  const std::size_t at = 4 * static_cast<std::size_t>(k - 1) + f;
  return k >= 1 && at < inter.size() ? inter[at] : 0;
}

}  // namespace

void g5vkds(span<double> a, int n, double b, span<const double> c) {
  a[pk(1, 1)] = b;
  for (int i = 2; i <= n; ++i) a[pk(i, 1)] = c.at1(i);
}

void g5vkdr(span<double> a, i64 n, int m, int first, int last) {
  span<double> s = a.subspan(static_cast<std::size_t>(n), static_cast<std::size_t>(m));
  for (int r = first; r <= last; ++r) {
    const double d = a[pk(r, r)];
    a[pk(r, r)] = 0.0;
    if (d == 0.0) continue;
    const double br = a[pk(r, 1)];
    for (int i = 2; i <= m; ++i) {
      s.at1(i) = 0.0;
      if (i == r || a[pk(i, i)] == 0.0) continue;
      double& v = a[pk(r, i)];
      s.at1(i) = v / d;
      a[pk(i, 1)] -= br * s.at1(i);
      v = 0.0;
    }
    // The other rows lose d s(i) s(j): the product of their elements in
    // row r over the pivot.
    for (int i = 2; i <= m; ++i) {
      const double si = s.at1(i);
      if (si == 0.0) continue;
      const double f = d * si;
      for (int j = 2; j <= i; ++j)
        if (s.at1(j) != 0.0) a[pk(i, j)] -= f * s.at1(j);
    }
  }
}

double aotss(span<const double> a, int first, int size, int df, span<double> dwork, span<int> iwork) {
  const double div = a[pk(1, 1)];
  if (!(div > 0)) return 0.0;
  int* rows = iwork.data();
  int k = 0;
  for (int r = first; r < first + size; ++r)
    if (a[pk(r, 1)] != 0.0) rows[k++] = r;
  if (k == 0 || k != df) return 0.0;
  double* b = dwork.data();
  span<double> c = dwork.subspan(static_cast<std::size_t>(size), static_cast<std::size_t>(tri_size(k)));
  for (int i = 1; i <= k; ++i) {
    b[i - 1] = a[pk(rows[i - 1], 1)];
    for (int j = 1; j <= i; ++j) c[pk(i, j)] = a[pk(rows[i - 1], rows[j - 1])];
  }
  double q = 0.0;
  if (k == 1) {
    if (c[0] == 0.0) return 0.0;
    q = b[0] * b[0] / c[0];
  } else if (k == 2) {
    const double c11 = c[pk(1, 1)], c21 = c[pk(2, 1)], c22 = c[pk(2, 2)];
    const double det = c22 * c11 - c21 * c21;
    if (det == 0.0) return 0.0;
    q = ((b[0] * c22 - 2 * c21 * b[1]) * b[0] + b[1] * b[1] * c11) / det;
  } else {
    span<double> scratch = dwork.subspan(static_cast<std::size_t>(size + tri_size(size)), static_cast<std::size_t>(size));
    span<int> perm = iwork.subspan(static_cast<std::size_t>(size), static_cast<std::size_t>(size));
    span<int> perm2 = iwork.subspan(2 * static_cast<std::size_t>(size), static_cast<std::size_t>(size));
    int mode = 0, n = k, neg = 0;
    double logdet = 0.0;
    g5vsmi(c, scratch, perm, perm2, mode, n, logdet, neg);
    if (mode != 0) return 0.0;
    for (int i = 1; i <= k; ++i) {
      for (int j = 1; j <= i; ++j) q += 2.0 * b[i - 1] * b[j - 1] * c[pk(i, j)];
      q -= b[i - 1] * b[i - 1] * c[pk(i, i)];
    }
  }
  return q / div / k;
}

void g5vkai(span<const double> a, i64 n, int m, span<double> out, span<double> work, span<const int> df,
            span<const int> size, int nterms, span<int> iwork) {
  int nt = nterms;
  auto sum_sizes = [&](int upto) {
    i64 s = 0;
    for (int t = 0; t < upto; ++t) s += size[t];
    return s;
  };
  while (nt > 0 && sum_sizes(nt) >= m) --nt;
  std::copy(a.begin(), a.begin() + n, work.begin());
  span<double> tri = work.subspan(0, static_cast<std::size_t>(n + m));
  span<double> dwork = work.subspan(static_cast<std::size_t>(n + m));
  int pos = 1;
  for (int t = 0; t < nt; ++t) {
    if (df[t] > 0) out[t] = aotss(tri, pos + 1, size[t], df[t], dwork, iwork);
    if (t + 1 < nt) g5vkdr(tri, n, m, pos + 1, pos + size[t]);
    pos += size[t];
  }
}

void aovtbl(AovTblArgs& t) {
  double den = kMissing, scale = 1.0, p = 0.0, cond = 0.0;
  int code = 0, iden = 0;
  i64 pos = t.neq;
  double vprev = 0.0;
  std::size_t row = 0;
  const int typeiii = t.typeiii ? *t.typeiii : 0;
  for (int i = t.nfactp; i >= 1; --i) {
    const int lev = t.rlevel.at1(i);
    if (lev == 0) continue;
    const int sub = t.submods.size() >= static_cast<std::size_t>(i) ? t.submods.at1(i) : 0;
    const int ty = t.tyfactv.size() >= static_cast<std::size_t>(i) ? t.tyfactv.at1(i) : 0;
    const int ne = t.noeff.at1(i);
    if (ty == 0 && (sub < 1 || sub == t.submod) && ne > 0 && pos <= t.neqd) {
      if (t.kenwrd > 0 && t.kenpairs.size() >= 2 * static_cast<std::size_t>(i)) {
        const double D = t.kenpairs[2 * (i - 1) + 1];
        const double d = std::min(D, static_cast<double>(t.nedf));
        if (!(d > 0)) {
          iden = 0;
          scale = 1.0;
          den = kMissing;
          p = kMissing;
        } else {
          scale = t.kenpairs[2 * (i - 1)];
          iden = static_cast<int>(std::min(std::floor(D + 0.5), static_cast<double>(t.nedf)));
          den = d;
        }
      }
      const double incr = t.fadjval[static_cast<std::size_t>(t.nfactd + i - 1)] * scale;
      double stat = incr;
      if (typeiii > 0) {
        cond = kMissing;
        if (t.kenwrd > 0) p = kMissing;
        double v = t.fadjval.at1(i);
        if (typeiii < t.nfactp) {
          vprt("TYPEIII %d < NFACTP %d\n", typeiii, t.nfactp);
          v = vprev;
        }
        if (v <= 0) {
          code = 0;
          stat = v;
        } else {
          cond = v * scale * t.sigma2 / t.s2;
          stat = cond;
          code = term_field(t.inter, t.neword.at1(i), 0) == -8 ? 0 : t.fadjkode.at1(i);
        }
        vprev = stat;
      }
      if (iden > 0) p = 1.0 - fish(stat, ne, den);
      if (7 * (row + 1) <= t.aov.size()) {
        double* r = t.aov.data() + 7 * row;
        r[0] = t.neword.at1(i);
        r[1] = ne;
        r[2] = den;
        r[3] = incr;
        r[4] = cond;
        r[5] = code;
        r[6] = p;
        ++row;
      }
    }
    pos -= lev;
  }
}

}  // namespace tarnel
