// The variance-parameter update, its constrained inverse, the parameter
// history ring and the convergence test of the run driver.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "console_capture.h"
#include "control/convergence.h"
#include "control/update.h"
#include "host/messages.h"

using namespace tarnel;

namespace {

const double kS = std::sqrt(250.0);  // close to the bound; exact one is kSqrt250

// A small update problem: ng parameters, all in the AI system in order
// unless wvpar is set, with a dense AI given by rows.
struct Problem {
  int ng = 1;
  std::vector<double> gam, p1, p2, ai, sc, aiinv, work, lower, gmcon;
  std::vector<int> wvpar, tg, rg, gm, gequal, struc;
  std::vector<UsEmData> em;
  int ngmcon = 0, lstruc = 15, nstruc = 0;
  double step = 0.5;
  UpdateControl ctl;
  int iter = 2, emset = 0, ifault = 0;
  double dloglik = 0.0;
  bool debug = false;

  explicit Problem(int n) : ng(n) {
    gam.assign(n, 1.0);
    p1.assign(n, 0.0);
    p2.assign(n, 0.0);
    tg.assign(n, 1);
    rg.assign(n, 0);
    for (int k = 1; k <= n; ++k) wvpar.push_back(k);
    sc.assign(n, 0.0);
    set_diag_ai(1.0);
  }
  void set_diag_ai(double d) {
    const int m = static_cast<int>(wvpar.size());
    ai.assign(m * (m + 1) / 2, 0.0);
    for (int i = 1; i <= m; ++i) ai[i * (i + 1) / 2 - 1] = d;
  }
  void set_ai(const std::vector<std::vector<double>>& a) {
    const int m = static_cast<int>(a.size());
    ai.clear();
    for (int i = 0; i < m; ++i)
      for (int j = 0; j <= i; ++j) ai.push_back(a[i][j]);
  }
  int run() {
    const int m = static_cast<int>(wvpar.size());
    aiinv.assign(m * (m + 1) / 2, -99.0);
    if (work.empty()) work.assign(g5vupd_work_words(m, ng, ngmcon) + 64, 0.0);
    UpdateArgs a;
    a.gammas = span<double>(gam.data(), gam.size());
    a.prev1 = span<double>(p1.data(), p1.size());
    a.prev2 = span<double>(p2.data(), p2.size());
    a.ai = span<const double>(ai.data(), ai.size());
    a.score = span<const double>(sc.data(), sc.size());
    a.wvpar = span<const int>(wvpar.data(), wvpar.size());
    a.stepsz = &step;
    a.control = &ctl;
    a.iter = iter;
    a.emset = emset;
    a.dloglik = dloglik;
    a.tgamma = span<int>(tg.data(), tg.size());
    a.rgmstr = span<int>(rg.data(), rg.size());
    a.gmcstr = span<const int>(gm.data(), gm.size());
    a.lower = span<const double>(lower.data(), lower.size());
    a.struc = span<const int>(struc.data(), struc.size());
    a.lstruc = lstruc;
    a.nstruc = nstruc;
    a.gequal = span<const int>(gequal.data(), gequal.size());
    a.gmcon = span<const double>(gmcon.data(), gmcon.size());
    a.ngmcon = ngmcon;
    a.em = span<const UsEmData>(em.data(), em.size());
    a.aiinv = span<double>(aiinv.data(), aiinv.size());
    a.work = span<double>(work.data(), work.size());
    a.debug = debug;
    ifault = 0;
    return g5vupd(a, ifault);
  }
};

// One parameter with AI = 1, so that its step t = score * StepSz; returns
// the new value.
double one(double g, double t, int tgamma = 1, int rgmstr = 0, double prev = 0.0,
           double step = 0.5, int* rg_out = nullptr, double* step_out = nullptr,
           double ai = 1.0) {
  Problem pr(1);
  pr.gam[0] = g;
  pr.p1[0] = prev;
  pr.tg[0] = tgamma;
  pr.rg[0] = rgmstr;
  pr.step = step;
  pr.set_diag_ai(ai);
  pr.sc[0] = t / step * ai;
  EXPECT_EQ(pr.run(), 0);
  if (rg_out) *rg_out = pr.rg[0];
  if (step_out) *step_out = pr.step;
  return pr.gam[0];
}

// Dense inverse by Gauss-Jordan with partial pivoting (n x n, by rows).
std::vector<double> dense_inverse(std::vector<double> a, int n) {
  std::vector<double> inv(n * n, 0.0);
  for (int i = 0; i < n; ++i) inv[i * n + i] = 1.0;
  for (int c = 0; c < n; ++c) {
    int piv = c;
    for (int r = c + 1; r < n; ++r)
      if (std::fabs(a[r * n + c]) > std::fabs(a[piv * n + c])) piv = r;
    for (int j = 0; j < n; ++j) {
      std::swap(a[c * n + j], a[piv * n + j]);
      std::swap(inv[c * n + j], inv[piv * n + j]);
    }
    const double d = a[c * n + c];
    for (int j = 0; j < n; ++j) {
      a[c * n + j] /= d;
      inv[c * n + j] /= d;
    }
    for (int r = 0; r < n; ++r) {
      if (r == c) continue;
      const double f = a[r * n + c];
      for (int j = 0; j < n; ++j) {
        a[r * n + j] -= f * a[c * n + j];
        inv[r * n + j] -= f * inv[c * n + j];
      }
    }
  }
  return inv;
}

const std::vector<std::vector<double>> kA6 = {
    {4.0, 1.0, 0.5, 0.2, 0.1, 0.3},  {1.0, 3.0, 0.4, 0.1, 0.2, 0.1},
    {0.5, 0.4, 5.0, 0.6, 0.3, 0.2},  {0.2, 0.1, 0.6, 2.5, 0.4, 0.5},
    {0.1, 0.2, 0.3, 0.4, 3.5, 0.7},  {0.3, 0.1, 0.2, 0.5, 0.7, 4.5}};

}  // namespace

// ---- variances and general elements -------------------------------------

TEST(UpdateRules, VarianceMovesAndBounds) {
  // At exactly 0 a variance moves a third of its step.
  EXPECT_DOUBLE_EQ(one(0.0, 0.6), 0.2);
  EXPECT_DOUBLE_EQ(one(0.0, -0.6), -0.2);
  // A rise of more than sqrt(250) times is cut to that factor; less is not.
  EXPECT_DOUBLE_EQ(one(0.01, 1.0), 0.01 * kSqrt250);
  EXPECT_DOUBLE_EQ(one(0.01, 0.1), 0.11);
  // A fall with g + t still positive stops at g / sqrt(250) ...
  EXPECT_DOUBLE_EQ(one(1.0, -0.99), 1.0 / kSqrt250);
  EXPECT_DOUBLE_EQ(one(1.0, -0.5), 0.5);
  EXPECT_NEAR(kSqrt250, kS, 1e-6);
  // ... and in the boundary case with g above a tenth of its standard error.
  EXPECT_DOUBLE_EQ(one(1.0, -3.0), 1.0 / kSqrt250);
  // A tgamma 4 parameter may go negative, at most to -0.3 g.
  EXPECT_DOUBLE_EQ(one(1.0, -3.0, 4), -f32(0.3));
  EXPECT_DOUBLE_EQ(one(1.0, -1.1, 4), 1.0 - 1.1);
  // Negative values of a variance kind.
  EXPECT_DOUBLE_EQ(one(-0.5, 0.25), -0.25);                // t above g
  EXPECT_DOUBLE_EQ(one(-0.5, -0.6), -0.8);                 // g + 0.5t, g + t below -0.99
  EXPECT_DOUBLE_EQ(one(-0.9, -0.95), -0.99);               // held at -0.99
  EXPECT_DOUBLE_EQ(one(-0.05, -0.2), -0.15);               // g + 0.5t, above 10g
  EXPECT_DOUBLE_EQ(one(-0.01, -0.2), -0.1);                // held at 10g
  EXPECT_DOUBLE_EQ(one(-1.0, 0.5), -0.5);
  EXPECT_DOUBLE_EQ(one(-1.0, -1.0), -1.0 - f32(0.7));
  EXPECT_DOUBLE_EQ(one(-1.0, -20.0), -10.0);
  // Negative values of other kinds are kept between 100g and g - 100g.
  EXPECT_DOUBLE_EQ(one(-0.01, 5.0, 9), 0.99);
  EXPECT_DOUBLE_EQ(one(-0.01, -5.0, 9), -1.0);
  EXPECT_DOUBLE_EQ(one(-0.01, 0.5, 9), 0.49);
  // A held parameter does not move.
  EXPECT_DOUBLE_EQ(one(2.0, 1.0, 1, 4), 2.0);
}

TEST(UpdateRules, BoundaryCaseFixesOrAsksForEm) {
  int rg = 0;
  // se = 1 (AI 1): g = 5e-5 is neither above 0.1 se nor above 1e-4.
  // p well away from q / sqrt(250): an EM step is wanted.
  double v = one(5e-5, -1.0, 1, 0, 1.0, 0.5, &rg);
  EXPECT_DOUBLE_EQ(v, 5e-5 / kSqrt250);
  EXPECT_EQ(rg, 77);
  // q / sqrt(250) equal to p and p below 1e-4 se: fixed.
  v = one(5e-5, -1.0, 1, 0, 5e-5 * kSqrt250, 0.5, &rg);
  EXPECT_DOUBLE_EQ(v, 5e-5 / kSqrt250);
  EXPECT_EQ(rg, 7);
  // p below 1e-6: fixed whatever q.
  one(5e-7, -1.0, 1, 0, 1.0, 0.5, &rg);
  EXPECT_EQ(rg, 7);
  // rgmstr 2 with p below 1e-5: fixed.
  one(5e-6, -1.0, 1, 2, 1.0, 0.5, &rg);
  EXPECT_EQ(rg, 7);
  one(5e-6, -1.0, 1, 1, 1.0, 0.5, &rg);
  EXPECT_EQ(rg, 77);
  // g above 1e-4 with StepSz below 0.99 falls by the factor.
  EXPECT_DOUBLE_EQ(one(5e-4, -1.0), 5e-4 / kSqrt250);
  // Other kinds: a fifth of the step, the step at least -0.5.
  EXPECT_DOUBLE_EQ(one(5e-5, -1.0, 9), 5e-5 + f32(0.2) * -0.5);
  // tgamma 7 or rgmstr 3 below se: a small step through zero.
  EXPECT_DOUBLE_EQ(one(5e-5, -1.0, 7), -5e-5 * 0.5);
  EXPECT_DOUBLE_EQ(one(5e-5, -1.0, 1, 3), -5e-5 * 0.5);
}

TEST(UpdateRules, UnitIntervalAndLowerBound) {
  int rg = 0;
  // tgamma 5: above 0.999 pulled back below it; fixed once p was there.
  EXPECT_DOUBLE_EQ(one(0.5, 0.6, 5, 0, 0.0, 0.5, &rg), 0.1 * 0.5 + 0.8999099761605263);
  EXPECT_EQ(rg, 0);
  one(0.9995, 0.1, 5, 0, 0.0, 0.5, &rg);
  EXPECT_EQ(rg, 7);
  EXPECT_DOUBLE_EQ(one(0.5, -0.6, 5, 0, 0.0, 0.5, &rg), 0.05);
  EXPECT_EQ(rg, 0);
  one(1e-7, -0.6, 5, 0, 0.0, 0.5, &rg);
  EXPECT_EQ(rg, 7);
  // tgamma 8 with a lower bound.
  Problem pr(1);
  pr.tg[0] = 8;
  pr.lower = {2.0};
  pr.gam[0] = 3.0;
  pr.sc[0] = -4.0;  // t = -2 at StepSz 0.5
  ASSERT_EQ(pr.run(), 0);
  EXPECT_DOUBLE_EQ(pr.gam[0], (2.0 * 2.0 + 3.0) / 3.0);
  pr.gam[0] = 3.0;
  pr.sc[0] = -1.0;
  ASSERT_EQ(pr.run(), 0);
  EXPECT_DOUBLE_EQ(pr.gam[0], 2.5);
}

// ---- correlations -----------------------------------------------------------

TEST(UpdateRules, CorrelationRules) {
  int rg = 0;
  double st = 0;
  // A step is limited to 0.3.
  EXPECT_DOUBLE_EQ(one(0.1, 0.5, 3), 0.4);
  EXPECT_DOUBLE_EQ(one(0.1, -0.5, 3), -0.2);
  // At most a third of the way to +-1, and the step size is cut.
  EXPECT_DOUBLE_EQ(one(0.6, 0.3, 3, 0, 0.0, 0.5, &rg, &st), (0.6 + 2.0) / 3.0);
  EXPECT_DOUBLE_EQ(st, 0.5 * 0.5 + f32(0.01));
  EXPECT_DOUBLE_EQ(one(-0.6, -0.3, 3), (-0.6 - 2.0) / 3.0);
  // 0.999 and not moving: fixed.
  one(0.999, 0.0, 3, 0, 0.5, 0.5, &rg);
  EXPECT_EQ(rg, 7);
  one(0.998, 0.0, 3, 0, 0.5, 0.5, &rg);
  EXPECT_EQ(rg, 0);
  // Outward for three iterations beyond 0.9999: held at p and fixed.
  EXPECT_DOUBLE_EQ(one(0.99995, 0.00001, 3, 0, 0.99992, 0.5, &rg), 0.99995);
  EXPECT_EQ(rg, 7);
  // Moving inward there is no such rule.
  EXPECT_DOUBLE_EQ(one(0.99995, -0.00001, 3, 0, 0.99992, 0.5, &rg), 0.99994);
  EXPECT_EQ(rg, 0);
  // Back to the value of two iterations ago by more than 0.29: oscillation.
  const double v = one(0.125, 0.296875, 3, 0, 0.421875, 0.5, &rg, &st);
  EXPECT_DOUBLE_EQ(v, (0.125 + 0.421875) / 2.0);
  EXPECT_DOUBLE_EQ(st, 0.5 / 3.0);
  // The same return by less than 0.29 is not an oscillation.
  EXPECT_DOUBLE_EQ(one(0.25, 0.25, 3, 0, 0.5, 0.5, &rg, &st), 0.5);
  EXPECT_DOUBLE_EQ(st, 0.5);
}

// ---- restart of the pass -----------------------------------------------------

TEST(UpdatePass, ModifiedFirstParameterRestartsAtHalfStep) {
  // Parameter 2 is cut; at StepSz 1 the whole pass restarts at 0.5.
  Problem pr(2);
  pr.gam = {1.0, 0.01};
  pr.sc = {0.2, 10.0};
  pr.step = 1.0;
  pr.debug = true;
  tarnel_test::capture_begin();
  ASSERT_EQ(pr.run(), 0);
  const std::string out = tarnel_test::capture_end();
  EXPECT_DOUBLE_EQ(pr.step, 0.5);
  EXPECT_DOUBLE_EQ(pr.gam[0], 1.1);  // re-done with the halved step
  EXPECT_DOUBLE_EQ(pr.gam[1], 0.01 * kSqrt250);
  EXPECT_EQ(pr.ctl.nmodified, 1);
  EXPECT_NE(out.find("RESET STEPSZ"), std::string::npos);
  EXPECT_NE(out.find("  I II TGAM RGMSTR GAMMA_I    UPDATE    GAMMA_I+1    SQRT(AI(K+I))\n"),
            std::string::npos);
  EXPECT_NE(out.find("GAM <- c(1,0.01); SCR <- c("), std::string::npos);
  EXPECT_NE(out.find("); AIV <- c(1,0,1)\n"), std::string::npos);
  // At 0.5 there is no restart.
  Problem p2(2);
  p2.gam = {1.0, 0.01};
  p2.sc = {0.2, 10.0};
  p2.step = 0.5;
  ASSERT_EQ(p2.run(), 0);
  EXPECT_DOUBLE_EQ(p2.step, 0.5);
  EXPECT_DOUBLE_EQ(p2.gam[0], 1.1);
  EXPECT_EQ(p2.ctl.nmodified, 1);
  // Unmodified steps at StepSz 1 keep it.
  Problem p3(1);
  p3.sc = {0.5};
  p3.step = 1.0;
  ASSERT_EQ(p3.run(), 0);
  EXPECT_DOUBLE_EQ(p3.step, 1.0);
  EXPECT_DOUBLE_EQ(p3.gam[0], 1.5);
  EXPECT_EQ(p3.ctl.nmodified, 0);
}

TEST(UpdatePass, PreparationAndSlowCounter) {
  reset_update_state();
  Problem pr(3);
  pr.gam = {2.0, 1e-10, 3.0};
  pr.p1 = {0.0, 0.5, 4.0};
  pr.gm = {0, 1, 0};
  pr.sc = {0.0, 0.0, 0.0};
  pr.dloglik = -5.0;
  ASSERT_EQ(pr.run(), 0);
  // p takes the current values, q the last ones (0.975 p where q was 0).
  EXPECT_DOUBLE_EQ(pr.p1[0], 2.0);
  EXPECT_DOUBLE_EQ(pr.p2[0], f32(0.975) * 2.0);
  EXPECT_DOUBLE_EQ(pr.p2[2], 4.0);
  // A positive-coded parameter at zero is fixed from iteration 2.
  EXPECT_EQ(pr.rg[1], 7);
  EXPECT_EQ(pr.rg[0], 0);
  // A fall of the log-likelihood adds 5 to SLOW and 1 to FLAG4MIN.
  EXPECT_EQ(pr.ctl.slow, 5);
  EXPECT_EQ(update_state.flag4min, 4);
  pr.dloglik = 0.5;
  pr.ctl.slow = 8;
  ASSERT_EQ(pr.run(), 0);
  EXPECT_EQ(pr.ctl.slow, 6);  // loses a quarter
  // Iteration 1 resets the statics and leaves the zero parameter alone.
  Problem p1(1);
  p1.gam = {1e-10};
  p1.gm = {1};
  p1.iter = 1;
  ASSERT_EQ(p1.run(), 0);
  EXPECT_EQ(p1.rg[0], 0);
  EXPECT_EQ(update_state.flag4min, 3);
}

TEST(UpdatePass, NoInformationIsSetAside) {
  // Parameter 2 has a zero diagonal; parameter 3 repeats parameter 1.
  Problem pr(3);
  pr.set_ai({{2.0, 0.0, 0.0}, {0.0, 0.0, 0.0}, {2.0, 0.0, 2.0}});
  pr.sc = {0.2, 0.3, 0.4};
  ASSERT_EQ(pr.run(), 0);
  EXPECT_EQ(pr.rg[0], 0);
  EXPECT_EQ(pr.rg[1], 6);
  EXPECT_EQ(pr.rg[2], 6);
  EXPECT_DOUBLE_EQ(pr.gam[0], 1.0 + 0.5 * 0.1);
  EXPECT_DOUBLE_EQ(pr.gam[1], 1.0);
  EXPECT_DOUBLE_EQ(pr.gam[2], 1.0);
  EXPECT_EQ(pr.ctl.aicond, 1000);
}

// ---- the constrained inverse -------------------------------------------------

TEST(ConstrainedInverse, MatchesBorderedSystemAndReducedNewtonStep) {
  // Six parameters: 1 and 3 held equal, 5 held fixed, and the linear
  // constraint gamma2 + 2 gamma4 - gamma6 kept constant.
  Problem pr(6);
  pr.set_ai(kA6);
  pr.gam = {10, 20, 10, 30, 40, 50};
  pr.sc = {0.3, -0.2, 0.1, 0.4, 0.5, -0.3};
  pr.rg[4] = 4;
  pr.gequal = {1, 0, 1, 0, 0, 0};
  pr.gmcon = {0, 1, 0, 2, 0, -1};
  pr.ngmcon = 1;
  pr.step = 0.5;
  ASSERT_EQ(pr.run(), 0);
  ASSERT_EQ(pr.ctl.nmodified, 0);

  // Constraint rows C delta = 0: equality, fixed, linear.
  const std::vector<std::vector<double>> C = {
      {1, 0, -1, 0, 0, 0}, {0, 0, 0, 0, 1, 0}, {0, 1, 0, 2, 0, -1}};
  const int n = 6, r = 3, N = n + r;
  std::vector<double> bord(N * N, 0.0);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) bord[i * N + j] = kA6[i][j];
  for (int c = 0; c < r; ++c)
    for (int j = 0; j < n; ++j) bord[(n + c) * N + j] = bord[j * N + n + c] = C[c][j];
  const std::vector<double> inv = dense_inverse(bord, N);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j)
      EXPECT_NEAR(pr.aiinv[i * (i - 1) / 2 + j - 1], inv[(i - 1) * N + (j - 1)], 1e-12);

  // The reduced problem written out: free coordinates phi with
  // delta = K phi, K = columns (1,0,1,0,0,0), (0,1,0,0,0,1), (0,0,0,1,0,2).
  const std::vector<std::vector<double>> K = {{1, 0, 0}, {0, 1, 0}, {1, 0, 0},
                                              {0, 0, 1}, {0, 0, 0}, {0, 1, 2}};
  std::vector<double> kak(9, 0.0), ks(3, 0.0);
  for (int a = 0; a < 3; ++a) {
    for (int i = 0; i < n; ++i) ks[a] += K[i][a] * pr.sc[i];
    for (int b = 0; b < 3; ++b)
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) kak[a * 3 + b] += K[i][a] * kA6[i][j] * K[j][b];
  }
  const std::vector<double> kinv = dense_inverse(kak, 3);
  const std::vector<double> g0 = {10, 20, 10, 30, 40, 50};
  for (int i = 0; i < n; ++i) {
    double d = 0.0;
    for (int a = 0; a < 3; ++a)
      for (int b = 0; b < 3; ++b) d += K[i][a] * kinv[a * 3 + b] * ks[b];
    EXPECT_NEAR(pr.gam[i], g0[i] + 0.5 * d, 1e-12) << "parameter " << i + 1;
  }
  EXPECT_DOUBLE_EQ(pr.gam[0], pr.gam[2]);
  EXPECT_DOUBLE_EQ(pr.gam[4], 40.0);
  EXPECT_NEAR(pr.gam[1] + 2 * pr.gam[3] - pr.gam[5], 20 + 60 - 50, 1e-12);
  EXPECT_EQ(pr.ctl.aicond, 1000);
}

TEST(ConstrainedInverse, UnconstrainedIsTheInverseAndDependentConstraintsAddNothing) {
  Problem pr(6);
  pr.set_ai(kA6);
  pr.gam.assign(6, 100.0);
  ASSERT_EQ(pr.run(), 0);
  std::vector<double> dense(36);
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 6; ++j) dense[i * 6 + j] = kA6[i][j];
  const std::vector<double> inv = dense_inverse(dense, 6);
  for (int i = 1; i <= 6; ++i)
    for (int j = 1; j <= i; ++j)
      EXPECT_NEAR(pr.aiinv[i * (i - 1) / 2 + j - 1], inv[(i - 1) * 6 + j - 1], 1e-13);
  // Two copies of one constraint and a group held by a fixed member.
  Problem p2(6);
  p2.set_ai(kA6);
  p2.gam.assign(6, 100.0);
  p2.sc = {1, 1, 1, 1, 1, 1};
  p2.gequal = {0, 2, 0, 0, 2, 0};
  p2.rg[4] = 7;
  p2.gmcon = {1, 0, 0, -1, 0, 0, 2, 0, 0, -2, 0, 0};
  p2.ngmcon = 2;
  ASSERT_EQ(p2.run(), 0);
  EXPECT_DOUBLE_EQ(p2.gam[1], 100.0);
  EXPECT_DOUBLE_EQ(p2.gam[4], 100.0);
  EXPECT_NEAR(p2.gam[0], p2.gam[3], 1e-12);
  EXPECT_NE(p2.gam[0], 100.0);
  EXPECT_EQ(p2.ctl.aicond, 1000);
}

TEST(ConstrainedInverse, BadInputAndShortWorkspace) {
  Problem pr(2);
  pr.wvpar = {1, 3};
  EXPECT_EQ(pr.run(), 1);
  EXPECT_EQ(pr.ifault, 1);
  Problem p5(2);
  p5.wvpar = {2, 2};
  EXPECT_EQ(p5.run(), 1);
  EXPECT_EQ(p5.ifault, 1);
  Problem p2(2);
  p2.gequal = {1};
  EXPECT_EQ(p2.run(), 1);
  EXPECT_EQ(p2.ifault, 1);
  Problem p3(2);
  p3.work.assign(3, 0.0);
  EXPECT_EQ(p3.run(), 1);
  EXPECT_EQ(p3.ifault, 6);
  Problem p4(2);
  p4.gmcon = {1.0};
  p4.ngmcon = 1;
  EXPECT_EQ(p4.run(), 1);
  EXPECT_EQ(p4.ifault, 1);
  clear_message_store();
}

// ---- convergence on a quadratic ------------------------------------------------

TEST(UpdateConvergence, QuadraticLogLikelihoodReachesItsOptimum) {
  // l(theta) = -1/2 (theta - t*)' A (theta - t*): scores A (t* - theta), AI A.
  const std::vector<double> opt = {2.0, 0.5, 1.5, 0.4, 3.0, 0.8};
  Problem pr(6);
  pr.set_ai(kA6);
  pr.tg = {1, 1, 1, 3, 1, 1};
  pr.gam = {0.1, 4.0, 0.0, -0.2, 60.0, 0.001};
  pr.step = 1.0;
  for (int it = 1; it <= 80; ++it) {
    pr.iter = it;
    for (int i = 0; i < 6; ++i) {
      pr.sc[i] = 0.0;
      for (int j = 0; j < 6; ++j) pr.sc[i] += kA6[i][j] * (opt[j] - pr.gam[j]);
    }
    ASSERT_EQ(pr.run(), 0);
  }
  for (int i = 0; i < 6; ++i) EXPECT_NEAR(pr.gam[i], opt[i], 1e-9) << "parameter " << i + 1;
  EXPECT_EQ(pr.ctl.nmodified, 0);
}

// ---- EM fallback ----------------------------------------------------------------

TEST(UpdateEm, UsSectionTakesTheEmMatrix) {
  // One US section of order 2, parameters 1..3; q = 10 effects.
  const std::vector<double> ssp = {30.0, 6.0, 12.0}, cinv = {5.0, 1.0, 3.0};
  auto make = [&](Problem& pr) {
    pr.gam = {2.0, 0.5, 1.0};
    pr.rg = {1, 0, 1};
    pr.struc.assign(15, 0);
    pr.struc[0] = 2;  // order
    pr.struc[1] = 3;  // npar
    pr.struc[2] = 9;  // US
    pr.struc[3] = 1;  // first parameter
    pr.nstruc = 1;
    pr.em = {UsEmData{1, 10, span<const double>(ssp.data(), 3), span<const double>(cinv.data(), 3)}};
  };
  // A full EM iteration (iteration within a tenth of the EM setting).
  Problem pr(3);
  make(pr);
  pr.iter = 1;
  pr.emset = 10;
  ASSERT_EQ(pr.run(), 0);
  EXPECT_DOUBLE_EQ(pr.gam[0], 3.5);
  EXPECT_DOUBLE_EQ(pr.gam[1], 0.7);
  EXPECT_DOUBLE_EQ(pr.gam[2], 1.5);
  EXPECT_EQ(pr.ctl.emiter, 1);
  EXPECT_DOUBLE_EQ(update_state.prevstepsz, f32(0.1));  // EM step on iteration 1

  // A single step through the scores: with the REML scores of this model,
  // dl/dG = 1/2 (G^-1 (ssp + cinv) G^-1 - q G^-1), the step gives the same
  // EM matrix.  The last parameter asks for it with rgmstr 51.
  Problem p2(3);
  make(p2);
  p2.rg[2] = 51;
  // G = (2, 0.5; 0.5, 1)
  const double det = 2.0 * 1.0 - 0.25;
  const double Gi[2][2] = {{1.0 / det, -0.5 / det}, {-0.5 / det, 2.0 / det}};
  const double M[2][2] = {{35.0, 7.0}, {7.0, 15.0}};
  double S[2][2];
  for (int i = 0; i < 2; ++i)
    for (int j = 0; j < 2; ++j) {
      double t = 0.0;
      for (int k = 0; k < 2; ++k)
        for (int l = 0; l < 2; ++l) t += Gi[i][k] * M[k][l] * Gi[l][j];
      S[i][j] = 0.5 * (t - 10.0 * Gi[i][j]);
    }
  p2.sc = {S[0][0], 2.0 * S[1][0], S[1][1]};
  p2.debug = true;
  tarnel_test::capture_begin();
  ASSERT_EQ(p2.run(), 0);
  const std::string out = tarnel_test::capture_end();
  for (const char* word : {"Calling EMU-A", "Single step EM Update using Score", " UScore",
                           " USprev", " USAI  ", " USEM  ", "CALLING EMU-B"})
    EXPECT_NE(out.find(word), std::string::npos) << word;
  EXPECT_NEAR(p2.gam[0], 3.5, 1e-12);
  EXPECT_NEAR(p2.gam[1], 0.7, 1e-12);
  EXPECT_NEAR(p2.gam[2], 1.5, 1e-12);
  EXPECT_EQ(p2.ctl.emiter, 2);
}

TEST(UpdateEm, IndefiniteResultRegressesBackAndConstrainedSectionIsRefused) {
  const std::vector<double> ssp = {10.0, 40.0, 10.0}, cinv = {0.0, 0.0, 0.0};
  Problem pr(3);
  pr.gam = {2.0, 0.5, 1.0};
  pr.rg = {1, 0, 1};
  pr.struc.assign(15, 0);
  pr.struc[0] = 2;
  pr.struc[1] = 3;
  pr.struc[2] = 9;
  pr.struc[3] = 1;
  pr.nstruc = 1;
  pr.em = {UsEmData{1, 10, span<const double>(ssp.data(), 3), span<const double>(cinv.data(), 3)}};
  pr.iter = 1;
  pr.emset = 10;
  tarnel_test::capture_begin();
  ASSERT_EQ(pr.run(), 0);
  const std::string out = tarnel_test::capture_end();
  // EM matrix (1, 4, 1) is indefinite; the mean with (2, 0.5, 1) is
  // (1.5, 2.25, 1), then (1.75, 1.375, 1), both still indefinite; then
  // (1.875, 0.9375, 1), accepted.
  EXPECT_DOUBLE_EQ(pr.gam[0], 1.875);
  EXPECT_DOUBLE_EQ(pr.gam[1], 0.9375);
  EXPECT_DOUBLE_EQ(pr.gam[2], 1.0);
  EXPECT_NE(out.find(" US regressed back"), std::string::npos);

  // A diagonal with a code other than 1 or above 9: no EM step.
  clear_message_store();
  Problem p2(3);
  p2.gam = {2.0, 0.5, 1.0};
  p2.rg = {1, 0, 3};
  p2.struc = pr.struc;
  p2.nstruc = 1;
  p2.em = pr.em;
  p2.iter = 1;
  p2.emset = 10;
  ASSERT_EQ(p2.run(), 0);
  EXPECT_DOUBLE_EQ(p2.gam[0], 2.0);
  EXPECT_EQ(message_text(0), "No EM update of constrained US structure");
  clear_message_store();
}

// ---- history ring and convergence test ------------------------------------------

TEST(RunDriver, HistoryRingWrapsAndPullsBack) {
  const int ng = 2;
  std::vector<double> hist(7 * ng, 0.0), cur = {0.0, 0.0};
  int k = 0, flag = 0, ifault = 0;
  for (int it = 1; it <= 7; ++it) {
    const std::vector<double> g = {double(it), 0.0};
    ASSERT_EQ(keepgammas(span<double>(hist.data(), hist.size()), span<const double>(g.data(), 2),
                         span<double>(cur.data(), 2), ng, k, flag, 0, ifault), 0);
    EXPECT_EQ(k, it < 7 ? it : 2);
    EXPECT_EQ(flag, it < 7 ? 0 : 6);
  }
  EXPECT_DOUBLE_EQ(hist[0], 1.0);        // column 1 keeps the first values
  EXPECT_DOUBLE_EQ(hist[1 * ng], 7.0);   // column 2 overwritten on the wrap
  EXPECT_DOUBLE_EQ(hist[5 * ng], 6.0);
  // Pulling back: only parameters whose column-1 value is nonzero move.
  const std::vector<double> g = {17.0, 5.0};
  cur = {-1.0, -1.0};
  ASSERT_EQ(keepgammas(span<double>(hist.data(), hist.size()), span<const double>(g.data(), 2),
                       span<double>(cur.data(), 2), ng, k, flag, 1, ifault), 0);
  EXPECT_DOUBLE_EQ(cur[0], 0.10000002384185791 * 17.0 + 0.8999999761581421 * 7.0);
  EXPECT_DOUBLE_EQ(cur[1], -1.0);
  EXPECT_NEAR(cur[0], 0.1 * 17 + 0.9 * 7, 1e-6);
  // Short history: a fault, not a write out of bounds.
  EXPECT_EQ(keepgammas(span<double>(hist.data(), 5), span<const double>(g.data(), 2),
                       span<double>(cur.data(), 2), ng, k, flag, 0, ifault), 1);
  clear_message_store();
}

TEST(RunDriver, ConvergenceTestBranches) {
  ConvergenceInput in;
  in.ngamma = 5;
  in.nfrstg = 1;
  in.quick = 1;
  ConvergenceState st;
  // The last iteration is not tested.
  in.last_iteration = true;
  EXPECT_EQ(convergence_test(in, st).action, ConvergenceAction::kSkipped);
  in.last_iteration = false;
  // Nothing to estimate: converged at once, but not for a GLM.
  in.nfrstg = 5;
  EXPECT_EQ(convergence_test(in, st).action, ConvergenceAction::kStop);
  in.id = 2;
  in.loglik = -100.0;
  EXPECT_EQ(convergence_test(in, st).action, ConvergenceAction::kLoop);
  in.id = 1;
  in.nfrstg = 1;
  // Quick test: the bound is the single-precision product iter * 0.002.
  st = ConvergenceState{};
  in.iter = 1;
  in.last_loglik = 0.0;
  in.loglik = -0.002;
  ConvergenceResult r = convergence_test(in, st);
  EXPECT_TRUE(r.converged);
  EXPECT_EQ(r.action, ConvergenceAction::kStop);
  // ... held back while more than one parameter moves (s is stored).
  in.moving = 2;
  st = ConvergenceState{};
  r = convergence_test(in, st);
  EXPECT_EQ(r.action, ConvergenceAction::kLoop);
  EXPECT_DOUBLE_EQ(st.s, -0.002);
  in.moving = 0;
  // Not quick (no AI condition 1000): the change of loglik + restraints.
  in.aicond = 1000;
  in.quick = 0;
  st = ConvergenceState{};
  st.s = -100.0;
  in.loglik = -99.9995;
  in.last_loglik = -100.0;
  EXPECT_TRUE(convergence_test(in, st).converged);
  in.loglik = -99.99;
  st.s = -100.0;
  EXPECT_EQ(convergence_test(in, st).action, ConvergenceAction::kLoop);
  EXPECT_DOUBLE_EQ(st.change, -99.99 + 100.0);
  in.restrained = 1;  // s includes the restraint count
  in.loglik = -100.9995;
  st.s = -100.0;
  EXPECT_TRUE(convergence_test(in, st).converged);
  in.restrained = 0;
  in.loglik = -100.0;
  st.s = -100.0;
  in.aicond = 900;  // a step that was not normal
  EXPECT_EQ(convergence_test(in, st).action, ConvergenceAction::kLoop);
  in.aicond = 1000;
  // Converged with predictions asked for: one further last iteration.
  in.predict = true;
  st.s = -100.0;
  r = convergence_test(in, st);
  EXPECT_TRUE(r.converged);
  EXPECT_EQ(r.action, ConvergenceAction::kFurtherIteration);
}
