// Families, links and the generalised step on a few design rows.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "console_capture.h"
#include "generalised/generalised.h"

using namespace tarnel;

TEST(Families, DefaultLinksAndDescriptions) {
  int counts = 0;
  GlmModel nb;
  nb.id = kFamilyNegBinomial;
  nb.link = 0;
  tarnel_test::capture_begin();
  initql(nb, 3.0, 1.0, true, counts);
  const std::string out = tarnel_test::capture_end();
  EXPECT_EQ(nb.link, kLinkInr);
  EXPECT_NE(out.find("Negative Binomial; INR"), std::string::npos);
  EXPECT_NE(out.find("Note: The LogLik value is unsuitable for comparing GLM models"), std::string::npos);
  GlmModel b;
  b.id = kFamilyBinomial;
  b.link = kLinkLog;  // not a binomial link: the logit instead
  initql(b, 0.5, 1.0, false, counts);
  EXPECT_EQ(b.link, kLinkLogit);
  // A y of 1 with a group size of 1 reads as a count.
  counts = 0;
  const double eta = initql(b, 1.0, 1.0, false, counts);
  EXPECT_EQ(counts, 1);
  EXPECT_NEAR(eta, std::log(0.8 / 0.2), 1e-6);
}

TEST(Families, ProbitBoundsKeepTheWorkingVariateFinite) {
  GlmModel m;
  m.id = kFamilyBinomial;
  m.link = kLinkProbit;
  GlmCommon c;
  c.y = 1.0;
  double eta = 7.0, dev = 0;
  const double w = aiglms(m, eta, c, dev);
  EXPECT_EQ(eta, 5.0);
  EXPECT_EQ(c.y, 0.9999);
  EXPECT_EQ(c.mu, 0.9999);
  EXPECT_EQ(c.nhigh, 1);
  EXPECT_TRUE(std::isfinite(w) && w > 0);
  EXPECT_TRUE(std::isfinite((c.y - c.mu) / c.dmu));
}

TEST(Families, WeightsAndDevianceOfTheCanonicalLinks) {
  GlmModel p;
  p.id = kFamilyPoisson;
  p.link = kLinkLog;
  GlmCommon c;
  c.y = 3;
  double eta = std::log(2.0), dev = 0;
  EXPECT_NEAR(aiglms(p, eta, c, dev), 2.0, 1e-12);  // mu
  EXPECT_NEAR(dev, (2.0 - 3.0) + 3.0 * std::log(1.5), 1e-12);
  // The negative binomial's two links of its own share one mean.
  GlmModel nb;
  nb.id = kFamilyNegBinomial;
  nb.phi = 2;
  GlmCommon a, b;
  a.y = b.y = 1;
  double e1 = 0.25, e2 = 0.25, d = 0;
  nb.link = kLinkLnr;
  aiglms(nb, e1, a, d);
  nb.link = kLinkInr;
  aiglms(nb, e2, b, d);
  EXPECT_EQ(a.mu, b.mu);
  EXPECT_NEAR(a.mu, 3.0, 1e-12);
  EXPECT_EQ(fish(0.0, 2, 10), 0.0);
  EXPECT_NEAR(alnorm(1.96, true), 0.0249979, 1e-6);
}

namespace {
// Two records, each a response, a mean (equation 2) and a level of a factor
// (equations 3 and 4).
struct TwoRecords {
  std::vector<double> val{0, 1, 1, 0, 1, 1};
  std::vector<i32> col{1, 2, 3, 1, 2, 4};
  std::vector<i64> start{1, 4, 7};
  std::vector<double> ykeep, n{1, 1}, soln{0, 0.5, 0.25, -0.25}, w{0, 0}, eta{0, 0};
  double logdet = -3;
  GlmmPass pass() {
    GlmmPass p;
    p.val = val.data();
    p.col = col.data();
    p.start = span<const i64>(start.data(), start.size());
    p.records = 2;
    p.ykeep = span<double>(ykeep.data(), ykeep.size());
    p.n = span<const double>(n.data(), n.size());
    p.soln = span<const double>(soln.data(), soln.size());
    p.weights = span<double>(w.data(), w.size());
    p.weights_logdet = &logdet;
    p.eta = span<double>(eta.data(), eta.size());
    return p;
  }
};
}  // namespace

TEST(GlmmStep, WorkingVariateWeightsAndDataChecks) {
  TwoRecords t;
  t.ykeep = {2, 0};
  GlmModel m;
  m.id = kFamilyPoisson;
  m.link = kLinkLog;
  GlmmPass p = t.pass();
  p.count = 2;
  tarnel_test::capture_begin();
  ASSERT_EQ(aiglmm(m, p), 0);
  tarnel_test::capture_end();
  const double eta0 = 0.75, mu0 = std::exp(eta0);
  EXPECT_NEAR(t.val[0], eta0 + (2 - mu0) / mu0, 1e-12);
  EXPECT_NEAR(t.w[0], mu0, 1e-12);
  EXPECT_NEAR(t.val[3], 0.25 - 1.0, 1e-12);
  EXPECT_EQ(t.logdet, 0.0);  // found again from the new weights
  // A missing response stays missing and adds no deviance.
  TwoRecords u;
  u.ykeep = {kMissing, 1};
  GlmmPass q = u.pass();
  q.count = 2;
  tarnel_test::capture_begin();
  ASSERT_EQ(aiglmm(m, q), 0);
  tarnel_test::capture_end();
  EXPECT_EQ(u.val[0], 0.0);
  const double mu1 = std::exp(0.25);
  EXPECT_NEAR(q.deviance, (mu1 - 1) + std::log(1 / mu1), 1e-12);
  // A negative count on the first pass: status 2 with the record named.
  TwoRecords v;
  v.ykeep = {1, -1};
  GlmmPass r = v.pass();
  tarnel_test::capture_begin();
  EXPECT_EQ(aiglmm(m, r), 2);
  EXPECT_NE(tarnel_test::capture_end().find("Invalid Poisson count -1.000000 in record 2"), std::string::npos);
}

// One record of an ordered response of four categories (category 2): three
// rows, each a response, the intercept (equation 2), the covariates of
// thresholds 2 and 3 (equations 3 and 4, the one after the row's own as a
// place holder) and x = 2 (equation 5).
TEST(GlmmStep, OrdinalRowsCarryTheTridiagonalWeights) {
  std::vector<double> val{0, 1, 1, 2, 0, 1, 1, 1, 2, 0, 1, 1, 2};
  std::vector<i32> col{1, 2, 3, 5, 1, 2, 3, 4, 5, 1, 2, 4, 5};
  std::vector<i64> start{1, 5, 10, 14};
  std::vector<double> ykeep{0, 1, 1}, soln{0, -1, 1.0, 2.2, 0.3}, w(3), eta(3), work(200);
  GlmmPass p;
  p.val = val.data();
  p.col = col.data();
  p.start = span<const i64>(start.data(), start.size());
  p.records = 3;
  p.ykeep = span<double>(ykeep.data(), ykeep.size());
  p.soln = span<const double>(soln.data(), soln.size());
  p.weights = span<double>(w.data(), w.size());
  p.eta = span<double>(eta.data(), eta.size());
  p.ordinal.k = 3;
  p.ordinal.first_eq = 3;
  p.ordinal.orig = span<double>(work.data(), val.size());
  p.ordinal.start = span<double>(work.data() + 20, 3);
  p.ordinal.scratch = span<double>(work.data() + 30, 19);
  GlmModel m;
  m.id = kFamilyMultinomial;
  m.link = kLinkLogit;
  const std::vector<double> orig = val;
  tarnel_test::capture_begin();
  ASSERT_EQ(aiglmm(m, p), 0);  // the first pass keeps the design as formed
  p.count = 2;
  ASSERT_EQ(aiglmm(m, p), 0);
  tarnel_test::capture_end();
  const double e[3] = {-1 + 0.6, -1 + 1.0 + 0.6, -1 + 2.2 + 0.6};
  double g[3], d[3];
  for (int j = 0; j < 3; ++j) {
    EXPECT_NEAR(eta[j], e[j], 1e-12);
    g[j] = 1 / (1 + std::exp(-e[j]));
    d[j] = g[j] * (1 - g[j]);
  }
  const double pr[4] = {g[0], g[1] - g[0], g[2] - g[1], 1 - g[2]};
  EXPECT_NEAR(p.deviance, -std::log(pr[1]), 1e-12);
  // A: the rows as the model has them (no place holders); W tridiagonal.
  double A[3][4] = {{1, 0, 0, 2}, {1, 1, 0, 2}, {1, 0, 1, 2}}, W[3][3] = {};
  for (int j = 0; j < 3; ++j) {
    W[j][j] = d[j] * d[j] * (1 / pr[j] + 1 / pr[j + 1]);
    if (j < 2) W[j][j + 1] = W[j + 1][j] = -d[j] * d[j + 1] / pr[j + 1];
  }
  double z[3];
  for (int j = 0; j < 3; ++j) z[j] = e[j] + (ykeep[j] - g[j]) / d[j];
  // The rows as rewritten, with one weight each, give A'WA and A'Wz.
  for (int a = 0; a < 4; ++a) {
    double lhs_z = 0, rhs_z = 0;
    for (int b = 0; b < 4; ++b) {
      double lhs = 0, rhs = 0;
      for (int r = 0; r < 3; ++r) {
        double ra = 0, rb = 0;
        for (i64 q = start[r]; q < start[r + 1] - 1; ++q) {
          if (col[q] == a + 2) ra = val[q];
          if (col[q] == b + 2) rb = val[q];
        }
        lhs += ra * w[r] * rb;
        if (b == 0) lhs_z += ra * w[r] * val[start[r] - 1];
        for (int s = 0; s < 3; ++s) {
          rhs += A[r][a] * W[r][s] * A[s][b];
          if (b == 0) rhs_z += A[r][a] * W[r][s] * z[s];
        }
      }
      EXPECT_NEAR(lhs, rhs, 1e-10) << a << "," << b;
    }
    EXPECT_NEAR(lhs_z, rhs_z, 1e-10) << a;
  }
  // Indicators that fall are not those of one category.
  std::vector<double> bad{1, 0, 1};
  p.ykeep = span<double>(bad.data(), bad.size());
  p.count = 1;
  val = orig;
  tarnel_test::capture_begin();
  EXPECT_EQ(aiglmm(m, p), 1);
  EXPECT_NE(tarnel_test::capture_end().find("in record 2"), std::string::npos);
}
