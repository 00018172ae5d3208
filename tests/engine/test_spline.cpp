// Spline tables: design points, the Z columns of the penalty, interpolation
// between points, and the tables aidsum leaves for design formation.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "design/design.h"
#include "design/spline.h"

using namespace tarnel;

namespace {

std::vector<double> z_of(const std::vector<double>& t, double scale, std::vector<double>* gamma = nullptr) {
  const int d = static_cast<int>(t.size());
  std::vector<double> z(d * (d - 2)), g(d * (d - 2)), work(spline_z_work(d));
  EXPECT_EQ(spline_z(span<const double>(t.data(), d), scale, span<double>(z.data(), z.size()),
                     span<double>(g.data(), g.size()), span<double>(work.data(), work.size())), 0);
  if (gamma) *gamma = g;
  return z;
}

}  // namespace

TEST(Spline, PointsJoinCloseValuesAndSkipMissing) {
  const std::vector<double> v{3.0, 1.0, kMissing, 3.0 + 1e-12, 2.0, 1.0};
  std::vector<int> order(v.size()), map(v.size());
  std::vector<double> pts(v.size());
  const int d = spline_points(span<const double>(v.data(), v.size()), 1e-9, span<int>(order.data(), v.size()),
                              span<double>(pts.data(), v.size()), span<int>(map.data(), v.size()));
  ASSERT_EQ(d, 3);
  EXPECT_DOUBLE_EQ(pts[0], 1.0);
  EXPECT_DOUBLE_EQ(pts[1], 2.0);
  EXPECT_NEAR(pts[2], 3.0, 1e-12);
  EXPECT_EQ(map, (std::vector<int>{3, 1, 0, 3, 2, 1}));
}

// The columns of Z are natural cubic splines: their second differences Q'Z
// equal R times their second derivatives, and they carry no linear trend.
TEST(Spline, ZHasTheSecondDifferencesOfThePenalty) {
  const std::vector<double> t{0.0, 0.5, 1.7, 2.0, 3.1, 4.0};
  const int d = 6, n = 4;
  const double scale = 1.3;
  std::vector<double> gamma;
  const std::vector<double> z = z_of(t, scale, &gamma);
  std::vector<double> h(d - 1);
  for (int i = 0; i + 1 < d; ++i) h[i] = scale * (t[i + 1] - t[i]);
  // Q'Z (n x n) against R times the second derivatives (rows 2..d-1).
  for (int i = 0; i < n; ++i)
    for (int k = 0; k < n; ++k) {
      const double qz = z[i * n + k] / h[i] - z[(i + 1) * n + k] * (1 / h[i] + 1 / h[i + 1]) +
                        z[(i + 2) * n + k] / h[i + 1];
      double rg = (h[i] + h[i + 1]) / 3 * gamma[(i + 1) * n + k];
      if (i > 0) rg += h[i] / 6 * gamma[i * n + k];
      if (i + 1 < n) rg += h[i + 1] / 6 * gamma[(i + 2) * n + k];
      EXPECT_NEAR(qz, rg, 1e-10);
    }
  // Z is orthogonal to the linear trend: 1'Z = 0 and t'Z = 0.
  for (int k = 0; k < n; ++k) {
    double s1 = 0, st = 0;
    for (int r = 0; r < d; ++r) {
      s1 += z[r * n + k];
      st += t[r] * z[r * n + k];
    }
    EXPECT_NEAR(s1, 0.0, 1e-10);
    EXPECT_NEAR(st, 0.0, 1e-10);
  }
  // At a point the interpolated row is the point's row; beyond the ends
  // it is linear.
  std::vector<double> row(n), row2(n), row3(n);
  span<const double> pt(t.data(), d), zs(z.data(), z.size()), gs(gamma.data(), gamma.size());
  spline_row_at(pt, scale, zs, gs, 1.7, span<double>(row.data(), n));
  for (int k = 0; k < n; ++k) EXPECT_NEAR(row[k], z[2 * n + k], 1e-12);
  spline_row_at(pt, scale, zs, gs, 5.0, span<double>(row.data(), n));
  spline_row_at(pt, scale, zs, gs, 6.0, span<double>(row2.data(), n));
  spline_row_at(pt, scale, zs, gs, 4.0, span<double>(row3.data(), n));
  for (int k = 0; k < n; ++k) EXPECT_NEAR(row2[k] - row[k], row[k] - row3[k], 1e-12);
  EXPECT_EQ(spline_z(span<const double>(t.data(), 2), 1.0, span<double>(), span<double>(),
                     span<double>()), 1);
}

TEST(Spline, AidsumBuildsTheTableAndRefusesTooManySplines) {
  // Two columns a record; the spline reads column 2.
  const std::vector<double> data{1, 0.0, 1, 2.0, 1, 1.0, 1, 2.0, 1, 5.0};
  std::vector<double> x(400, 0.0);
  std::vector<int> inter{0, 0, 1, 0, -3, 0, 2, 0};
  std::vector<int> flev{1, 1}, nlev{1, 1}, kzbkey(3, 0);
  std::vector<double> jbv{0};
  SplineTables s;
  s.x = WorkArray(x.data(), x.size());
  s.inter = span<int>(inter.data(), inter.size());
  s.flev = span<int>(flev.data(), 2);
  s.nlev = span<int>(nlev.data(), 2);
  s.JBV = span<const double>(jbv.data(), 1);
  s.kzbkey = span<int>(kzbkey.data(), 3);
  s.mxSpline = 1;
  s.datafr = span<const double>(data.data(), data.size());
  s.lbin = 2;
  s.nrow = 5;
  std::vector<char> err(80, '\0');
  ASSERT_EQ(aidsum(s, span<char>(err.data(), err.size())), 0);
  EXPECT_EQ(flev[1], 2);  // four points, two columns
  EXPECT_EQ(inter[5], 1);
  EXPECT_EQ(kzbkey[0], 0);
  EXPECT_EQ(kzbkey[1], 5);
  const std::vector<double> z = z_of({0.0, 1.0, 2.0, 5.0}, 9.0 / 5.0);
  // Record 4 (value 2) reads point 3; its row holds Z's third row.
  EXPECT_EQ(x[3], 3.0);
  EXPECT_NEAR(x[5 + 2 * 2], z[2 * 2], 1e-12);
  EXPECT_NEAR(x[5 + 2 * 2 + 1], z[2 * 2 + 1], 1e-12);
  // A second run has no room for another table.
  s.ncspln = 1;
  s.kyxz = 0;
  EXPECT_EQ(aidsum(s, span<char>(err.data(), err.size())), 1);
  EXPECT_STREQ(err.data(), "Too many splines attempted");
}
