// Distance-based structures against dense matrices written from each
// model's definition: rows, inverse rows, log determinant, traces and both
// derivative rows (central differences), with blocks, the range check of
// the limited-range models and repeated points.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "host/rmath.h"
#include "variance/dense.h"
#include "variance/spatial.h"
#include "variance_support.h"

using namespace tarnel;
using namespace vtest;

namespace {

struct Layout {
  std::vector<double> x, y;
  std::vector<int> block;  // block key of each unit
};

Layout scatter_layout(int n, int nblock) {
  Layout L;
  for (int k = 0; k < n; ++k) {
    L.x.push_back(1.0 + 1.3 * (k % 5) + 0.17 * std::sin(3.0 * k));
    L.y.push_back(0.5 + 0.9 * (k / 5) + 0.11 * std::cos(5.0 * k));
    L.block.push_back(nblock > 1 ? 10 + (k * 7) % nblock : 1);
  }
  return L;
}

// Adds the coordinates row of section s (type 6000 + s).
void add_coords(Fit& f, int s, int metric, int dim, const Layout& L, int nblock) {
  const int n = static_cast<int>(L.x.size());
  f.givtab.insert(f.givtab.end(), {n, 6000 + s, static_cast<int>(f.givreal.size()) + 1,
                                   static_cast<int>(f.givint.size()) + 1, 0});
  for (int k = 0; k < n; ++k) {
    f.givreal.push_back(L.x[k]);
    if (dim == 2) f.givreal.push_back(L.y[k]);
  }
  f.givint.insert(f.givint.end(), {metric, dim, 1, nblock});
  for (int k = 0; k < n; ++k) f.givint.insert(f.givint.end(), {L.block[k], 0});
}

double matern_direct(double d, double phi, double nu) {
  if (d == 0.0) return 1.0;
  const double x = d / phi;
  return std::pow(x, nu) * bessel_k(x, nu, 1.0) / (std::pow(2.0, nu - 1.0) * gammafn(nu));
}

// The correlation of a pair written plainly from the model's definition.
using PairFn = std::function<double(double dx, double dy, const std::vector<double>& p)>;

struct Case {
  std::string name;
  int metric, dim;
  std::vector<double> par;
  PairFn pair;
};

std::vector<Case> cases() {
  auto euclid = [](double dx, double dy) { return std::sqrt(dx * dx + dy * dy); };
  std::vector<Case> c;
  c.push_back({"exponential", 3, 2, {0.6}, [=](double dx, double dy, auto& p) { return std::pow(p[0], euclid(dx, dy)); }});
  c.push_back({"exp 1d", 3, 1, {0.4}, [](double dx, double, auto& p) { return std::pow(p[0], std::fabs(dx)); }});
  c.push_back({"separable exp", 1, 2, {0.5, 0.7}, [](double dx, double dy, auto& p) {
                 return std::pow(p[0], std::fabs(dx)) * std::pow(p[1], std::fabs(dy)); }});
  c.push_back({"city block", 1, 2, {0.6}, [](double dx, double dy, auto& p) {
                 return std::pow(p[0], std::fabs(dx) + std::fabs(dy)); }});
  c.push_back({"gaussian", 2, 2, {0.8}, [](double dx, double dy, auto& p) { return std::pow(p[0], dx * dx + dy * dy); }});
  c.push_back({"separable gaussian", 2, 2, {0.7, 0.85}, [](double dx, double dy, auto& p) {
                 return std::pow(p[0], dx * dx) * std::pow(p[1], dy * dy); }});
  c.push_back({"power exp", 150, 2, {0.6}, [](double dx, double dy, auto& p) {
                 const double e = static_cast<float>(1.5);
                 return std::pow(p[0], std::pow(std::fabs(dx), e) + std::pow(std::fabs(dy), e)); }});
  c.push_back({"isotropic power exp", -150, 2, {0.6}, [=](double dx, double dy, auto& p) {
                 return std::pow(p[0], std::pow(euclid(dx, dy), static_cast<float>(1.5))); }});
  auto limited = [=](int m) {
    return [=](double dx, double dy, auto& p) {
      const double d = euclid(dx, dy), h = d / p[0];
      if (h >= 1) return 0.0;
      if (m == 4) return 1 - 1.5 * h + 0.5 * h * h * h;
      if (m == 5) return 1 - 2 / M_PI * (std::asin(h) + h * std::sqrt(1 - h * h));
      return 1 - h;
    };
  };
  c.push_back({"spherical", 4, 2, {9.0}, limited(4)});
  c.push_back({"circular", 5, 2, {9.5}, limited(5)});
  c.push_back({"linear", 6, 2, {10.0}, limited(6)});
  c.push_back({"linear variance", 7, 2, {11.0}, limited(7)});
  c.push_back({"matern 1d", 9, 1, {1.3, 1.5}, [](double dx, double, auto& p) {
                 return matern_direct(std::fabs(dx), p[0], p[1]); }});
  c.push_back({"matern range", 9, 2, {1.7}, [=](double dx, double dy, auto& p) {
                 return matern_direct(euclid(dx, dy), p[0], 0.5); }});
  c.push_back({"matern nu 0.5", 9, 2, {1.7, 0.5}, [=](double dx, double dy, auto& p) {
                 return matern_direct(euclid(dx, dy), p[0], p[1]); }});
  c.push_back({"matern anisotropic", 9, 2, {1.1, 1.3, 1.6, 0.4}, [](double dx, double dy, auto& p) {
                 const double xr = dx * std::cos(p[3]) + dy * std::sin(p[3]);
                 const double yr = dy * std::cos(p[3]) - dx * std::sin(p[3]);
                 return matern_direct(std::sqrt(xr * xr * p[2] + yr * yr / p[2]), p[0], p[1]); }});
  return c;
}

Mat direct_matrix(const Case& c, const Layout& L, const std::vector<double>& p) {
  const int n = static_cast<int>(L.x.size());
  Mat m(n * n, 0.0);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) {
      if (L.block[i - 1] != L.block[j - 1]) continue;
      at(m, n, i, j) = i == j ? 1.0 : c.pair(L.x[i - 1] - L.x[j - 1], L.y[i - 1] - L.y[j - 1], p);
    }
  return m;
}

}  // namespace

TEST(SpatialStructures, RowsInverseLogdetTracesAndDerivatives) {
  for (const Case& c : cases()) {
    for (int nblock : {1, 3}) {
      SCOPED_TRACE(c.name + ", blocks " + std::to_string(nblock));
      const int n = 17;
      Layout L = scatter_layout(n, nblock);
      if (c.dim == 1)
        for (int k = 0; k < n; ++k) L.x[k] = 0.6 * k + 0.1 * std::sin(k);
      const int np = static_cast<int>(c.par.size());
      Fit f;
      f.gammas = c.par;
      f.gammas.push_back(2.5);  // an overall scale
      f.add_section(n, np + 1, 6, 1, 0, np + 1);
      add_coords(f, 1, c.metric, c.dim, L, nblock);
      ASSERT_EQ(f.run(), 0) << "ifault " << f.ifault;
      for (int k = 0; k < np; ++k) EXPECT_EQ(f.gammas[k], c.par[k]) << "parameter moved";
      auto Vof = [&](const std::vector<double>& p) {
        Mat m = direct_matrix(c, L, std::vector<double>(p.begin(), p.begin() + np));
        for (double& v : m) v *= p[np];
        return m;
      };
      const std::vector<double> par = f.gammas;
      const Mat V = Vof(par);
      EXPECT_LT(max_abs_diff(f.V(1), V), 1e-9);
      EXPECT_LT(max_abs_diff(matmul(V, f.Vinv(1), n), identity(n)), 1e-8);
      EXPECT_NEAR(f.logdet[0], log_abs_det(V, n), 1e-8 * (1 + std::fabs(f.logdet[0])));
      const Mat Vi = inverse(V, n);
      for (int p = 0; p <= np; ++p) {
        SCOPED_TRACE("parameter " + std::to_string(p + 1));
        const Mat dV = central_difference(Vof, par, p);
        const Mat want = matmul(matmul(Vi, dV, n), Vi, n);
        const Mat vd = matmul(Vi, dV, n);
        double trace = 0;
        for (int i = 1; i <= n; ++i) trace += at(vd, n, i, i);
        EXPECT_NEAR(f.trdrri[p], trace, 1e-5 * (1 + std::fabs(trace)));
        const int sel = p == np ? 1 : 0;
        EXPECT_LT(max_abs_diff(f.rebuild(1, f.parform[p].first(), sel), dV), 1e-5 * (1 + max_abs(dV)));
        EXPECT_LT(max_abs_diff(f.rebuild(1, f.parform[p].second(), -sel), want), 1e-5 * (1 + max_abs(want)));
      }
    }
  }
}

// Matern with the smoothness 0.5 is the exponential with rho = exp(-1/phi).
TEST(SpatialStructures, MaternHalfIsExponential) {
  const Layout L = scatter_layout(12, 1);
  Fit a, b;
  a.gammas = {2.0, 0.5};
  a.add_section(12, 2, 6, 1, 0, 0);
  add_coords(a, 1, 9, 2, L, 1);
  b.gammas = {std::exp(-1.0 / 2.0)};
  b.add_section(12, 1, 6, 1, 0, 0);
  add_coords(b, 1, 3, 2, L, 1);
  ASSERT_EQ(a.run(), 0);
  ASSERT_EQ(b.run(), 0);
  EXPECT_LT(max_abs_diff(a.V(1), b.V(1)), 1e-12);
  EXPECT_NEAR(a.logdet[0], b.logdet[0], 1e-10);
}

// Bounds: the exponential rho held below 1, the limited range checked
// against the largest distance, a fixed smoothness without derivative,
// repeated points moved apart, and a section without coordinates.
TEST(SpatialStructures, RangesRepeatedPointsAndFaults) {
  const Layout L = scatter_layout(10, 1);
  {
    Fit f;
    f.gammas = {1.0};
    f.add_section(10, 1, 6, 1, 0, 0);
    add_coords(f, 1, 3, 2, L, 1);
    ASSERT_EQ(f.run(), 0);
    EXPECT_EQ(f.gammas[0], 0.999);
    EXPECT_EQ(f.tgamma[0], 5);
  }
  {
    // Spherical with a range below the largest distance: three times the
    // smallest distance instead.
    Fit f;
    f.gammas = {2.0};
    f.add_section(10, 1, 6, 1, 0, 0);
    add_coords(f, 1, 4, 2, L, 1);
    ASSERT_EQ(f.run(), 0);
    double dmin = 1e10;
    for (int i = 0; i < 10; ++i)
      for (int j = 0; j < i; ++j) dmin = std::min(dmin, std::hypot(L.x[i] - L.x[j], L.y[i] - L.y[j]));
    EXPECT_NEAR(f.gammas[0], 3 * dmin, 1e-12);
    EXPECT_EQ(f.tgamma[0], 8);
  }
  {
    Fit f;
    f.gammas = {1.5, 2.5};
    f.rgmstr = {0, 4};
    f.add_section(10, 2, 6, 1, 0, 0);
    add_coords(f, 1, 9, 2, L, 1);
    ASSERT_EQ(f.run(), 0);
    EXPECT_EQ(f.parform[1].kind, -1);
    EXPECT_EQ(f.trdrri[1], 0.0);
    EXPECT_LT(max_abs(f.rebuild(1, f.parform[1].first())), 1e-300);
  }
  {
    Layout R = L;
    R.x[6] = R.x[2];
    R.y[6] = R.y[2];
    Fit f;
    f.gammas = {0.5};
    f.add_section(10, 1, 6, 1, 0, 0);
    add_coords(f, 1, 3, 2, R, 1);
    ASSERT_EQ(f.run(), 0);
    EXPECT_NE(f.givreal[2 * 6], R.x[6]);  // the later point was moved
    EXPECT_LT(max_abs_diff(matmul(f.V(1), f.Vinv(1), 10), identity(10)), 1e-6);
  }
  {
    Fit f;
    f.gammas = {0.5};
    f.add_section(10, 1, 6, 1, 0, 0);
    EXPECT_EQ(f.run(), 1);
    EXPECT_EQ(f.ifault, 1006);
  }
}
