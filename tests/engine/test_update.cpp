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
#include "variance_support.h"

using namespace tarnel;

namespace {

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
    a.gammas = {gam.data(), gam.size()};
    a.prev1 = {p1.data(), p1.size()};
    a.prev2 = {p2.data(), p2.size()};
    a.ai = {ai.data(), ai.size()};
    a.score = {sc.data(), sc.size()};
    a.wvpar = {wvpar.data(), wvpar.size()};
    a.stepsz = &step;
    a.control = &ctl;
    a.iter = iter;
    a.emset = emset;
    a.dloglik = dloglik;
    a.tgamma = {tg.data(), tg.size()};
    a.rgmstr = {rg.data(), rg.size()};
    a.gmcstr = {gm.data(), gm.size()};
    a.lower = {lower.data(), lower.size()};
    a.struc = {struc.data(), struc.size()};
    a.lstruc = lstruc;
    a.nstruc = nstruc;
    a.gequal = {gequal.data(), gequal.size()};
    a.gmcon = {gmcon.data(), gmcon.size()};
    a.ngmcon = ngmcon;
    a.em = {em.data(), em.size()};
    a.aiinv = {aiinv.data(), aiinv.size()};
    a.work = {work.data(), work.size()};
    a.debug = debug;
    ifault = 0;
    return g5vupd(a, ifault);
  }
};

const std::vector<std::vector<double>> kA6 = {
    {4.0, 1.0, 0.5, 0.2, 0.1, 0.3},  {1.0, 3.0, 0.4, 0.1, 0.2, 0.1},
    {0.5, 0.4, 5.0, 0.6, 0.3, 0.2},  {0.2, 0.1, 0.6, 2.5, 0.4, 0.5},
    {0.1, 0.2, 0.3, 0.4, 3.5, 0.7},  {0.3, 0.1, 0.2, 0.5, 0.7, 4.5}};

}  // namespace

// ---- the rules by kind of parameter ---------------------------------------

// One parameter, AI 1, StepSz 0.5: g, its step t, tgamma, rgmstr, the last
// value (q after the shift), and the expected value and rgmstr.
struct RuleCase {
  const char* what;
  double g, t;
  int tgamma, rgmstr;
  double prev, expect;
  int expect_rg;
};

TEST(UpdateRules, EveryKindAndItsBoundaryCases) {
  const double r = kSqrt250;
  const RuleCase cases[] = {
      {"variance at 0 moves a third", 0.0, 0.6, 1, 0, 0, 0.2, 0},
      {"rise cut at sqrt(250) times", 0.01, 1.0, 1, 0, 0, 0.01 * r, 0},
      {"rise below the bound", 0.01, 0.1, 1, 0, 0, 0.11, 0},
      {"fall stops at g/sqrt(250)", 1.0, -0.99, 1, 0, 0, 1.0 / r, 0},
      {"fall within the bound", 1.0, -0.5, 1, 0, 0, 0.5, 0},
      {"boundary, g above se/10", 1.0, -3.0, 1, 0, 0, 1.0 / r, 0},
      {"tgamma 4 below 0 by 0.3g", 1.0, -3.0, 4, 0, 0, -f32(0.3), 0},
      {"tgamma 4 within", 1.0, -1.1, 4, 0, 0, 1.0 - 1.1, 0},
      {"boundary, EM wanted", 5e-5, -1.0, 1, 0, 1.0, 5e-5 / r, 77},
      {"boundary, d 0: fixed", 5e-5, -1.0, 1, 0, 5e-5 * r, 5e-5 / r, 7},
      {"boundary, p below 1e-6", 5e-7, -1.0, 1, 0, 1.0, 5e-7 / r, 7},
      {"boundary, rgmstr 2", 5e-6, -1.0, 1, 2, 1.0, 5e-6 / r, 7},
      {"boundary, g above 1e-4 at StepSz 0.5", 5e-4, -1.0, 1, 0, 0, 5e-4 / r, 0},
      {"boundary, other kind", 5e-5, -1.0, 9, 0, 0, 5e-5 + f32(0.2) * -0.5, 0},
      {"boundary, tgamma 7", 5e-5, -1.0, 7, 0, 0, -5e-5 * 0.5, 0},
      {"boundary, rgmstr 3", 5e-5, -1.0, 1, 3, 0, -5e-5 * 0.5, 3},
      {"negative, t above g", -0.5, 0.25, 1, 0, 0, -0.25, 0},
      {"negative, g+0.5t", -0.5, -0.6, 1, 0, 0, -0.8, 0},
      {"negative, held at -0.99", -0.9, -0.95, 1, 0, 0, -0.99, 0},
      {"negative, held at 10g", -0.01, -0.2, 1, 0, 0, -0.1, 0},
      {"below -0.99, rising", -1.0, 0.5, 1, 0, 0, -0.5, 0},
      {"below -0.99, 0.7t", -1.0, -1.0, 1, 0, 0, -1.0 - f32(0.7), 0},
      {"negative other kind, top", -0.01, 5.0, 9, 0, 0, 0.99, 0},
      {"negative other kind, bottom", -0.01, -5.0, 9, 0, 0, -1.0, 0},
      {"held", 2.0, 1.0, 1, 4, 0, 2.0, 4},
      {"unit interval, above", 0.5, 0.6, 5, 0, 0, 0.05 + 0.8999099761605263, 0},
      {"unit interval, fixed above", 0.9995, 0.1, 5, 0, 0, 0.09995 + 0.8999099761605263, 7},
      {"unit interval, below", 0.5, -0.6, 5, 0, 0, 0.05, 0},
      {"unit interval, fixed below", 1e-7, -0.6, 5, 0, 0, 1e-8, 7},
      {"correlation step limit", 0.1, 0.5, 3, 0, 0, 0.4, 0},
      {"correlation third of the way", -0.6, -0.3, 3, 0, 0, -2.6 / 3.0, 0},
      {"correlation 0.999 still: fixed", 0.999, 0.0, 3, 0, 0.5, 0.999, 7},
      {"correlation 0.998 still", 0.998, 0.0, 3, 0, 0.5, 0.998, 0},
      {"correlation outward thrice", 0.99995, 1e-5, 3, 0, 0.99992, 0.99995, 7},
      {"correlation inward", 0.99995, -1e-5, 3, 0, 0.99992, 0.99994, 0},
      {"correlation oscillates", 0.125, 0.296875, 3, 0, 0.421875, (0.125 + 0.421875) / 2, 0},
      {"correlation returns by 0.25", 0.25, 0.25, 3, 0, 0.5, 0.5, 0},
  };
  for (const RuleCase& c : cases) {
    Problem pr(1);
    pr.gam[0] = c.g;
    pr.p1[0] = c.prev;
    pr.tg[0] = c.tgamma;
    pr.rg[0] = c.rgmstr;
    pr.sc[0] = c.t / 0.5;
    ASSERT_EQ(pr.run(), 0) << c.what;
    EXPECT_NEAR(pr.gam[0], c.expect, 1e-15) << c.what;
    EXPECT_EQ(pr.rg[0], c.expect_rg) << c.what;
  }
}

TEST(UpdateRules, StepSizeChangesAndLowerBound) {
  Problem pr(1);  // a correlation moving beyond a third of the way
  pr.tg[0] = 3;
  pr.gam[0] = 0.6;
  pr.sc[0] = 0.6;
  ASSERT_EQ(pr.run(), 0);
  EXPECT_DOUBLE_EQ(pr.gam[0], 2.6 / 3.0);
  EXPECT_DOUBLE_EQ(pr.step, 0.25 + f32(0.01));
  Problem po(1);  // an oscillating correlation divides it by 3
  po.tg[0] = 3;
  po.gam[0] = 0.125;
  po.p1[0] = 0.421875;
  po.sc[0] = 0.59375;
  ASSERT_EQ(po.run(), 0);
  EXPECT_DOUBLE_EQ(po.step, 0.5 / 3.0);
  Problem pl(1);  // tgamma 8 with a lower bound of 2
  pl.tg[0] = 8;
  pl.lower = {2.0};
  pl.gam[0] = 3.0;
  pl.sc[0] = -4.0;
  ASSERT_EQ(pl.run(), 0);
  EXPECT_DOUBLE_EQ(pl.gam[0], 7.0 / 3.0);
  pl.gam[0] = 3.0;
  pl.sc[0] = -1.0;
  ASSERT_EQ(pl.run(), 0);
  EXPECT_DOUBLE_EQ(pl.gam[0], 2.5);
}

TEST(UpdateRules, SmallLoadingIsPushedOutOnlyAboveTheRunLimit) {
  // A run of two loadings; the limit is 0.125 times the mean |p| (0.0625).
  for (double t : {0.5, 0.05}) {
    Problem pr(2);
    pr.tg = {6, 6};
    pr.gam = {1e-6, 1.0};
    pr.p1 = {2e-6, 1.0};
    pr.sc = {t / 0.5, 0.02};
    ASSERT_EQ(pr.run(), 0);
    EXPECT_DOUBLE_EQ(pr.gam[0], t > 0.0625 ? 1e-5 : 1e-6 + t);
    EXPECT_DOUBLE_EQ(pr.p1[0], t > 0.0625 ? 1e-5 : 1e-6);
    EXPECT_DOUBLE_EQ(pr.gam[1], 1.01);
  }
}

// ---- the pass ----------------------------------------------------------------

TEST(UpdatePass, RestartPreparationSlowCounterAndNoInformation) {
  // Parameter 2 is cut; at StepSz 1 the whole pass restarts at 0.5 ...
  for (double step : {1.0, 0.5}) {
    Problem pr(2);
    pr.gam = {1.0, 0.01};
    pr.sc = {0.2, 10.0};
    pr.step = step;
    pr.debug = true;
    tarnel_test::capture_begin();
    ASSERT_EQ(pr.run(), 0);
    const std::string out = tarnel_test::capture_end();
    EXPECT_DOUBLE_EQ(pr.step, 0.5);
    EXPECT_DOUBLE_EQ(pr.gam[0], 1.1);  // both at the step of 0.5
    EXPECT_DOUBLE_EQ(pr.gam[1], 0.01 * kSqrt250);
    EXPECT_EQ(pr.ctl.nmodified, 1);
    EXPECT_EQ(out.find("RESET STEPSZ") != std::string::npos, step == 1.0);  // ... at 0.5 not
    EXPECT_NE(out.find("\n  I II TGAM RGMSTR GAMMA_I    UPDATE    GAMMA_I+1    SQRT(AI(K+I))\n"),
              std::string::npos);
    EXPECT_EQ(out.find("GAM <- c(1,0.01); SCR <- c("), 0u);
    EXPECT_NE(out.find("); AIV <- c(1,0,1)\n"), std::string::npos);
  }
  // p takes the current values, q the last ones (0.975 p where q was 0); a
  // positive-coded parameter at zero is fixed from iteration 2 on.
  reset_update_state();
  Problem pr(3);
  pr.gam = {2.0, 1e-10, 3.0};
  pr.p1 = {0.0, 0.5, 4.0};
  pr.gm = {0, 1, 0};
  pr.dloglik = -5.0;
  ASSERT_EQ(pr.run(), 0);
  EXPECT_EQ(pr.p1, (std::vector<double>{2.0, 1e-10, 3.0}));
  EXPECT_EQ(pr.p2, (std::vector<double>{f32(0.975) * 2.0, 0.5, 4.0}));
  EXPECT_EQ(pr.rg, (std::vector<int>{0, 7, 0}));
  // A fall of the log-likelihood adds 5 to SLOW and 1 to FLAG4MIN; a rise
  // takes a quarter off SLOW.
  EXPECT_EQ(pr.ctl.slow, 5);
  EXPECT_EQ(update_state.flag4min, 4);
  pr.dloglik = 0.5;
  pr.ctl.slow = 8;
  ASSERT_EQ(pr.run(), 0);
  EXPECT_EQ(pr.ctl.slow, 6);
  pr.iter = 1;  // iteration 1 resets the statics
  ASSERT_EQ(pr.run(), 0);
  EXPECT_EQ(update_state.flag4min, 3);
  // No information on parameter 2; parameter 3 repeats parameter 1.
  Problem pn(3);
  pn.set_ai({{2.0, 0.0, 0.0}, {0.0, 0.0, 0.0}, {2.0, 0.0, 2.0}});
  pn.sc = {0.2, 0.3, 0.4};
  ASSERT_EQ(pn.run(), 0);
  EXPECT_EQ(pn.rg, (std::vector<int>{0, 6, 6}));
  EXPECT_EQ(pn.gam, (std::vector<double>{1.0 + 0.5 * 0.1, 1.0, 1.0}));
  // Row 3 is nearly rows 1 + 2: its pivot falls under the sweep's tolerance
  // and is set aside, though no diagonal or pair shows it.
  Problem ps(3);
  ps.set_ai({{1.1, 0.3, 1.4}, {0.3, 0.7, 1.0}, {1.4, 1.0, 2.4 + 1e-12}});
  ps.sc = {0.1, 0.1, 0.1};
  ASSERT_EQ(ps.run(), 0);
  EXPECT_EQ(ps.rg, (std::vector<int>{0, 0, 0}));
  EXPECT_EQ(ps.ctl.aicond, 667);
  EXPECT_EQ(ps.gam[2], 1.0);
}

// ---- the constrained inverse -------------------------------------------------

TEST(ConstrainedInverse, MatchesBorderedSystemAndReducedNewtonStep) {
  // 1 and 3 held equal, 5 fixed, gamma2 + 2 gamma4 - gamma6 and
  // gamma1 + gamma4 + gamma6 kept constant.
  Problem pr(6);
  pr.set_ai(kA6);
  const std::vector<double> g0 = {10, 20, 10, 30, 40, 50};
  pr.gam = g0;
  pr.sc = {0.3, -0.2, 0.1, 0.4, 0.5, -0.3};
  pr.rg[4] = 4;
  pr.gequal = {1, 0, 1, 0, 0, 0};
  pr.gmcon = {0, 1, 0, 2, 0, -1, 1, 0, 0, 1, 0, 1};
  pr.ngmcon = 2;
  ASSERT_EQ(pr.run(), 0);
  ASSERT_EQ(pr.ctl.nmodified, 0);
  EXPECT_EQ(pr.ctl.aicond, 1000);
  // The inverse is the top-left block of the inverse of [A C'; C 0].
  const double C[4][6] = {
      {1, 0, -1, 0, 0, 0}, {0, 0, 0, 0, 1, 0}, {0, 1, 0, 2, 0, -1}, {1, 0, 0, 1, 0, 1}};
  const int N = 10;
  std::vector<double> bord(N * N, 0.0);
  for (int i = 0; i < 6; ++i) {
    for (int j = 0; j < 6; ++j) bord[i * N + j] = kA6[i][j];
    for (int c = 0; c < 4; ++c) bord[(6 + c) * N + i] = bord[i * N + 6 + c] = C[c][i];
  }
  const std::vector<double> inv = vtest::inverse(bord, N);
  for (int i = 1; i <= 6; ++i)
    for (int j = 1; j <= i; ++j)
      EXPECT_NEAR(pr.aiinv[i * (i - 1) / 2 + j - 1], inv[(i - 1) * N + (j - 1)], 1e-12);
  // The reduced problem written out: delta = K phi with the free
  // combinations (1, 0, 1, -1/3, 0, -2/3) and (0, 1, 0, -1/3, 0, 1/3);
  // phi = (K'AK)^-1 K's.
  const double K[6][2] = {{1, 0}, {0, 1}, {1, 0}, {-1.0 / 3, -1.0 / 3}, {0, 0}, {-2.0 / 3, 1.0 / 3}};
  std::vector<double> kak(4, 0.0), ks(2, 0.0);
  for (int a = 0; a < 2; ++a)
    for (int i = 0; i < 6; ++i) {
      ks[a] += K[i][a] * pr.sc[i];
      for (int b = 0; b < 2; ++b)
        for (int j = 0; j < 6; ++j) kak[a * 2 + b] += K[i][a] * kA6[i][j] * K[j][b];
    }
  const std::vector<double> kinv = vtest::inverse(kak, 2);
  for (int i = 0; i < 6; ++i) {
    double d = 0.0;
    for (int a = 0; a < 2; ++a)
      for (int b = 0; b < 2; ++b) d += K[i][a] * kinv[a * 2 + b] * ks[b];
    EXPECT_NEAR(pr.gam[i], g0[i] + 0.5 * d, 1e-12) << "parameter " << i + 1;
  }
  // A repeated constraint adds nothing; a fixed member holds its group.
  Problem pd(6);
  pd.set_ai(kA6);
  pd.gam.assign(6, 100.0);
  pd.sc.assign(6, 1.0);
  pd.gequal = {0, 2, 0, 0, 2, 0};
  pd.rg[4] = 7;
  pd.gmcon = {1, 0, 0, -1, 0, 0, 2, 0, 0, -2, 0, 0};
  pd.ngmcon = 2;
  ASSERT_EQ(pd.run(), 0);
  EXPECT_EQ(pd.gam[1], 100.0);
  EXPECT_EQ(pd.gam[4], 100.0);
  EXPECT_NEAR(pd.gam[0], pd.gam[3], 1e-12);
  EXPECT_GT(pd.gam[0], 100.0);
}

TEST(ConstrainedInverse, BadInputAndShortWorkspace) {
  auto fault = [](Problem pr) {
    EXPECT_EQ(pr.run(), 1);
    return pr.ifault;
  };
  Problem p(2);
  p.wvpar = {1, 3};
  EXPECT_EQ(fault(p), 1);  // parameter out of range
  p.wvpar = {2, 2};
  EXPECT_EQ(fault(p), 1);  // one parameter, two rows
  p.wvpar = {1, 2};
  p.gequal = {1};
  EXPECT_EQ(fault(p), 1);  // gequal too short
  p.gequal = {};
  p.gmcon = {1.0};
  p.ngmcon = 1;
  EXPECT_EQ(fault(p), 1);  // gmcon too short
  p.gmcon = {};
  p.ngmcon = 0;
  p.work.assign(3, 0.0);
  EXPECT_EQ(fault(p), 6);  // scratch too small
  clear_message_store();
}

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
}

// ---- EM fallback ----------------------------------------------------------------

// One US section of order 2 on parameters 1..3, G = (2, 0.5; 0.5, 1), with
// q = 10 effects whose data give the EM matrix (ssp + cinv) / 10.
Problem us_problem(const std::vector<double>& ssp, const std::vector<double>& cinv) {
  Problem pr(3);
  pr.gam = {2.0, 0.5, 1.0};
  pr.rg = {1, 0, 1};
  pr.struc = {2, 3, 9, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  pr.nstruc = 1;
  pr.em = {UsEmData{1, 10, {ssp.data(), 3}, {cinv.data(), 3}}};
  pr.iter = 1;
  pr.emset = 10;  // iteration 1 is within a tenth of it: a full EM step
  return pr;
}

TEST(UpdateEm, FullAndSingleStepGiveTheEmMatrix) {
  const std::vector<double> ssp = {30.0, 6.0, 12.0}, cinv = {5.0, 1.0, 3.0};
  Problem pr = us_problem(ssp, cinv);
  ASSERT_EQ(pr.run(), 0);
  EXPECT_EQ(pr.gam, (std::vector<double>{3.5, 0.7, 1.5}));
  EXPECT_EQ(pr.ctl.emiter, 1);
  EXPECT_DOUBLE_EQ(update_state.prevstepsz, f32(0.1));
  // The single step through the scores, asked for by rgmstr 51 on the last
  // parameter: with the REML scores of this model,
  // dl/dG = 1/2 (G^-1 M G^-1 - q G^-1), M = ssp + cinv, it gives M / q.
  Problem p2 = us_problem(ssp, cinv);
  p2.iter = 2;
  p2.emset = 0;
  p2.rg[2] = 51;
  const double det = 1.75, Gi[2][2] = {{1.0 / det, -0.5 / det}, {-0.5 / det, 2.0 / det}};
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
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(p2.gam[k], pr.gam[k], 1e-12);
  EXPECT_EQ(p2.ctl.emiter, 2);
}

TEST(UpdateEm, IndefiniteResultRegressesBackAndConstrainedSectionIsRefused) {
  const std::vector<double> ssp = {10.0, 40.0, 10.0}, cinv = {0.0, 0.0, 0.0};
  Problem pr = us_problem(ssp, cinv);
  tarnel_test::capture_begin();
  ASSERT_EQ(pr.run(), 0);
  EXPECT_NE(tarnel_test::capture_end().find(" US regressed back"), std::string::npos);
  // EM matrix (1, 4, 1) is indefinite; means with (2, 0.5, 1): (1.5, 2.25, 1)
  // and (1.75, 1.375, 1) still are; (1.875, 0.9375, 1) is accepted.
  EXPECT_EQ(pr.gam, (std::vector<double>{1.875, 0.9375, 1.0}));
  // A diagonal coded other than 1 or above 9: no EM step.
  clear_message_store();
  Problem p2 = us_problem(ssp, cinv);
  p2.rg[2] = 3;
  ASSERT_EQ(p2.run(), 0);
  EXPECT_EQ(p2.gam, (std::vector<double>{2.0, 0.5, 1.0}));
  EXPECT_EQ(message_text(0), "No EM update of constrained US structure");
  clear_message_store();
}

// ---- history ring and convergence test ------------------------------------------

TEST(RunDriver, HistoryRingWrapsAndPullsBack) {
  std::vector<double> hist(14, 0.0), cur = {-1.0, -1.0}, g = {0.0, 0.0};
  int k = 0, flag = 0, ifault = 0;
  auto keep = [&](int mode, std::size_t len) {
    return keepgammas({hist.data(), len}, {g.data(), 2}, {cur.data(), 2}, 2, k, flag, mode, ifault);
  };
  for (int it = 1; it <= 7; ++it) {
    g[0] = it;
    ASSERT_EQ(keep(0, 14), 0);
    EXPECT_EQ(k, it < 7 ? it : 2);
    EXPECT_EQ(flag, it < 7 ? 0 : 6);
  }
  EXPECT_EQ(hist[0], 1.0);   // column 1 keeps the first values
  EXPECT_EQ(hist[2], 7.0);   // column 2 overwritten on the wrap
  EXPECT_EQ(hist[10], 6.0);
  // Pulling back moves only parameters whose column-1 value is nonzero.
  g = {17.0, 5.0};
  ASSERT_EQ(keep(1, 14), 0);
  EXPECT_DOUBLE_EQ(cur[0], 0.10000002384185791 * 17.0 + 0.8999999761581421 * 7.0);
  EXPECT_EQ(cur[1], -1.0);
  EXPECT_EQ(keep(0, 5), 1);  // a short history is a fault
  clear_message_store();
}

TEST(RunDriver, ConvergenceTestBranches) {
  ConvergenceInput in;
  in.ngamma = 5;
  in.nfrstg = 1;
  in.quick = 1;
  in.iter = 1;
  ConvergenceState st;
  auto test = [&](double loglik, double s0) {
    in.loglik = loglik;
    st.s = s0;
    return convergence_test(in, st);
  };
  in.last_iteration = true;
  EXPECT_EQ(test(0, 0).action, ConvergenceAction::kSkipped);
  in.last_iteration = false;
  in.nfrstg = 5;  // nothing to estimate: converged, but not for a GLM
  EXPECT_EQ(test(-100, 0).action, ConvergenceAction::kStop);
  in.id = 2;
  EXPECT_EQ(test(-100, 0).action, ConvergenceAction::kLoop);
  in.id = 1;
  in.nfrstg = 1;
  // Quick test, bounded by the single-precision product 1 * 0.002 (a
  // change of exactly 0.002 passes it, and fails the normal test).
  EXPECT_TRUE(test(-0.002, 1e-22).converged);
  in.moving = 2;  // held back while parameters move: s is stored
  EXPECT_EQ(test(-0.002, 1e-22).action, ConvergenceAction::kLoop);
  EXPECT_EQ(st.s, -0.002);
  in.moving = 0;
  in.quick = 0;  // the normal test on loglik + restraints
  in.last_loglik = -100.0;
  EXPECT_TRUE(test(-99.9995, -100.0).converged);
  EXPECT_EQ(test(-99.99, -100.0).action, ConvergenceAction::kLoop);
  EXPECT_DOUBLE_EQ(st.change, -99.99 + 100.0);
  in.restrained = 1;
  EXPECT_TRUE(test(-100.9995, -100.0).converged);
  in.restrained = 0;
  in.aicond = 900;  // a step that was not normal
  EXPECT_EQ(test(-100.0, -100.0).action, ConvergenceAction::kLoop);
  in.aicond = 1000;
  in.predict = true;  // converged with predictions: one further iteration
  EXPECT_EQ(test(-100.0, -100.0).action, ConvergenceAction::kFurtherIteration);
}
