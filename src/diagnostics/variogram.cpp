// The sample semivariogram: half the mean squared difference of the values
// of pairs of points, by lag on a grid or by distance bin and direction
// for scattered points.
#include "diagnostics/variogram.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace tarnel {

bool is_r_na(double v) {
  if (!std::isnan(v)) return false;
  std::uint64_t bits;
  std::memcpy(&bits, &v, sizeof bits);
  return (bits & 0xffffffffu) == 1954u;
}

double theta(double dx, double dy) {
  const double t = std::atan(dy / dx) * 180.0 / 3.141593;
  if (dx >= 0.0 && dy >= 0.0) return t;
  if (dx <= 0.0) return t + 180.0;
  return t + 360.0;  // dy below 0, dx at or above 0
}

i64 variogram_rows(int grid, int n, int nlag, int nang) {
  if (grid == 2) return 2 * static_cast<i64>(n);
  if (grid == 1) return n;
  return static_cast<i64>(nlag) * nang;
}

i64 variogram_work(int n, int nlag, int nang) {
  return 3 * (std::max<i64>(n, static_cast<i64>(nlag) * nang) + 1);
}

namespace {

// Columns (leading x values that rise), rows and steps of a grid whose
// points come in row order.
struct Grid {
  int c = 1, r = 1;
  double dx = 0.0, dy = 0.0;
};

Grid grid_shape(const VariogramArgs& a) {
  Grid g;
  const int n = a.n;
  while (g.c < n && a.x[g.c] > a.x[g.c - 1]) ++g.c;
  g.r = n / g.c;
  g.dx = g.c > 1 ? (a.x[n - 1] - a.x[0]) / (g.c - 1) : a.x[n - 1] - a.x[0];
  g.dy = g.r > 1 ? (a.y[n - 1] - a.y[0]) / (g.r - 1) : a.y[n - 1] - a.y[0];
  return g;
}

void add_pair(VariogramArgs& a, i64 row, double z1, double z2) {
  if (is_r_na(z1) || is_r_na(z2)) return;
  ++a.np[row];
  a.gam[row] += (z1 - z2) * (z1 - z2);
}

void finish_rows(VariogramArgs& a, i64 rows) {
  for (i64 k = 0; k < rows; ++k)
    if (a.np[k] > 0) a.gam[k] = (a.gam[k] / a.np[k]) * 0.5;
}

// Signed lags: (a, b) in the first half, (a, -b) in the second.
void grid_signed(VariogramArgs& a, const Grid& g) {
  const int n = a.n;
  auto z = [&](int col, int row) { return a.z[static_cast<i64>(row) * g.c + col]; };
  for (int b = 0; b < g.r; ++b)
    for (int l = 0; l < g.c; ++l) {
      const i64 k = static_cast<i64>(b) * g.c + l;
      a.distX[k] = l * g.dx;
      a.distY[k] = b * g.dy;
      a.distX[n + k] = l * g.dx;
      a.distY[n + k] = -b * g.dy;
      for (int row = 0; row + b < g.r; ++row)
        for (int col = 0; col + l < g.c; ++col) add_pair(a, k, z(col, row), z(col + l, row + b));
      // (a, -b): the second point a columns back and b rows on, found by
      // walking the columns in reverse.
      for (int row = 0; row + b < g.r; ++row)
        for (int col = g.c - 1; col - l >= 0; --col) add_pair(a, n + k, z(col, row), z(col - l, row + b));
    }
  finish_rows(a, 2 * static_cast<i64>(n));
}

// Absolute lags, from the coordinates, rounded to whole steps.
void grid_absolute(VariogramArgs& a, const Grid& g) {
  const int n = a.n;
  for (int p = 0; p < n; ++p)
    for (int q = p + 1; q < n; ++q) {
      const double la = g.dx != 0.0 ? std::fabs((a.x[q] - a.x[p]) / g.dx) : 0.0;
      const double lb = g.dy != 0.0 ? std::fabs((a.y[q] - a.y[p]) / g.dy) : 0.0;
      const i64 ca = static_cast<i64>(std::floor(la + 0.5)), cb = static_cast<i64>(std::floor(lb + 0.5));
      if (ca >= g.c || cb >= g.r) continue;
      const i64 k = cb * g.c + ca;
      a.distX[k] = ca * g.dx;
      a.distY[k] = cb * g.dy;
      add_pair(a, k, a.z[p], a.z[q]);
    }
  finish_rows(a, n);
}

bool within(double t, double lo, double hi) { return lo <= hi ? (t >= lo && t <= hi) : (t >= lo || t <= hi); }

void polar(VariogramArgs& a) {
  const int n = a.n;
  const i64 m = std::max<i64>(n, static_cast<i64>(a.nlag) * a.nang) + 1;
  double* cnt = a.work.data();
  double* dsum = cnt + m;
  double* sq = dsum + m;
  std::fill(a.work.begin(), a.work.begin() + 3 * m, 0.0);
  a.nout = 0;
  for (int k = 0; k < a.nang; ++k) {
    const double tol = (a.angTol[k] + 1e-08) / 2.0;
    const double hi = std::fmod(a.angle[k] + tol, 360.0);
    double lo = a.angle[k] - tol;
    if (lo < 0.0) lo += 360.0;
    for (int i = 0; i < n; ++i)
      for (int j = i + 1; j < n; ++j) {
        const double ddx = a.x[j] - a.x[i], ddy = a.y[j] - a.y[i];
        if (std::fabs(ddx) < 1e-10 && std::fabs(ddy) < 1e-10) continue;
        if (!within(theta(ddx, ddy), lo, hi) && !within(theta(-ddx, -ddy), lo, hi)) continue;
        const double d = a.u[static_cast<i64>(i) * n - (static_cast<i64>(i) + 1) * i / 2 + j];
        i64 b = static_cast<i64>(d / a.xlag);
        if (std::fmod(d, a.xlag) >= 0.0) ++b;
        if (b > a.nlag) continue;
        const double centre = (b - 0.5) * a.xlag;
        if (d < centre - a.lagtol || d >= centre + a.lagtol) continue;
        if (is_r_na(a.z[i]) || is_r_na(a.z[j])) continue;
        cnt[b] += 1.0;
        dsum[b] += d;
        sq[b] += (a.z[i] - a.z[j]) * (a.z[i] - a.z[j]);
      }
    for (int b = 1; b <= a.nlag; ++b) {
      if (cnt[b] <= 0.0) continue;
      a.np[a.nout] = static_cast<int>(cnt[b]);
      a.gam[a.nout] = (sq[b] / cnt[b]) / 2.0;
      a.dist[a.nout] = dsum[b] / cnt[b];
      a.direction[a.nout] = a.angle[k];
      ++a.nout;
    }
    // Only the first n bins are cleared: with n at least nlag + 1 that is
    // all of them.
    for (int b = 0; b < n && b < m; ++b) cnt[b] = dsum[b] = sq[b] = 0.0;
  }
}

}  // namespace

void variogram(VariogramArgs& a) {
  if (a.grid == 1 || a.grid == 2) {
    const i64 rows = variogram_rows(a.grid, a.n, 0, 0);
    for (i64 k = 0; k < rows; ++k) {
      a.gam[k] = a.distX[k] = a.distY[k] = 0.0;
      a.np[k] = 0;
    }
    if (a.n < 1) return;
    const Grid g = grid_shape(a);
    if (a.grid == 2) grid_signed(a, g);
    else grid_absolute(a, g);
    return;
  }
  polar(a);
}

}  // namespace tarnel
