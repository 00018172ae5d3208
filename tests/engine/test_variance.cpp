// The variance structure catalogue against dense matrices computed directly
// from each model's definition: rows, inverse rows, log determinants,
// traces and both derivative rows (against central differences).
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "variance/dense.h"
#include "variance_support.h"

using namespace tarnel;
using namespace vtest;

namespace {

using Direct = std::function<Mat(const std::vector<double>&)>;

// Autocovariances of an ARMA process with unit innovations from its
// impulse response psi (psi0 = 1, psi_k = sum phi_j psi_(k-j) - theta_k),
// summed far enough for the tail to vanish.
std::vector<double> arma_acov(const std::vector<double>& phi, const std::vector<double>& theta, int n) {
  const int K = 6000;
  std::vector<double> psi(K, 0.0);
  for (int k = 0; k < K; ++k) {
    double v = k == 0 ? 1.0 : 0.0;
    if (k >= 1 && k <= static_cast<int>(theta.size())) v -= theta[k - 1];
    for (std::size_t j = 1; j <= phi.size(); ++j)
      if (k >= static_cast<int>(j)) v += phi[j - 1] * psi[k - j];
    psi[k] = v;
  }
  std::vector<double> g(n, 0.0);
  for (int h = 0; h < n; ++h)
    for (int k = 0; k + h < K; ++k) g[h] += psi[k] * psi[k + h];
  return g;
}

Mat toeplitz(const std::vector<double>& r, int n) {
  Mat m(n * n);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) at(m, n, i, j) = r[std::abs(i - j)];
  return m;
}

// A time-series matrix: correlation form divides by the variance.
Mat ts_matrix(const std::vector<double>& phi, const std::vector<double>& theta, int n, bool corr) {
  std::vector<double> g = arma_acov(phi, theta, n);
  if (corr) {
    const double g0 = g[0];
    for (double& v : g) v /= g0;
  }
  return toeplitz(g, n);
}

// D R D with D the square roots of v.
Mat scale_rows(const Mat& r, const double* v, int n) {
  Mat m = r;
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) at(m, n, i, j) *= std::sqrt(v[i - 1] * v[j - 1]);
  return m;
}

// A positive definite packed matrix B B' + I (for US) and its correlation.
std::vector<double> us_params(int n) {
  std::vector<double> p;
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j) {
      double s = i == j ? 1.0 : 0.0;
      for (int k = 1; k <= j; ++k) s += (0.3 + 0.1 * ((i + k) % 4)) * (0.3 + 0.1 * ((j + k) % 4));
      p.push_back(s);
    }
  return p;
}
std::vector<double> corg_params(int n) {
  std::vector<double> u = us_params(n), p;
  for (int i = 2; i <= n; ++i)
    for (int j = 1; j < i; ++j)
      p.push_back(u[packed_index(i, j)] / std::sqrt(u[packed_index(i, i)] * u[packed_index(j, j)]));
  return p;
}

struct Case {
  std::string name;
  int model, band, nmin;
  std::function<std::vector<double>(int)> params;  // by order
  std::function<Direct(int)> direct;                // by order
  bool pervar = false;                              // last n parameters are variances
  bool scale = false;                               // last parameter is a scale
  int inited = 0;                                   // CHOL/ANTE: parameters are the factor
};

// A packed factor: D on the diagonal, off-diagonals small.
std::vector<double> factor_params(int n) {
  std::vector<double> p;
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j) p.push_back(i == j ? 0.8 + 0.2 * i : 0.3 / (i - j + 1) - 0.05 * j);
  return p;
}
// L D L' (or U D U' when upper) from a packed factor.
Mat factor_product(const std::vector<double>& p, int n, bool upper) {
  Mat m(n * n, 0.0);
  for (int k = 1; k <= n; ++k) {
    std::vector<double> col(n + 1, 0.0);
    col[k] = 1.0;
    for (int i = 1; i <= n; ++i) {
      if (!upper && i > k) col[i] = p[packed_index(i, k)];
      if (upper && i < k) col[i] = p[packed_index(k, i)];
    }
    for (int i = 1; i <= n; ++i)
      for (int j = 1; j <= n; ++j) at(m, n, i, j) += col[i] * p[packed_index(k, k)] * col[j];
  }
  return m;
}

// The cases: each base structure, plus versions with own variances or a
// scale attached to some of them.
std::vector<Case> catalogue() {
  std::vector<Case> c;
  auto ts = [](std::vector<double> phi, std::vector<double> theta, bool corr) {
    return [=](int n) -> Direct {
      return [=](const std::vector<double>& p) {
        std::vector<double> f = phi, t = theta;
        for (std::size_t k = 0; k < f.size(); ++k) f[k] = p[k];
        for (std::size_t k = 0; k < t.size(); ++k) t[k] = p[f.size() + k];
        return ts_matrix(f, t, n, corr);
      };
    };
  };
  auto fixed = [](std::vector<double> v) { return [=](int) { return v; }; };
  c.push_back({"IDEN", 0, 1, 1, fixed({2.5}), [](int n) -> Direct {
                 return [=](const std::vector<double>& p) {
                   Mat m = identity(n);
                   for (double& v : m) v *= p[0];
                   return m;
                 };
               }});
  c.push_back({"AR1corr", 1, 1, 2, fixed({0.6}), ts({0.6}, {}, true)});
  c.push_back({"AR1proc", 1, 0, 2, fixed({-0.4}), ts({-0.4}, {}, false)});
  c.push_back({"AR2corr", 1, 1, 3, fixed({0.5, 0.3}), ts({0.5, 0.3}, {}, true)});
  c.push_back({"AR2proc", 1, 0, 3, fixed({-0.3, 0.4}), ts({-0.3, 0.4}, {}, false)});
  c.push_back({"AR3corr", 1, 1, 4, fixed({0.4, 0.2, -0.1}), ts({0.4, 0.2, -0.1}, {}, true)});
  c.push_back({"AR3proc", 1, 0, 4, fixed({0.3, -0.2, 0.15}), ts({0.3, -0.2, 0.15}, {}, false)});
  c.push_back({"MA1proc", 2, 0, 2, fixed({0.4}), ts({}, {0.4}, false)});
  c.push_back({"MA1corr", 2, 1, 2, fixed({-0.5}), ts({}, {-0.5}, true)});
  c.push_back({"MA2proc", 2, 0, 3, fixed({0.3, 0.2}), ts({}, {0.3, 0.2}, false)});
  c.push_back({"MA2corr", 2, 1, 3, fixed({0.3, -0.25}), ts({}, {0.3, -0.25}, true)});
  c.push_back({"ARMAproc", 3, 0, 3, fixed({0.6, 0.3}), ts({0.6}, {0.3}, false)});
  c.push_back({"ARMAcorr", 3, 1, 3, fixed({0.5, -0.3}), ts({0.5}, {-0.3}, true)});
  for (int corr = 0; corr <= 1; ++corr) {
    c.push_back({corr ? "SARcorr" : "SARproc", 14, corr, 3, fixed({0.5}), [=](int n) -> Direct {
                   return [=](const std::vector<double>& p) {
                     return ts_matrix({p[0], -p[0] * p[0] / 4}, {}, n, corr);
                   };
                 }});
    c.push_back({corr ? "SAR2corr" : "SAR2proc", 14, corr, 4, fixed({0.4, 0.2}), [=](int n) -> Direct {
                   return [=](const std::vector<double>& p) {
                     const double a = p[0], b = p[1];
                     return ts_matrix({a + 2 * b, -(2 * a + b) * b, a * b * b}, {}, n, corr);
                   };
                 }});
  }
  c.push_back({"CORU", 5, 1, 2, fixed({0.3}), [](int n) -> Direct {
                 return [=](const std::vector<double>& p) {
                   Mat m(n * n, p[0]);
                   for (int i = 1; i <= n; ++i) at(m, n, i, i) = 1.0;
                   return m;
                 };
               }});
  c.push_back({"CORB", 5, 1, 2,
               [](int n) {
                 std::vector<double> p;
                 for (int k = 1; k < n; ++k) p.push_back(0.5 * std::pow(0.7, k));
                 return p;
               },
               [](int n) -> Direct {
                 return [=](const std::vector<double>& p) {
                   std::vector<double> r(n, 1.0);
                   for (int k = 1; k < n; ++k) r[k] = p[k - 1];
                   return toeplitz(r, n);
                 };
               }});
  c.push_back({"CORG", 5, 1, 2, corg_params, [](int n) -> Direct {
                 return [=](const std::vector<double>& p) {
                   Mat m = identity(n);
                   int k = 0;
                   for (int i = 2; i <= n; ++i)
                     for (int j = 1; j < i; ++j, ++k) at(m, n, i, j) = at(m, n, j, i) = p[k];
                   return m;
                 };
               }});
  c.push_back({"DIAG", 8, 1, 1,
               [](int n) {
                 std::vector<double> p;
                 for (int k = 1; k <= n; ++k) p.push_back(1.0 + 0.3 * k);
                 return p;
               },
               [](int n) -> Direct {
                 return [=](const std::vector<double>& p) {
                   Mat m(n * n, 0.0);
                   for (int i = 1; i <= n; ++i) at(m, n, i, i) = p[i - 1];
                   return m;
                 };
               }});
  c.push_back({"US", 9, 1, 1, us_params, [](int n) -> Direct {
                 return [=](const std::vector<double>& p) {
                   Mat m(n * n);
                   for (int i = 1; i <= n; ++i)
                     for (int j = 1; j <= n; ++j) at(m, n, i, j) = p[packed_index(i, j)];
                   return m;
                 };
               }});
  Case chol{"CHOL", 11, 0, 2, factor_params, [](int n) -> Direct {
              return [=](const std::vector<double>& p) { return factor_product(p, n, false); };
            }};
  chol.inited = 1;
  c.push_back(chol);
  Case ante{"ANTE", 12, 0, 2, factor_params, [](int n) -> Direct {
              return [=](const std::vector<double>& p) { return inverse(factor_product(p, n, true), n); };
            }};
  ante.inited = 1;
  c.push_back(ante);
  // Own variances and an overall scale on correlation structures.
  const std::vector<Case> base = c;
  for (const Case& b : base) {
    const bool corrlike = b.model >= 1 && b.model <= 5 && b.band == 1;
    if (!corrlike) continue;
    Case h = b;
    h.name = b.name + "+var";
    h.pervar = true;
    h.params = [b](int n) {
      std::vector<double> p = b.params(n);
      for (int k = 1; k <= n; ++k) p.push_back(0.5 + 0.25 * k);
      return p;
    };
    h.direct = [b](int n) -> Direct {
      Direct d = b.direct(n);
      return [=](const std::vector<double>& p) {
        const std::size_t nc = p.size() - n;
        return scale_rows(d(std::vector<double>(p.begin(), p.begin() + nc)), p.data() + nc, n);
      };
    };
    c.push_back(h);
    Case s = b;
    s.name = b.name + "+scale";
    s.scale = true;
    s.params = [b](int n) {
      std::vector<double> p = b.params(n);
      p.push_back(1.7);
      return p;
    };
    s.direct = [b](int n) -> Direct {
      Direct d = b.direct(n);
      return [=](const std::vector<double>& p) {
        Mat m = d(std::vector<double>(p.begin(), p.end() - 1));
        for (double& v : m) v *= p.back();
        return m;
      };
    };
    c.push_back(s);
  }
  return c;
}

}  // namespace

// For every structure and order: V rebuilt row by row equals the direct
// matrix, V times the rebuilt inverse is I, logdet is the dense log
// determinant, each trace is tr(V^-1 dV) and each derivative row pair
// matches central differences.
TEST(VarianceCatalogue, RowsInverseLogdetTracesAndDerivatives) {
  int checked = 0;
  for (const Case& c : catalogue()) {
    for (int n : {1, 2, 3, 5, 12}) {
      if (n < c.nmin) continue;
      if ((c.pervar || c.scale) && n < 2) continue;
      SCOPED_TRACE(c.name + " order " + std::to_string(n));
      ++checked;
      const std::vector<double> par = c.params(n);
      const Direct direct = c.direct(n);
      const int np = static_cast<int>(par.size());
      Fit f;
      f.gammas = par;
      f.add_section(n, np, c.model, 1, c.band, c.scale ? np : 0);
      f.row(1).field(kInited) = c.inited;
      ASSERT_EQ(f.run(), 0) << "ifault " << f.ifault;
      ASSERT_EQ(f.gammas, par) << "parameters moved";
      const Mat V = direct(par);
      const double big = max_abs(V);
      EXPECT_LT(max_abs_diff(f.V(1), V), 1e-10 * big);
      EXPECT_LT(max_abs_diff(matmul(V, f.Vinv(1), n), identity(n)), 1e-10);
      EXPECT_NEAR(f.logdet[0], log_abs_det(V, n), 1e-9 * (1 + std::fabs(f.logdet[0])));
      const Mat Vi = inverse(V, n);
      for (int p = 0; p < np; ++p) {
        SCOPED_TRACE("parameter " + std::to_string(p + 1));
        const Mat dV = central_difference(direct, par, p);
        const Mat want = matmul(matmul(Vi, dV, n), Vi, n);
        double trace = 0;
        const Mat vd = matmul(Vi, dV, n);
        for (int i = 1; i <= n; ++i) trace += at(vd, n, i, i);
        EXPECT_NEAR(f.trdrri[p], trace, 1e-6 * (1 + std::fabs(trace)));
        int sel = 0;
        if (c.pervar && p >= np - n) sel = p - (np - n) + 1;
        if (c.scale && p == np - 1) sel = 1;
        const Mat d1 = f.rebuild(1, f.parform[p].first(), sel);
        const Mat d2 = f.rebuild(1, f.parform[p].second(), -sel);
        EXPECT_LT(max_abs_diff(d1, dV), 1e-6 * (1 + max_abs(dV)));
        EXPECT_LT(max_abs_diff(d2, want), 1e-6 * (1 + max_abs(want)));
      }
    }
  }
  EXPECT_GT(checked, 100);
}
