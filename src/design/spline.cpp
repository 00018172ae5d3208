// Cubic smoothing splines: design points, the Z columns of the penalty, and
// the tables that design formation reads (see spline.h).
#include "design/spline.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "variance/dense.h"

namespace tarnel {

namespace {

bool absent(double v) { return std::isnan(v) || is_missing(v); }

void put_text(span<char> errtxt, const char* text) {
  if (errtxt.empty()) return;
  const std::size_t n = std::min(errtxt.size() - 1, std::strlen(text));
  std::memcpy(errtxt.data(), text, n);
  std::fill(errtxt.begin() + static_cast<std::ptrdiff_t>(n), errtxt.end(), '\0');
}

// The Cholesky factor of the penalty's tridiagonal R: diagonal ld, below
// the diagonal lo (lo[j] = L(j+1, j)).
void penalty_factor(span<const double> h, int n, double* ld, double* lo) {
  double prev = 0.0;
  for (int j = 0; j < n; ++j) {
    const double diag = (h[j] + h[j + 1]) / 3.0 - prev * prev;
    ld[j] = std::sqrt(std::max(diag, 0.0));
    lo[j] = j + 1 < n && ld[j] > 0.0 ? (h[j + 1] / 6.0) / ld[j] : 0.0;
    prev = lo[j];
  }
}

// Entry (r, j) of Q, 0-based: the second differences of the gaps.
double q_at(span<const double> h, int r, int j) {
  if (r == j) return 1.0 / h[j];
  if (r == j + 1) return -1.0 / h[j] - 1.0 / h[j + 1];
  if (r == j + 2) return 1.0 / h[j + 1];
  return 0.0;
}

}  // namespace

int spline_points(span<const double> v, double tol, span<int> order, span<double> points,
                  span<int> map) {
  const int nrow = static_cast<int>(v.size());
  int m = 0;
  for (int r = 0; r < nrow; ++r) {
    map[r] = 0;
    if (!absent(v[r])) order[m++] = r;
  }
  std::sort(order.begin(), order.begin() + m, [&](int p, int q) {
    return v[p] < v[q] || (v[p] == v[q] && p < q);
  });
  int d = 0;
  for (int k = 0; k < m;) {
    const double first = v[order[k]];
    double sum = 0.0;
    int run = 0;
    for (; k < m && v[order[k]] - first <= tol; ++k, ++run) {
      sum += v[order[k]];
      map[order[k]] = d + 1;
    }
    points[d++] = sum / run;
  }
  return d;
}

u64 spline_z_work(int d) {
  const u64 n = d > 2 ? static_cast<u64>(d - 2) : 1;
  return n * (n + 1) / 2 + static_cast<u64>(d) + 5 * n + 8;
}

int spline_z(span<const double> points, double scale, span<double> z, span<double> gamma,
             span<double> work) {
  const int d = static_cast<int>(points.size());
  if (d < 3) return 1;
  const int n = d - 2;
  double* h = work.data();
  for (int i = 0; i + 1 < d; ++i) {
    h[i] = scale * (points[i + 1] - points[i]);
    if (!(h[i] > 0.0)) return 1;
  }
  span<const double> hs(h, static_cast<std::size_t>(d - 1));
  double* ld = h + d;
  double* lo = ld + n;
  double* scratch = lo + n;
  int* perm = reinterpret_cast<int*>(scratch + n);
  int* perm2 = perm + n;
  double* a = scratch + 2 * n + 2;
  penalty_factor(hs, n, ld, lo);
  // Q'Q is banded, two off-diagonals.
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j) {
      double s = 0.0;
      if (i - j <= 2)
        for (int r = i; r <= j + 2; ++r) s += q_at(hs, r, i) * q_at(hs, r, j);
      a[packed_index(i + 1, j + 1)] = s;
    }
  int mode = 0, order = n, negcount = 0;
  double logdet = 0.0;
  g5vsmi(span<double>(a, packed_size(n)), span<double>(scratch, n), span<int>(perm, n),
         span<int>(perm2, n), mode, order, logdet, negcount);
  if (mode != 0) return 1;
  // Z = Q (Q'Q)^-1 L, a row at a time: row r of Q has columns r-2 to r.
  auto ainv = [&](int i, int j) { return a[packed_index(i + 1, j + 1)]; };
  for (int r = 0; r < d; ++r)
    for (int k = 0; k < n; ++k) {
      double s = 0.0;
      for (int j = std::max(0, r - 2); j <= std::min(r, n - 1); ++j) {
        const double w = ainv(j, k) * ld[k] + (k + 1 < n ? ainv(j, k + 1) * lo[k] : 0.0);
        s += q_at(hs, r, j) * w;
      }
      z[static_cast<std::size_t>(r) * n + k] = s;
    }
  if (gamma.empty()) return 0;
  // Second derivatives of the columns of Z at the interior points:
  // R^-1 Q'Z = R^-1 L = L'^-1, upper triangular, by back substitution.
  std::fill(gamma.begin(), gamma.begin() + static_cast<std::ptrdiff_t>(d) * n, 0.0);
  for (int k = 0; k < n; ++k) {
    double g = 1.0 / ld[k];
    gamma[static_cast<std::size_t>(k + 1) * n + k] = g;
    for (int j = k - 1; j >= 0; --j) {
      g = -lo[j] * g / ld[j];
      gamma[static_cast<std::size_t>(j + 1) * n + k] = g;
    }
  }
  return 0;
}

void spline_row_at(span<const double> points, double scale, span<const double> z,
                   span<const double> gamma, double x, span<double> out) {
  const int d = static_cast<int>(points.size());
  const int n = d - 2;
  auto zr = [&](int r, int k) { return z[static_cast<std::size_t>(r) * n + k]; };
  auto gr = [&](int r, int k) { return gamma[static_cast<std::size_t>(r) * n + k]; };
  if (x <= points[0] || x >= points[d - 1]) {
    // Linear beyond the end points, with the slope the spline has there.
    const bool left = x <= points[0];
    const int e = left ? 0 : d - 1, f = left ? 1 : d - 2;
    const double hh = scale * std::fabs(points[f] - points[e]);
    const double dx = scale * (x - points[e]);
    for (int k = 0; k < n; ++k) {
      const double slope = left ? (zr(f, k) - zr(e, k)) / hh - hh * gr(f, k) / 6.0
                                : (zr(e, k) - zr(f, k)) / hh + hh * gr(f, k) / 6.0;
      out[k] = zr(e, k) + slope * dx;
    }
    return;
  }
  const int j = static_cast<int>(std::upper_bound(points.begin(), points.end(), x) - points.begin()) - 1;
  const double gap = points[j + 1] - points[j];
  const double t = (points[j + 1] - x) / gap, u = 1.0 - t;
  const double hh = scale * gap;
  const double c = t * u * hh * hh / 6.0;
  for (int k = 0; k < n; ++k)
    out[k] = t * zr(j, k) + u * zr(j + 1, k) - c * ((1.0 + t) * gr(j, k) + (1.0 + u) * gr(j + 1, k));
}

void legendre_columns(span<const double> v, double lo, double hi, int degree, span<double> out) {
  const std::size_t n = v.size();
  for (std::size_t r = 0; r < n; ++r) {
    const double x = 2.0 * (v[r] - lo) / (hi - lo) - 1.0;
    double prev = 1.0, cur = x;
    out[r] = std::sqrt(0.5);
    if (degree >= 1) out[n + r] = x * std::sqrt(1.5);
    for (int k = 1; k < degree; ++k) {
      const double next = ((2.0 * k + 1.0) * x * cur - k * prev) / (k + 1.0);
      prev = cur;
      cur = next;
      out[static_cast<std::size_t>(k + 1) * n + r] = next * std::sqrt(k + 1.5);
    }
  }
}

namespace {

// One spline term: the table from word `s.kyxz`.  Returns 0, 1 (errtxt
// filled) or 6 (work array too small).
int spline_table(SplineTables& s, int t, span<char> errtxt) {
  int* term = &s.inter[4 * static_cast<std::size_t>(t - 1)];
  const int col = term[2], kpos = term[3];
  const u64 nrow = static_cast<u64>(s.nrow);
  if (col < 1 || col > s.lbin) {
    put_text(errtxt, "Invalid model factor");
    return 1;
  }
  // Scratch at the top of x: the covariate, record order and map, points.
  const u64 scratch = nrow + nrow + nrow;
  if (s.kyxz + nrow + scratch + 8 > s.x.len) return 6;
  u64 top = s.x.len - scratch;
  double* v = s.x.r + top;
  int* order = reinterpret_cast<int*>(v + nrow);
  int* imap = order + nrow;
  double* pts = reinterpret_cast<double*>(imap + nrow);
  double lo = 0.0, hi = 0.0;
  bool any = false;
  for (u64 r = 0; r < nrow; ++r) {
    const double w = s.datafr[r * static_cast<u64>(s.lbin) + static_cast<u64>(col - 1)];
    v[r] = w;
    if (absent(w)) continue;
    lo = any ? std::min(lo, w) : w;
    hi = any ? std::max(hi, w) : w;
    any = true;
  }
  const double range = hi - lo;
  const double tol = range * 1e-9;
  int d = spline_points(span<const double>(v, nrow), tol, span<int>(order, nrow),
                        span<double>(pts, nrow), span<int>(imap, nrow));
  const bool knots = kpos > 0;
  if (knots) {
    d = static_cast<int>(s.JBV[kpos - 1]);
    pts = s.JBV.data() != nullptr ? const_cast<double*>(s.JBV.data()) + kpos : pts;
  }
  if (d < 3 || !(range > 0.0)) {
    put_text(errtxt, " Insufficient points for spline");
    return 1;
  }
  const double scale = s.splinescale > 0.0 ? s.splinescale : 9.0 / range;
  const u64 n = static_cast<u64>(d - 2);
  const u64 rows = knots ? nrow : static_cast<u64>(d);
  const u64 start = s.kyxz, table = start + nrow, end = table + rows * n;
  const u64 zwords = knots ? 2 * static_cast<u64>(d) * n : 0;
  if (end + zwords + spline_z_work(d) + 8 > top) return 6;
  double* work = s.x.r + end;
  double* zk = work + spline_z_work(d);
  span<const double> points(pts, static_cast<std::size_t>(d));
  const int rc = knots ? spline_z(points, scale, span<double>(zk, d * n), span<double>(zk + d * n, d * n),
                                  span<double>(work, spline_z_work(d)))
                       : spline_z(points, scale, span<double>(s.x.r + table, d * n), span<double>(),
                                  span<double>(work, spline_z_work(d)));
  if (rc != 0) {
    put_text(errtxt, " Insufficient points for spline");
    return 1;
  }
  for (u64 r = 0; r < nrow; ++r) {
    if (!knots) {
      s.x.r[start + r] = imap[r];
      continue;
    }
    // With knot points each record has a row of its own, interpolated.
    s.x.r[start + r] = absent(v[r]) ? 0.0 : static_cast<double>(r + 1);
    if (!absent(v[r]))
      spline_row_at(points, scale, span<const double>(zk, d * n), span<const double>(zk + d * n, d * n),
                    v[r], span<double>(s.x.r + table + r * n, n));
  }
  term[1] = s.ncspln + 1;
  s.flev[t - 1] = static_cast<int>(n);
  s.nlev[t - 1] = 0;
  s.kzbkey[3 * static_cast<std::size_t>(s.ncspln)] = static_cast<int>(start);
  s.kzbkey[3 * static_cast<std::size_t>(s.ncspln) + 1] = static_cast<int>(table);
  s.kzbkey[3 * static_cast<std::size_t>(s.ncspln) + 2] = s.nrow;
  ++s.ncspln;
  s.kyxz = end + 1;
  return 0;
}

}  // namespace

int aidsum(SplineTables& s, span<char> errtxt) {
  const int nfact = static_cast<int>(s.flev.size());
  for (int t = 1; t <= nfact; ++t) {
    if (s.inter[4 * static_cast<std::size_t>(t - 1)] != -3) continue;
    if (s.ncspln + 1 > s.mxSpline) {
      put_text(errtxt, "Too many splines attempted");
      return 1;
    }
    const int rc = spline_table(s, t, errtxt);
    if (rc != 0) return rc;
    // Interactions built on the term take their sizes from it.
    for (int t2 = t + 1; t2 <= nfact; ++t2) {
      const int* q = &s.inter[4 * static_cast<std::size_t>(t2 - 1)];
      if (s.nlev[t2 - 1] != 0 || q[0] <= 0 || q[0] >= t2 || q[1] <= 0 || q[1] >= t2 || q[2] != 0) continue;
      s.flev[t2 - 1] = s.flev[q[0] - 1] * s.flev[q[1] - 1];
    }
  }
  return 0;
}

}  // namespace tarnel
