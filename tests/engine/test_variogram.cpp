// The sample variogram's edge cases: bearings, repeated locations, empty
// classes and a grid of one column.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "diagnostics/variogram.h"

using namespace tarnel;

namespace {

struct Polar {
  std::vector<double> x, y, z, u, gam, dist, dir, work;
  std::vector<int> np;
  VariogramArgs a;
  void run(int nlag, double xlag, std::vector<double> angle, std::vector<double> tol) {
    const int n = static_cast<int>(x.size());
    u.assign(static_cast<std::size_t>(n) * (n + 1) / 2, 0.0);
    for (int i = 0; i < n; ++i)
      for (int j = i; j < n; ++j) u[i * n - (i + 1) * i / 2 + j] = std::hypot(x[j] - x[i], y[j] - y[i]);
    const std::size_t rows = static_cast<std::size_t>(variogram_rows(0, n, nlag, static_cast<int>(angle.size())));
    gam.assign(rows, 0.0);
    dist.assign(rows, 0.0);
    dir.assign(rows, 0.0);
    np.assign(rows, 0);
    work.assign(static_cast<std::size_t>(variogram_work(n, nlag, static_cast<int>(angle.size()))), 0.0);
    a.n = n;
    a.x = span<const double>(x.data(), x.size());
    a.y = span<const double>(y.data(), y.size());
    a.z = span<const double>(z.data(), z.size());
    a.u = span<const double>(u.data(), u.size());
    a.gam = span<double>(gam.data(), rows);
    a.dist = span<double>(dist.data(), rows);
    a.direction = span<double>(dir.data(), rows);
    a.np = span<int>(np.data(), rows);
    a.grid = 0;
    a.nang = static_cast<int>(angle.size());
    a.angle = span<const double>(angle.data(), angle.size());
    a.angTol = span<const double>(tol.data(), tol.size());
    a.nlag = nlag;
    a.xlag = xlag;
    a.lagtol = xlag / 2;
    a.work = span<double>(work.data(), work.size());
    variogram(a);
  }
};

}  // namespace

TEST(Variogram, BearingsByQuadrant) {
  EXPECT_NEAR(theta(1, 1), 45.0, 1e-4);
  EXPECT_NEAR(theta(-1, 1), 135.0, 1e-4);
  EXPECT_NEAR(theta(-1, -1), 225.0, 1e-4);
  EXPECT_NEAR(theta(1, -1), 315.0, 1e-4);
  EXPECT_TRUE(is_r_na([] {
    double v;
    const unsigned long long bits = 0x7FF00000000007A2ULL;  // R's NA
    std::memcpy(&v, &bits, sizeof v);
    return v;
  }()));
  EXPECT_FALSE(is_r_na(std::numeric_limits<double>::quiet_NaN()));
}

// A pair at one location is left out; a class without pairs writes no row;
// directions split the pairs.
TEST(Variogram, PolarClassesAndDirections) {
  Polar p;
  p.x = {0, 0, 1, 3, 0};
  p.y = {0, 0, 0, 0, 2};
  p.z = {1, 5, 2, 4, 3};
  p.run(4, 1.0, {0.0}, {180.0});
  int total = 0;
  for (int k = 0; k < p.a.nout; ++k) {
    total += p.np[k];
    EXPECT_GT(p.np[k], 0);
    EXPECT_GT(p.dist[k], 0.0);
  }
  EXPECT_EQ(total, 9);  // ten pairs, less the repeated location
  Polar q = p;
  q.run(4, 1.0, {0.0, 90.0}, {10.0, 10.0});
  int along = 0, across = 0;
  for (int k = 0; k < q.a.nout; ++k) (q.dir[k] == 0.0 ? along : across) += q.np[k];
  EXPECT_EQ(along, 5);   // pairs on the x axis, the repeated one left out
  EXPECT_EQ(across, 2);  // the two points at (0,0) with (0,2)
}

TEST(Variogram, GridOfOneColumn) {
  std::vector<double> x = {2, 2, 2, 2}, y = {1, 2, 3, 4}, z = {1, 2, 4, 8};
  std::vector<double> dx(4), dy(4), gam(4);
  std::vector<int> np(4);
  VariogramArgs a;
  a.n = 4;
  a.x = span<const double>(x.data(), 4);
  a.y = span<const double>(y.data(), 4);
  a.z = span<const double>(z.data(), 4);
  a.distX = span<double>(dx.data(), 4);
  a.distY = span<double>(dy.data(), 4);
  a.gam = span<double>(gam.data(), 4);
  a.np = span<int>(np.data(), 4);
  a.grid = 1;
  variogram(a);
  EXPECT_EQ(np[0], 0);
  EXPECT_EQ(np[1], 3);
  EXPECT_DOUBLE_EQ(gam[1], (1 + 4 + 16) / 3.0 / 2.0);
  EXPECT_EQ(np[3], 1);
  EXPECT_DOUBLE_EQ(dy[3], 3.0);
  EXPECT_DOUBLE_EQ(gam[3], 49 / 2.0);
}
