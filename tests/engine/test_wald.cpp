// The sweep, the incremental statistics and the Wald table.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "console_capture.h"
#include "generalised/generalised.h"
#include "wald/wald.h"

using namespace tarnel;

namespace {

long pk(long i, long j) {
  if (j > i) std::swap(i, j);
  return i * (i - 1) / 2 + j - 1;
}

// X'X and X'y of a random design with columns in `cols` (n records), as
// the packed triangle of order p + 1 with the response in row 1.
struct Problem {
  int n, p;
  std::vector<double> X, y;
  std::vector<double> tri() const {
    const int m = p + 1;
    std::vector<double> t(m * (m + 1) / 2 + m, 0.0);
    for (int r = 2; r <= m; ++r) {
      double s = 0;
      for (int k = 0; k < n; ++k) s += X[k * p + r - 2] * y[k];
      t[pk(r, 1)] = s;
      for (int c = 2; c <= r; ++c) {
        double v = 0;
        for (int k = 0; k < n; ++k) v += X[k * p + r - 2] * X[k * p + c - 2];
        t[pk(r, c)] = v;
      }
    }
    t[0] = 1.0;
    return t;
  }
  // The regression sum of squares on the columns 0..q-1 (full rank), by
  // Gauss-Jordan on the normal equations.
  double ss(int q) const {
    std::vector<double> A(q * (q + 1), 0.0);
    for (int i = 0; i < q; ++i) {
      for (int j = 0; j < q; ++j)
        for (int k = 0; k < n; ++k) A[i * (q + 1) + j] += X[k * p + i] * X[k * p + j];
      for (int k = 0; k < n; ++k) A[i * (q + 1) + q] += X[k * p + i] * y[k];
    }
    std::vector<double> rhs(q);
    for (int i = 0; i < q; ++i) rhs[i] = A[i * (q + 1) + q];
    for (int c = 0; c < q; ++c) {
      const double d = A[c * (q + 1) + c];
      for (int j = 0; j <= q; ++j) A[c * (q + 1) + j] /= d;
      for (int r = 0; r < q; ++r) {
        if (r == c) continue;
        const double f = A[r * (q + 1) + c];
        for (int j = 0; j <= q; ++j) A[r * (q + 1) + j] -= f * A[c * (q + 1) + j];
      }
    }
    double s = 0;
    for (int i = 0; i < q; ++i) s += rhs[i] * A[i * (q + 1) + q];
    return s;
  }
};

Problem random_problem(int n, int p, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> z;
  Problem pr{n, p, std::vector<double>(n * p), std::vector<double>(n)};
  for (int k = 0; k < n; ++k) {
    pr.X[k * p] = 1.0;
    for (int j = 1; j < p; ++j) pr.X[k * p + j] = z(rng);
    pr.y[k] = 1.0 + 0.5 * pr.X[k * p + 1] + z(rng);
  }
  return pr;
}

}  // namespace

TEST(Wald, IncrementalStatisticsAreSequentialReductions) {
  // Terms of 1, 3 and 2 columns (the third's F needs the general inverse).
  const Problem pr = random_problem(40, 6, 3);
  const int m = 7;
  const long n = m * (m + 1) / 2;
  std::vector<double> a = pr.tri();
  a[0] = 2.5;  // the divisor
  std::vector<int> size = {1, 3, 2}, df = {1, 3, 2}, iwork(9);
  std::vector<double> out(3, -1.0), work(n + m + 3 * 4 + 2 * 3 + 8);
  g5vkai(span<const double>(a.data(), n), n, m, out, work, df, size, 3, iwork);
  const double s1 = pr.ss(1), s4 = pr.ss(4), s6 = pr.ss(6);
  EXPECT_NEAR(out[0], s1 / 2.5 / 1, 1e-9 * s1);
  EXPECT_NEAR(out[1], (s4 - s1) / 2.5 / 3, 1e-9 * s4);
  EXPECT_NEAR(out[2], (s6 - s4) / 2.5 / 2, 1e-9 * s6);
  // The triangle itself is left as it was.
  EXPECT_EQ(a[0], 2.5);
}

TEST(Wald, SweepClearsRowsAndSkipsClearedOnes) {
  const Problem pr = random_problem(30, 4, 5);
  const int m = 5;
  const long n = m * (m + 1) / 2;
  std::vector<double> a = pr.tri();
  g5vkdr(a, n, m, 2, 3);
  EXPECT_EQ(a[pk(2, 2)], 0.0);
  EXPECT_EQ(a[pk(3, 3)], 0.0);
  EXPECT_EQ(a[pk(4, 2)], 0.0);
  const std::vector<double> once(a.begin(), a.begin() + n);
  g5vkdr(a, n, m, 2, 3);  // already swept: nothing changes
  for (long k = 0; k < n; ++k) EXPECT_EQ(a[k], once[k]);
  // What is left on rows 4-5 gives the reduction after the first two columns.
  std::vector<double> dw(3 + 2 + 8), iw(0);
  std::vector<int> iwk(6);
  const double f = aotss(span<const double>(a.data(), n), 4, 2, 2, dw, iwk);
  EXPECT_NEAR(f, (pr.ss(4) - pr.ss(2)) / 2, 1e-9 * pr.ss(4));
}

TEST(Wald, AliasedRowsScoreZero) {
  const Problem pr = random_problem(25, 3, 9);
  const int m = 4;
  const long n = m * (m + 1) / 2;
  std::vector<double> a = pr.tri();
  std::vector<double> dw(3 * 4 + 8);
  std::vector<int> iwk(9);
  // All right-hand sides of the term 0: treated as aliased.
  std::vector<double> z = a;
  for (int r = 2; r <= 4; ++r) z[pk(r, 1)] = 0.0;
  EXPECT_EQ(aotss(span<const double>(z.data(), n), 2, 3, 3, dw, iwk), 0.0);
  // One row's right-hand side 0 with df equal to the size: rows kept differ from df.
  z = a;
  z[pk(3, 1)] = 0.0;
  EXPECT_EQ(aotss(span<const double>(z.data(), n), 2, 3, 3, dw, iwk), 0.0);
  EXPECT_GT(aotss(span<const double>(z.data(), n), 2, 3, 2, dw, iwk), 0.0);
  // A divisor that is not positive gives 0.
  z = a;
  z[0] = 0.0;
  EXPECT_EQ(aotss(span<const double>(z.data(), n), 2, 1, 1, dw, iwk), 0.0);
}

TEST(Wald, TableRowsFromLastTermWithoutDenominators) {
  // Three fixed positions (intercept, a 2-level and a 3-level term) and one
  // random position; the table is written from the last tested term.
  std::vector<int> inter = {-8, 0, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0};
  std::vector<int> rlevel = {1, 2, 3, 5}, tyf = {0, 0, 0, 4}, sub = {0, 0, 0, 0}, noeff = {1, 1, 2, 4},
                   neword = {1, 2, 3, 4}, codes = {4, 4, 1, 0};
  std::vector<double> fadj = {10, 3, 0, 0, 10, 2.5, 1.5, 0}, yss(4), aov(28, -7.0);
  int typeiii = 4;
  AovTblArgs t;
  t.rlevel = rlevel; t.tyfactv = tyf; t.submods = sub; t.noeff = noeff; t.neword = neword;
  t.inter = inter; t.fadjkode = codes; t.fadjval = fadj; t.yssqu = yss; t.typeiii = &typeiii;
  t.nfactp = 4; t.nfactd = 4; t.neqd = 7; t.neq = 12; t.nedf = 30; t.aov = aov;
  aovtbl(t);
  // Row 1: the third term, conditional statistic not positive: NA, code 0.
  EXPECT_EQ(aov[0], 3);
  EXPECT_EQ(aov[1], 2);
  EXPECT_GE(aov[2], 9.9e36);  // no denominator
  EXPECT_EQ(aov[3], 1.5);
  EXPECT_GE(aov[4], 9.9e36);
  EXPECT_EQ(aov[5], 0);
  EXPECT_EQ(aov[6], 0.0);  // no p-value without denominators
  // Row 2: the second term with its conditional statistic and code.
  EXPECT_EQ(aov[7], 2);
  EXPECT_EQ(aov[10], 2.5);
  EXPECT_EQ(aov[11], 3);
  EXPECT_EQ(aov[12], 4);
  // Row 3: the intercept keeps code 0.
  EXPECT_EQ(aov[14], 1);
  EXPECT_EQ(aov[18], 10);
  EXPECT_EQ(aov[19], 0);
  EXPECT_EQ(aov[21], -7.0);  // the random term wrote no row
  // Conditional tests asked for fewer terms than there are: the message,
  // and the table still comes.
  typeiii = 2;
  tarnel_test::capture_begin();
  aovtbl(t);
  const std::string said = tarnel_test::capture_end();
  EXPECT_NE(said.find("TYPEIII 2 < NFACTP 4\n"), std::string::npos);
  EXPECT_EQ(aov[0], 3);
}

TEST(Wald, DenominatorPairsGiveTheFTail) {
  std::vector<int> inter = {-8, 0, 0, 0, 0, 0, 1, 0};
  std::vector<int> rlevel = {1, 3}, tyf = {0, 0}, sub = {0, 0}, noeff = {1, 2}, neword = {1, 2}, codes = {0, 4};
  std::vector<double> fadj = {0, 0, 50, 4.0}, yss(2), aov(14, 0.0), pairs = {1.0, 12.0, 1.0, 8.4};
  int typeiii = 0;
  AovTblArgs t;
  t.rlevel = rlevel; t.tyfactv = tyf; t.submods = sub; t.noeff = noeff; t.neword = neword;
  t.inter = inter; t.fadjkode = codes; t.fadjval = fadj; t.yssqu = yss; t.typeiii = &typeiii;
  t.kenpairs = pairs; t.kenwrd = 1;
  t.nfactp = 2; t.nfactd = 2; t.neqd = 5; t.neq = 5; t.nedf = 10; t.aov = aov;
  aovtbl(t);
  EXPECT_DOUBLE_EQ(aov[2], 8.4);
  EXPECT_NEAR(aov[6], 1.0 - fish(4.0, 2, 8.4), 1e-15);
  EXPECT_NEAR(aov[6], 0.06020448416, 1e-9);
  EXPECT_DOUBLE_EQ(aov[9], 10.0);  // the intercept's 12 is capped at the residual df
}

TEST(Tails, NormalAndF) {
  EXPECT_NEAR(alnorm(1.959963984540054, true), 0.025, 1e-15);
  EXPECT_NEAR(alnorm(-1.0, false), 0.15865525393145707, 1e-15);
  EXPECT_EQ(fish(0.0, 3, 10), 0.0);  // p-value 1 for a zero statistic
  EXPECT_EQ(fish(1e-6, 3, 10), 0.0);
  EXPECT_EQ(fish(2.0, 0.5, 0.4), 0.0);
  EXPECT_NEAR(1.0 - fish(1e6, 2, 30), 0.0, 1e-15);
  EXPECT_NEAR(1.0 - fish(3.0, 2, 9.5), 0.09774882797, 1e-10);
}
