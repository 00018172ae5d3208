// Bounds, fall-backs, repairs and faults of the structure formation, the
// direct product peeled by the row routine, and the dense kernels.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "console_capture.h"
#include "host/messages.h"
#include "variance/dense.h"
#include "variance_support.h"

using namespace tarnel;
using namespace vtest;

namespace {

bool has_message(const std::string& text) {
  for (int k = 0; k < MessageStore::kSlots; ++k)
    if (g5vxer.severity[k] > 0 && message_text(k) == text) return true;
  return false;
}

Mat ar1(double r, int n) {
  Mat m(n * n);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) at(m, n, i, j) = std::pow(r, std::abs(i - j));
  return m;
}

// One section, run once; returns the Fit for inspection.
Fit one(int order, int model, std::vector<double> g, int band = 1, int iteration = 1,
        std::vector<double> prev = {}) {
  Fit f;
  f.gammas = g;
  if (!prev.empty()) f.prvgam = prev;
  f.add_section(order, static_cast<int>(g.size()), model, 1, band);
  f.run(iteration);
  return f;
}

}  // namespace

TEST(VarianceFormation, FallBacksRewriteTheSectionAndFixUnusedParameters) {
  struct FB {
    int model, order;
    std::vector<double> g;
    const char* msg;
  };
  const FB cases[] = {{1, 2, {0.5, 0.2}, " AR2 of order 2 fitted as AR1"},
                      {1, 3, {0.5, 0.2, 0.1}, " AR3 of order 3 fitted as AR1"},
                      {14, 2, {0.5}, " SAR of order 2 fitted as AR1"},
                      {14, 3, {0.5, 0.2}, " SAR2 of order 3 fitted as AR1"},
                      {2, 2, {0.5, 0.2}, " MA2 of order 2 fitted as AR1"},
                      {3, 2, {0.5, 0.2}, " ARMA of order 2 fitted as AR1"}};
  for (const FB& c : cases) {
    SCOPED_TRACE(c.msg);
    clear_message_store();
    Fit f = one(c.order, c.model, c.g);
    ASSERT_EQ(f.rc, 0);
    EXPECT_EQ(f.row(1).field(kModel), 1);
    EXPECT_EQ(f.row(1).field(kNpar), 1);
    EXPECT_TRUE(has_message(c.msg));
    for (std::size_t k = 1; k < c.g.size(); ++k) EXPECT_EQ(f.rgmstr[k], 4);
    EXPECT_LT(max_abs_diff(f.V(1), ar1(c.g[0], c.order)), 1e-12);
  }
  // AR1 of order 1 becomes the identity; CHOL and ANTE of order 1 are a
  // scaled identity.
  Fit f = one(1, 1, {0.5});
  ASSERT_EQ(f.rc, 0);
  EXPECT_EQ(f.row(1).field(kModel), 0);
  EXPECT_EQ(f.V(1), identity(1));
  for (int model : {11, 12}) {
    Fit g = one(1, model, {2.0});
    ASSERT_EQ(g.rc, 0) << model;
    EXPECT_EQ(g.V(1), Mat{2.0});
    EXPECT_EQ(g.Vinv(1), Mat{0.5});
  }
}

TEST(VarianceFormation, BoundsMoveParametersAndMarkThem) {
  // Parameter k moved to `want` (and marked `rg`, where not -1); V still
  // has its inverse.
  struct B {
    int order, model, band;
    std::vector<double> g;
    int k;
    double want;
    int rg;
  };
  const B cases[] = {
      {4, 1, 1, {0.999}, 0, 0.999, 4},
      {4, 1, 1, {-1.3}, 0, -0.999, 4},
      {4, 1, 1, {0.9975}, 0, 0.995, 0},
      {3, 5, 1, {1.0}, 0, 0.999, -1},                  // CORU at 1
      {4, 2, 0, {0.992}, 0, 0.995, -1},                // MA1 above 0.99
      {5, 1, 1, {0.7, 0.5}, 0, 0.7 / 1.21, -1},        // AR2: |phi1 + phi2| = 1.2
      {5, 1, 1, {0.7, 0.5}, 1, 0.5 / 1.21, -1},
      {5, 14, 1, {0.3, 0.3}, 1, 0.3 * 0.98, -1},       // SAR2 with a equal to b
      {2, 5, 1, {0.3, 1.0, 0.0}, 2, 1e-18, 1},         // a zero variance held at 1e-18
  };
  for (const B& c : cases) {
    SCOPED_TRACE(std::to_string(c.model) + " " + std::to_string(c.g[0]));
    Fit f = one(c.order, c.model, c.g, c.band);
    ASSERT_EQ(f.rc, 0);
    EXPECT_DOUBLE_EQ(f.gammas[c.k], c.want);
    if (c.rg >= 0) {
      EXPECT_EQ(f.rgmstr[c.k], c.rg);
    }
    EXPECT_LT(max_abs_diff(matmul(f.V(1), f.Vinv(1), c.order), identity(c.order)), 1e-8);
  }
  EXPECT_LT(max_abs_diff(one(4, 1, {0.9975}).V(1), ar1(0.995, 4)), 1e-12);
}

TEST(VarianceFormation, UsRepairDoublesFirstAndRegressesLater) {
  clear_message_store();
  Fit f = one(2, 9, {1.0, 1.0, 1.0});  // singular on the first iteration
  ASSERT_EQ(f.rc, 0);
  EXPECT_EQ(f.gammas, (std::vector<double>{2.0, 1.0, 2.0}));
  EXPECT_EQ(g5verrlev(1), 0);
  EXPECT_LT(max_abs_diff(matmul(f.V(1), f.Vinv(1), 2), identity(2)), 1e-12);

  clear_message_store();
  Fit g = one(2, 9, {1.0, 2.0, 1.0}, 1, 2, {1.0, 0.5, 1.0});
  ASSERT_EQ(g.rc, 0);
  // Two halvings towards the previous values: 2 -> 1.25 -> 0.875.
  EXPECT_DOUBLE_EQ(g.gammas[1], 0.875);
  EXPECT_TRUE(has_message("NonPosDef US matrix modified"));
  EXPECT_EQ(g.row(1).field(kUsfix), 2);
  EXPECT_LT(max_abs_diff(matmul(g.V(1), g.Vinv(1), 2), identity(2)), 1e-12);

  // Fixed and singular on a late iteration: no repair, fault 1009.
  Fit h;
  h.gammas = {1.0, 1.0, 1.0};
  h.rgmstr = {4, 4, 4};
  h.add_section(2, 3, 9, 1);
  EXPECT_EQ(h.run(5), 1);
  EXPECT_EQ(h.ifault, 1009);
}

TEST(VarianceFormation, CorgIsShrunkUntilPositiveDefinite) {
  clear_message_store();
  // Equal correlations with one negative: positive definite below 0.5.
  Fit f = one(3, 5, {0.52, 0.52, -0.52});
  ASSERT_EQ(f.rc, 0);
  EXPECT_DOUBLE_EQ(f.gammas[0], 0.52 * std::pow(f32(0.99), 4));
  EXPECT_TRUE(has_message("Negative Definite CORG structure modified"));
  EXPECT_TRUE(has_message("Model may not converge to best solution"));
  // Too far from a correlation matrix: 1005.
  Fit g = one(3, 5, {0.9, 0.9, -0.9});
  EXPECT_EQ(g.ifault, 1005);
  Mat R = f.V(1);
  EXPECT_GT(log_abs_det(R, 3), -50.0);
  EXPECT_LT(max_abs_diff(matmul(R, f.Vinv(1), 3), identity(3)), 1e-10);
}

TEST(VarianceFormation, SectionsThatCannotBeFormedFault) {
  struct F {
    int model, order;
    std::vector<double> g;
    int fault;
    const char* msg;
  };
  const F cases[] = {
      {6, 3, {0.5}, 1006, " Spatial section 1 has no coordinates of its order"},
      {7, 3, {0.5}, 1007, " Own variance structures are not available in this version"},
      {10, 3, {0.5}, 1010, " Factor analytic structures are not available in this version"},
      {13, 3, {0.5}, 1013, " Factor analytic structures are not available in this version"},
      {15, 3, {0.5}, 1015, " Factor analytic structures are not available in this version"},
      {4, 3, {0.5}, 1004, nullptr},
      {16, 3, {0.5}, 1016, " Variance model 16 with 1 parameters is not defined"},
      {8, 3, {1.0, 0.0, 2.0}, 1008, " DIAG section 1 has a zero variance"},
      {9, 3, {1.0, 0.0}, 1009, nullptr},
      {0, 3, {0.0}, 1000, " Scaled identity section 1 with 1 parameters or zero scale"},
      {1, 6, {1.5, 0.3, 0.2}, 1001, " Autoregressive parameters of section 1 outside the stationary region"},
      {5, 5, {-0.3}, 1005, " Uniform correlation -0.3 of section 1 is not positive definite for order 5"},
  };
  for (const F& c : cases) {
    SCOPED_TRACE(c.model);
    clear_message_store();
    Fit f = one(c.order, c.model, c.g);
    EXPECT_EQ(f.rc, 1);
    EXPECT_EQ(f.ifault, c.fault);
    if (c.msg) {
      EXPECT_TRUE(has_message(c.msg));
    }
  }
  // A shared section without an earlier match.
  Fit s;
  s.gammas = {0.5};
  s.add_section(3, 1, 1, 1);
  s.row(1).field(kShared) = -1;
  EXPECT_EQ(s.run(), 1);
  EXPECT_EQ(s.ifault, 1001);
  // Out of workspace.
  Fit w(40);
  w.gammas = {0.5};
  w.add_section(12, 1, 1, 1);
  EXPECT_EQ(w.run(), 1);
  EXPECT_EQ(w.ifault, 6);
}

// Three sections in a direct product: each call peels one digit of the
// running row number, fastest section first, and the product of the rows
// is the Kronecker product.
TEST(VarianceRows, DirectProductPeelsRownumAndGivesKroneckerRows) {
  Fit f;
  f.gammas = {0.6, 2.0, 0.5, 1.5, 1.0, 2.0, 3.0, 4.0};
  f.add_section(3, 1, 1, 1);      // AR1
  f.add_section(2, 3, 9, 2);      // US
  f.add_section(4, 4, 8, 5);      // DIAG
  // The same AR1 again, shared.
  f.add_section(3, 1, 1, 1);
  f.row(4).field(kShared) = -1;
  ASSERT_EQ(f.run(), 0);
  EXPECT_EQ(f.secform[3].pos, f.secform[0].pos);
  EXPECT_EQ(f.logdet[3], f.logdet[0]);
  const int n[3] = {3, 2, 4};
  const Mat A[3] = {f.V(1), f.V(2), f.V(3)};
  const int N = 24;
  for (int r = 0; r < N; ++r) {
    i64 rownum = r;
    std::vector<double> row(N, 0.0);
    // fastest (section 3) first
    std::vector<double> v[3];
    std::vector<int> c[3];
    int cnt[3];
    for (int s = 2; s >= 0; --s) {
      v[s].assign(n[s], 0.0);
      c[s].assign(n[s], 0);
      int flt = 0;
      ASSERT_EQ(g5vvrw(span<double>(v[s].data(), n[s]), span<int>(c[s].data(), n[s]), cnt[s], rownum, n[s],
                       f.secform[s].first(), f.row(s + 1), f.a.work, 0, f.row(s + 1).field(kModel), f.a.giv,
                       6, flt),
                0);
    }
    EXPECT_EQ(rownum, 0);
    for (int a = 0; a < cnt[0]; ++a)
      for (int b = 0; b < cnt[1]; ++b)
        for (int d = 0; d < cnt[2]; ++d) {
          const int col = ((c[0][a] - 1) * 2 + c[1][b] - 1) * 4 + c[2][d] - 1;
          row[col] = v[0][c[0][a] - 1] * v[1][c[1][b] - 1] * v[2][c[2][d] - 1];
        }
    const int i0 = r / 8, i1 = (r / 4) % 2, i2 = r % 4;
    for (int col = 0; col < N; ++col) {
      const int j0 = col / 8, j1 = (col / 4) % 2, j2 = col % 4;
      const double want = at(A[0], 3, i0 + 1, j0 + 1) * at(A[1], 2, i1 + 1, j1 + 1) * at(A[2], 4, i2 + 1, j2 + 1);
      EXPECT_DOUBLE_EQ(row[col], want) << r << " " << col;
    }
  }
}

TEST(VarianceRows, BlockedAr1KeepsBlocksApart) {
  // Levels 1 1 1 2 2 3: three blocks; levels two integers apart.
  Fit f;
  f.gammas = {0.5};
  f.givtab = {6, 10, 1, 1, 0};
  f.givint = {1, 0, 1, 0, 1, 0, 2, 0, 2, 0, 3, 0};
  f.givreal = {0.0};
  for (int band : {1, 0}) {
    f.struc.clear();
    f.add_section(6, 1, 1, 1, band);
    f.row(1).field(kBlockrow) = 1;
    ASSERT_EQ(f.run(), 0);
    Mat want(36, 0.0);
    const int lev[6] = {1, 1, 1, 2, 2, 3};
    const double c0 = band == 1 ? 1.0 : 1.0 / (1 - 0.25);
    for (int i = 1; i <= 6; ++i)
      for (int j = 1; j <= 6; ++j)
        if (lev[i - 1] == lev[j - 1]) at(want, 6, i, j) = c0 * std::pow(0.5, std::abs(i - j));
    EXPECT_LT(max_abs_diff(f.V(1), want), 1e-12);
    EXPECT_LT(max_abs_diff(matmul(want, f.Vinv(1), 6), identity(6)), 1e-12);
    EXPECT_NEAR(f.logdet[0], log_abs_det(want, 6), 1e-12);
    // B = 3 blocks in the stated trace formulae.
    const double r = 0.5, q = 1 - r * r;
    EXPECT_NEAR(f.trdrri[0], band == 1 ? 6 * (-2 * r) / q + 2 * 3 * r / q : 2 * 3 * r / q, 1e-12);
  }
}

TEST(VarianceRows, RecordFormsScaleStageAndFaults) {
  std::vector<double> w(1200, 0.0);
  WorkArray work(w.data(), w.size());
  // A diagonal at 10, a scale vector at 500 (ignored) and at 1100.
  for (int k = 0; k < 4; ++k) {
    w[9 + k] = k + 1.0;
    w[499 + k] = 7.0;
    w[1099 + k] = k + 2.0;
  }
  int sr[15] = {4, 4, 8, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  StrucRow row{sr};
  GivTable giv;
  double v[8] = {0};
  int c[8] = {0}, count = 0, flt = 0;
  auto call = [&](i64 kind, i64 scale, i64 pos, int i, int order = 4, int sel = 0) {
    for (double& x : v) x = 0;
    const i64 rec[3] = {kind, scale, pos};
    i64 rn = i - 1;
    flt = 0;
    return g5vvrw(span<double>(v, 8), span<int>(c, 8), count, rn, order, rec, row, work, sel, 1, giv, 6, flt);
  };
  EXPECT_EQ(call(8, 500, 10, 3), 0);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(v[2], 3.0);
  EXPECT_EQ(call(8, 1100, 10, 3), 0);
  EXPECT_EQ(v[2], 3.0 * 4.0 * 4.0);
  // DIAG derivative rows: empty but for row k.
  for (int i = 1; i <= 4; ++i) {
    EXPECT_EQ(call(102, 0, 0, i), 0);
    EXPECT_EQ(count, i == 2 ? 1 : 0);
  }
  // A singular-G form: [0 I; I -G] for a diagonal G of half order 2.
  sr[kGform - 1] = 2;
  EXPECT_EQ(call(8, 0, 10, 1), 0);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(c[0], 3);
  EXPECT_EQ(call(8, 0, 10, 4), 0);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(v[1], 1.0);
  EXPECT_EQ(v[3], -2.0);
  clear_message_store();
  EXPECT_EQ(call(101, 0, 0, 1), 1);
  EXPECT_EQ(flt, 108);
  EXPECT_TRUE(has_message(" G5VVRW DERIV DIAG SING G"));
  sr[kGform - 1] = 1;
  EXPECT_EQ(call(7, 0, 10, 1), 1);
  EXPECT_EQ(count, 0);
  EXPECT_TRUE(has_message(" G5VVRW Undefined Scructure"));
  // A Toeplitz section of order 1 gives its single value.
  w[19] = 2.5;
  EXPECT_EQ(call(2, 0, 20, 1, 1), 0);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(v[0], 2.5);
}

// ---------------------------------------------------------------- kernels

namespace {
std::vector<double> pack(const Mat& m, int n) {
  std::vector<double> p(packed_size(n));
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j) p[packed_index(i, j)] = at(m, n, i, j);
  return p;
}
Mat unpack(const std::vector<double>& p, int n) {
  Mat m(n * n);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) at(m, n, i, j) = p[packed_index(i, j)];
  return m;
}
Mat test_matrix(int n, double shift) {
  Mat m(n * n);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) at(m, n, i, j) = 1.0 / (i + j) + (i == j ? shift : 0.0);
  return m;
}
struct Smi {
  int mode, rank, neg;
  double ld;
  std::vector<double> a;
};
Smi smi(const Mat& m, int n, int mode) {
  Smi r{mode, n, 0, 0.0, pack(m, n)};
  std::vector<double> s(n);
  std::vector<int> p1(n), p2(n);
  g5vsmi(span<double>(r.a.data(), r.a.size()), span<double>(s.data(), n), span<int>(p1.data(), n),
         span<int>(p2.data(), n), r.mode, r.rank, r.ld, r.neg);
  return r;
}
}  // namespace

TEST(DenseKernels, SmiInvertsRegularIndefiniteAndSingularMatrices) {
  const int n = 5;
  // Indefinite: a shift that leaves two negative eigenvalues; the pivot
  // of 0 in the first place forces a swap.
  Mat m = test_matrix(n, 0.0);
  at(m, n, 1, 1) = 0.0;
  at(m, n, 2, 2) = -1.0;
  Smi r = smi(m, n, 0);
  EXPECT_EQ(r.mode, 0);
  EXPECT_EQ(r.rank, n);
  EXPECT_LT(max_abs_diff(matmul(m, unpack(r.a, n), n), identity(n)), 1e-9);
  EXPECT_NEAR(r.ld, log_abs_det(m, n), 1e-9);
  EXPECT_LT(r.neg, -1);  // swapped, with negative pivots
  // A zero matrix: rank 0, all singular.
  Smi z = smi(Mat(n * n, 0.0), n, 0);
  EXPECT_EQ(z.rank, 0);
  EXPECT_EQ(z.mode, n);
  // Diagonal values all below 1e-7: the tolerance stays 1e-7.
  Mat t = identity(3);
  for (double& x : t) x *= 5e-8;
  EXPECT_EQ(smi(t, 3, 0).mode, 3);
  for (double& x : t) x *= 4.0;  // 2e-7: above the tolerance
  EXPECT_EQ(smi(t, 3, 0).mode, 0);
}

TEST(DenseKernels, FactorModesRebuildAndInvert) {
  const int n = 6;
  const Mat m = test_matrix(n, 1.0);
  Smi f = smi(m, n, -98);
  std::vector<double> a = f.a;
  g5vldl(span<double>(a.data(), a.size()), n);
  EXPECT_LT(max_abs_diff(unpack(a, n), m), 1e-12);
  a = f.a;
  double ld = 0;
  int ns = 0;
  g5vldi(span<double>(a.data(), a.size()), n, ld, ns);
  EXPECT_LT(max_abs_diff(matmul(m, unpack(a, n), n), identity(n)), 1e-10);
  EXPECT_NEAR(ld, log_abs_det(m, n), 1e-10);
  Smi u = smi(m, n, -99);
  g5vudu(span<double>(u.a.data(), u.a.size()), n);
  EXPECT_LT(max_abs_diff(matmul(m, unpack(u.a, n), n), identity(n)), 1e-10);
  // Swap with equal indices leaves the matrix alone; otherwise a symmetric
  // permutation.
  std::vector<double> p = pack(m, n), q = p;
  g5vsmp(span<double>(q.data(), q.size()), 3, 3, n);
  EXPECT_EQ(p, q);
  g5vsmp(span<double>(q.data(), q.size()), 5, 2, n);
  Mat sw = unpack(q, n);
  auto perm = [](int i) { return i == 2 ? 5 : i == 5 ? 2 : i; };
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) EXPECT_EQ(at(sw, n, i, j), at(m, n, perm(i), perm(j)));
}

TEST(DenseKernels, GeneralisedInverseAndToeplitzHelpers) {
  // Row 3 is the sum of rows 1 and 2: A G A = A.
  const int n = 4;
  Mat b = test_matrix(n, 0.5);
  for (int j = 1; j <= n; ++j) at(b, n, 3, j) = at(b, n, 1, j) + at(b, n, 2, j);
  for (int i = 1; i <= n; ++i) at(b, n, i, 3) = at(b, n, 3, i);
  at(b, n, 3, 3) = at(b, n, 1, 3) + at(b, n, 2, 3);
  std::vector<double> a = pack(b, n), s(2 * n);
  std::vector<int> sl(n);
  double ld = 0;
  int ns = 0, nn = 0;
  g5vsmige(span<double>(a.data(), a.size()), n, span<double>(s.data(), s.size()), ld, span<int>(sl.data(), n), ns,
           nn);
  EXPECT_EQ(ns, 1);
  EXPECT_EQ(sl[0], 3);
  const Mat G = unpack(a, n);
  EXPECT_LT(max_abs_diff(matmul(matmul(b, G, n), b, n), b), 1e-9);
  // Tridiagonal Toeplitz inverses, short and long, one indefinite: T times
  // the inverse is I, computed from the three bands of T.
  const std::pair<double, int> toe[] = {{-0.4, 1}, {-0.4, 2}, {-0.4, 3}, {-0.4, 7}, {-0.1, 600}, {0.4, 600},
                                        {0.7, 9}};
  for (const auto& [r1, m] : toe) {
    const double d = r1 == -0.4 ? 1.16 : 1.01;
    std::vector<double> v(packed_size(m));
    g5vvma(d, r1, span<double>(v.data(), v.size()), m);
    double worst = 0;
    for (int i = 1; i <= m; ++i)
      for (int j = 1; j <= m; ++j) {
        double e = d * v[packed_index(i, j)];
        if (i > 1) e += r1 * v[packed_index(i - 1, j)];
        if (i < m) e += r1 * v[packed_index(i + 1, j)];
        worst = std::max(worst, std::fabs(e - (i == j ? 1.0 : 0.0)));
      }
    EXPECT_LT(worst, r1 == -0.4 ? 1e-12 : 1e-10) << r1 << " " << m;
  }
}

// CHOL and ANTE given a general matrix: it is factorised into the
// parameters, the band is imposed, and V is rebuilt from the factor.
TEST(VarianceFormation, CholAndAnteTurnAGeneralMatrixIntoFactors) {
  const int n = 4;
  Mat G = test_matrix(n, 1.0);
  for (int model : {11, 12}) {
    for (int band : {0, 1}) {
      SCOPED_TRACE(std::to_string(model) + " band " + std::to_string(band));
      Fit f;
      f.gammas = pack(G, n);
      f.add_section(n, static_cast<int>(f.gammas.size()), model, 1, band);
      ASSERT_EQ(f.run(), 0) << f.ifault;
      EXPECT_EQ(f.row(1).field(kInited), 1);
      for (int i = 1; i <= n; ++i)
        for (int j = 1; j < i; ++j) {
          const bool off = band == 1 && i - j > 1;
          EXPECT_EQ(f.rgmstr[packed_index(i, j)], off ? 2 : 0);
          if (off) {
            EXPECT_EQ(f.gammas[packed_index(i, j)], 0.0);
          }
        }
      const Mat V = f.V(1);
      if (band == 0) {
        EXPECT_LT(max_abs_diff(V, G), 1e-12);
      } else if (model == 11) {
        // L D L' with L cut to its first band: the diagonal of D and the
        // first band of L stay those of G.
        EXPECT_NEAR(at(V, n, 1, 1), at(G, n, 1, 1), 1e-12);
        EXPECT_NEAR(at(V, n, 2, 1), at(G, n, 2, 1), 1e-12);
        EXPECT_EQ(at(V, n, 3, 1), 0.0);
      }
      EXPECT_LT(max_abs_diff(matmul(V, f.Vinv(1), n), identity(n)), 1e-10);
      EXPECT_NEAR(f.logdet[0], log_abs_det(V, n), 1e-10);
    }
  }
  // An indefinite matrix cannot be an ANTE.
  Mat B = test_matrix(n, 0.0);
  at(B, n, 2, 2) = -1.0;
  Fit a;
  a.gammas = pack(B, n);
  a.add_section(n, static_cast<int>(a.gammas.size()), 12, 1, 0);
  EXPECT_EQ(a.run(), 1);
  EXPECT_EQ(a.ifault, 1121);
}

// Sections linked to a known inverse held diagonal (8), dense (9) or
// sparse (7), with the log determinant slot in front or behind (+10).
TEST(VarianceFormation, LinksDeliverTheKnownInverseScaled) {
  const int n = 5;
  Mat Ai(n * n, 0.0);  // a tridiagonal positive definite inverse
  for (int i = 1; i <= n; ++i) {
    at(Ai, n, i, i) = 2.0 + 0.1 * i;
    if (i > 1) at(Ai, n, i, i - 1) = at(Ai, n, i - 1, i) = -0.7;
  }
  const double sigma = 2.0;
  // Type 7 with and without the transposed index of its lower triangle.
  const std::pair<int, bool> cases[] = {{7, false}, {7, true}, {8, false}, {9, false},
                                        {17, false}, {17, true}, {19, false}};
  for (const auto& [type, transposed] : cases) {
    SCOPED_TRACE(type * 10 + transposed);
    const int t = type % 10;
    Mat M = Ai;
    if (t == 8)
      for (int i = 1; i <= n; ++i)
        for (int j = 1; j <= n; ++j)
          if (i != j) at(M, n, i, j) = 0.0;
    std::vector<double> vals;
    std::vector<int> ints;
    if (t == 8) {
      for (int i = 1; i <= n; ++i) vals.push_back(at(M, n, i, i));
    } else if (t == 9) {
      vals = pack(M, n);
    } else {
      sparse_lower(M, n, transposed, vals, ints);
    }
    // The slot starts as the mark of an unknown log determinant.
    Fit f;
    f.givreal.assign(1, kMissing);
    if (type > 10) {
      f.givreal = vals;
      f.givreal.push_back(kMissing);
    } else {
      f.givreal.insert(f.givreal.end(), vals.begin(), vals.end());
    }
    f.givint = ints.empty() ? std::vector<int>{0} : ints;
    f.givtab = {n, type, 1, ints.empty() ? 0 : 1, 0};
    f.gammas = {sigma};
    f.add_section(n, 1, -1, 1);
    ASSERT_EQ(f.run(), 0) << f.ifault;
    const double ldA = -log_abs_det(M, n);
    EXPECT_NEAR(f.givlogdet[0], ldA, 1e-10);
    EXPECT_NEAR(f.logdet[0], n * std::log(sigma) + ldA, 1e-10);
    EXPECT_EQ(f.trdrri[0], 1.0 / sigma);
    Mat want = M;
    for (double& v : want) v /= sigma;
    EXPECT_LT(max_abs_diff(f.Vinv(1), want), 1e-14);
    for (double& v : want) v /= sigma;
    EXPECT_LT(max_abs_diff(f.rebuild(1, f.parform[0].second()), want), 1e-14);
    // The next iteration finds the log determinant held.
    ASSERT_EQ(f.run(2), 0);
    EXPECT_NEAR(f.logdet[0], n * std::log(sigma) + ldA, 1e-10);
  }
  // A link to a row that does not exist.
  Fit b;
  b.gammas = {1.0};
  b.add_section(3, 1, -2, 1);
  EXPECT_EQ(b.run(), 1);
  EXPECT_EQ(b.ifault, 998);
}

// Rows of a random sparse symmetric matrix held by its lower triangle,
// delivered with and without the transposed index: the same rows, equal to
// the dense matrix, in any order with the index; a damaged index is caught.
TEST(SparseKnownRows, TransposedIndexGivesTheSameRows) {
  const int n = 30;
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Mat M(n * n, 0.0);
  for (int i = 1; i <= n; ++i) {
    at(M, n, i, i) = i % 7 == 0 ? 0.0 : 3.0 + u(rng);  // an explicit zero diagonal too
    for (int j = 1; j < i; ++j)
      if (u(rng) > 0.75 || (i == n && j == 1)) at(M, n, i, j) = at(M, n, j, i) = u(rng);
  }
  std::vector<double> real;
  std::vector<int> plain, trans;
  sparse_lower(M, n, true, real, trans);
  sparse_lower(M, n, false, real, plain);
  real.insert(real.begin(), 0.0);  // the log determinant slot
  const int nnz = static_cast<int>(real.size()) - 1;
  const std::size_t cur = n + 1 + nnz, tstart = cur + n, trow = tstart + n + 1, tpos = trow + (nnz - n);

  const double scale = 2.5;
  std::vector<double> wk{scale};
  WorkArray work(wk.data(), wk.size());
  int tab[5] = {n, 7, 1, 1, 0};
  int sr[15] = {n, 0, 1, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  auto table = [&](std::vector<int>& ints) {
    GivTable g;
    g.table = span<int>(tab, 5);
    g.count = 1;
    g.real = span<double>(real.data(), real.size());
    g.integer = span<int>(ints.data(), ints.size());
    return g;
  };
  // Row i as a dense row, and its column list.
  auto row = [&](const GivTable& g, int i, std::vector<int>& cl) {
    std::vector<double> v(n, 0.0);
    std::vector<int> c(n, 0);
    int count = 0, flt = 0;
    const i64 rec[3] = {0, 0, 1};
    i64 rn = i - 1;
    EXPECT_EQ(g5vvrw(span<double>(v.data(), n), span<int>(c.data(), n), count, rn, n, rec, StrucRow{sr}, work,
                     0, -1, g, 6, flt), 0);
    cl.assign(c.begin(), c.begin() + count);
    return v;
  };
  const GivTable gp = table(plain), gt = table(trans);
  ASSERT_TRUE(sparse_giv_valid(gp, giv_layout(gp, 1)));
  ASSERT_TRUE(sparse_giv_valid(gt, giv_layout(gt, 1)));
  EXPECT_EQ(giv_layout(gp, 1).tstart, 0);
  for (int i = 1; i <= n; ++i) {
    std::vector<int> cp, ct;
    const std::vector<double> vp = row(gp, i, cp), vt = row(gt, i, ct);
    EXPECT_EQ(cp, ct) << i;
    for (int j : ct) EXPECT_EQ(vt[j - 1], vp[j - 1]) << i << " " << j;
  }
  EXPECT_EQ(trans[cur], -1);  // the mark survives a walk
  for (int i = n; i >= 1; --i) {
    std::vector<int> ct;
    const std::vector<double> vt = row(gt, i, ct);
    std::vector<int> want;
    for (int j = 1; j <= n; ++j)
      if (at(M, n, i, j) != 0.0 || j == i) want.push_back(j);
    EXPECT_EQ(ct, want) << i;
    for (int j : ct) EXPECT_EQ(vt[j - 1], scale * at(M, n, i, j)) << i << " " << j;
  }

  // Damage: an unknown mark and a truncated store do not fit; rows out of
  // range or order, positions off their column or on a diagonal, and
  // column starts that do not add up are invalid.
  int twoc = 0;  // a column with two rows below the diagonal
  for (int c = 1; c <= n && !twoc; ++c)
    if (trans[tstart + c] - trans[tstart + c - 1] >= 2) twoc = c;
  ASSERT_GT(twoc, 0);
  const std::size_t k2 = trow + trans[tstart + twoc - 1] - 1;  // its first entry
  const int diag_of_row = plain[trans[k2] - 1 + 1] - 1;        // that row's diagonal
  const std::vector<std::function<void(std::vector<int>&)>> damage = {
      [&](std::vector<int>& a) { a[cur] = -2; },
      [&](std::vector<int>& a) { a.pop_back(); },
      [&](std::vector<int>& a) { a[tstart + n] += 1; },
      [&](std::vector<int>& a) { a[trow] = n + 1; },
      [&](std::vector<int>& a) { std::swap(a[k2], a[k2 + 1]); },
      [&](std::vector<int>& a) { a[k2] = twoc; },
      [&](std::vector<int>& a) { a[k2 - trow + tpos] = diag_of_row; },
      [&](std::vector<int>& a) { std::swap(a[k2 - trow + tpos], a[k2 - trow + tpos + 1]); },
      [&](std::vector<int>& a) { a[tstart + twoc] -= 1; a[tstart + twoc - 1] += 1; },
      [&](std::vector<int>& a) { a[tstart] = 0; }};
  for (std::size_t d = 0; d < damage.size(); ++d) {
    std::vector<int> bad = trans;
    damage[d](bad);
    const GivTable gb = table(bad);
    const GivLayout L = giv_layout(gb, 1);
    EXPECT_FALSE(L.ok && sparse_giv_valid(gb, L)) << "damage " << d;
  }
}

TEST(VarianceFormation, DebugPrintsTheStoredForms) {
  tarnel_test::capture_begin();
  Fit f;
  f.gammas = {0.6, 0.3};
  f.add_section(4, 2, 3, 1, 0);  // ARMA
  f.a.debug = 1;
  f.run();
  const std::string out = tarnel_test::capture_end();
  ASSERT_EQ(f.rc, 0);
  for (const char* w : {"R\n", "Ri\n", "dR1\n", "dRi1\n", "dR2\n", "dRi2\n", " ARMAinv", "DERIV2"})
    EXPECT_NE(out.find(w), std::string::npos) << w;
}

TEST(DenseKernels, PackedProductsAndTraces) {
  const int n = 4;
  const Mat a = test_matrix(n, 0.3), b = test_matrix(n, -0.2);
  Mat full(n * n);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) at(full, n, i, j) = i + 0.5 * j;  // not symmetric
  const std::vector<double> pa = pack(a, n), pb = pack(b, n);
  const Mat ab = matmul(a, b, n), ba = matmul(b, a, n);
  double tr = 0;
  for (int i = 1; i <= n; ++i) tr += at(ab, n, i, i);
  EXPECT_NEAR(g5vvtr(span<const double>(pa.data(), pa.size()), span<const double>(pb.data(), pb.size()), n), tr,
              1e-13);
  std::vector<double> c(pa.size(), 1.0);
  g5vvas(span<double>(c.data(), c.size()), span<const double>(pa.data(), pa.size()),
         span<const double>(pb.data(), pb.size()), 3.0, n);
  const Mat fb = matmul(full, b, n);
  std::vector<double> d(pa.size(), 0.0);
  g5vvast(span<double>(d.data(), d.size()), span<const double>(full.data(), full.size()),
          span<const double>(pb.data(), pb.size()), 2.0, n);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j) {
      EXPECT_NEAR(c[packed_index(i, j)], 1.0 + 1.5 * (at(ab, n, i, j) + at(ba, n, i, j)), 1e-12);
      EXPECT_NEAR(d[packed_index(i, j)], at(fb, n, i, j) + at(fb, n, j, i), 1e-12);
    }
  // A packed band spread into the four diagonals that a heptadiagonal
  // record delivers.
  const int m = 6;
  std::vector<double> band, diags(4 * m, -1.0), wk(4 * m + 10, 0.0);
  for (int i = 1; i <= m; ++i)
    for (int j = std::max(1, i - 3); j <= i; ++j) band.push_back(10.0 * i + j);
  g5vvp7(span<const double>(band.data(), band.size()), span<double>(diags.data(), diags.size()), m);
  for (int k = 0; k < 4 * m; ++k) wk[k] = diags[k];
  int sr[15] = {m, 0, 1, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  GivTable giv;
  for (int i = 1; i <= m; ++i) {
    double v[m] = {0};
    int c[m] = {0}, cnt = 0, flt = 0;
    const i64 rec[3] = {5, 0, 1};
    i64 rn = i - 1;
    ASSERT_EQ(g5vvrw(span<double>(v, m), span<int>(c, m), cnt, rn, m, rec, StrucRow{sr},
                     WorkArray(wk.data(), wk.size()), 0, 1, giv, 6, flt), 0);
    for (int q = 0; q < cnt; ++q) {
      const int j = c[q];
      EXPECT_EQ(v[j - 1], 10.0 * std::max(i, j) + std::min(i, j)) << i << " " << j;
    }
    EXPECT_EQ(cnt, std::min(m, i + 3) - std::max(1, i - 3) + 1);
  }
  // The result tables carved from the top, and a shortage.
  std::vector<double> w(100, 0.0);
  WorkArray work(w.data(), w.size());
  i64 top = 100;
  StructureTables t;
  int flt = 0;
  ASSERT_EQ(carve_structure_tables(work, top, 0, 2, 5, 1, t, flt), 0);
  EXPECT_EQ(top, 100 - (12 + 2 + 30 + 5 + 1));
  EXPECT_EQ(reinterpret_cast<double*>(t.secform.data()), w.data() + 88);
  EXPECT_EQ(t.givlogdet.data(), w.data() + top);
  EXPECT_EQ(carve_structure_tables(work, top, 1, 2, 5, 1, t, flt), 1);
  EXPECT_EQ(flt, 6);
}
