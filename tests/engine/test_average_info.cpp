// The AI step against dense computations.  Each model is built by hand:
// the coefficient matrix C is formed densely and absorbed by g5vxxa in a
// given order; the AI matrix, the scores and the subset of C^-1 are then
// compared with V, P and C^-1 formed densely.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <numeric>
#include <utility>
#include <vector>

#include <algorithm>
#include <memory>

#include "average_info/average_info.h"
#include "sparse_harness.h"
#include "variance_support.h"

using namespace tarnel;

namespace {

using Mat = std::vector<std::vector<double>>;
Mat zeros(int r, int c) { return Mat(r, std::vector<double>(c, 0.0)); }
Mat mul(const Mat& a, const Mat& b) {
  Mat c = zeros(a.size(), b[0].size());
  for (size_t i = 0; i < a.size(); ++i)
    for (size_t k = 0; k < b.size(); ++k)
      if (a[i][k] != 0.0)
        for (size_t j = 0; j < b[0].size(); ++j) c[i][j] += a[i][k] * b[k][j];
  return c;
}
Mat tr(const Mat& a) {
  Mat t = zeros(a[0].size(), a.size());
  for (size_t i = 0; i < a.size(); ++i)
    for (size_t j = 0; j < a[0].size(); ++j) t[j][i] = a[i][j];
  return t;
}
Mat inv(const Mat& a) {  // by vtest::inverse (Gauss-Jordan, partial pivoting)
  const int n = a.size();
  vtest::Mat f(n * n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) f[i * n + j] = a[i][j];
  f = vtest::inverse(f, n);
  Mat b = zeros(n, n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) b[i][j] = f[i * n + j];
  return b;
}
double trace(const Mat& a) {
  double s = 0;
  for (size_t i = 0; i < a.size(); ++i) s += a[i][i];
  return s;
}
double quad(const std::vector<double>& x, const Mat& a, const std::vector<double>& y) {
  double s = 0;
  for (size_t i = 0; i < x.size(); ++i)
    for (size_t j = 0; j < y.size(); ++j) s += x[i] * a[i][j] * y[j];
  return s;
}
void expect_rel(double got, double want, const char* what) {
  double scale = std::max(1.0, std::fabs(want));
  EXPECT_NEAR(got, want, 1e-8 * scale) << what;
}

struct Model {
  int neq = 0;                       // response + effects
  std::vector<double> y;
  std::vector<std::vector<std::pair<int, double>>> rows;  // per record
  std::vector<int> nlev, tcode;
  std::vector<double> gammas;        // parameter 1: residual scale
  std::vector<int> rgmstr;
  Mat ginv;                          // (neq-1)^2 over equations 2..neq
  Mat g;                             // G, the same
  std::vector<Mat> dg;               // dG/dtheta per parameter (0 for none)
  std::vector<int> wvcolumn;         // WV column per parameter (0 none)
  int nwv = 0;
  // Structures (products only).
  std::vector<int> struc;
  std::vector<FormRecord> secform, parform;
  std::vector<double> logdet, work;
  // Structured residual R = gamma_1 rmat (empty: R = gamma_1 I), with
  // dR/dtheta per parameter (empty where none).
  Mat rmat;
  std::vector<Mat> dr;
  int rcode = 0;
  std::vector<i32> nrsect;  // empty: one section of all records
};

struct Built {
  std::unique_ptr<tarnel_test::Store> store;
  tarnel_test::AbsorbRun absorbed;
  std::vector<i32> iw;
  std::vector<double> dd, soln;
  MmeStore st;
  i64 off = 0;
  Mat cinv;                    // dense inverse by equation (singular rows 0)
  std::vector<bool> singular;  // by equation
  std::vector<double> dval;
  std::vector<i32> dcol;
  std::vector<i64> dstart;
};

// Forms C densely, loads it and absorbs it with g5vxxa in the order `perm`
// (perm[p-1] = equation at p) with `ndense` dense positions; the solution
// is checked against the dense one.
void build(const Model& m, const std::vector<int>& perm, int ndense, Built& b) {
  int n = m.neq, nrec = m.y.size();
  double gr = m.gammas[0];
  Mat c = zeros(n + 1, n + 1);  // 1-based by equation, response at 1
  Mat ri;
  if (!m.rmat.empty()) ri = inv(m.rmat);
  for (int r = 0; r < nrec; ++r)
    for (int r2 = 0; r2 < nrec; ++r2) {
      double w = ri.empty() ? (r == r2 ? 1.0 / gr : 0.0) : ri[r][r2] / gr;
      if (w == 0.0) continue;
      std::vector<std::pair<int, double>> f1 = {{1, m.y[r]}}, f2 = {{1, m.y[r2]}};
      f1.insert(f1.end(), m.rows[r].begin(), m.rows[r].end());
      f2.insert(f2.end(), m.rows[r2].begin(), m.rows[r2].end());
      for (auto& a : f1)
        for (auto& q : f2) c[a.first][q.first] += a.second * q.second * w;
    }
  for (int i = 2; i <= n; ++i)
    for (int j = 2; j <= n; ++j) c[i][j] += m.ginv[i - 2][j - 2];
  tarnel_test::Dense dc(n);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j) dc(i, j) = c[i][j];
  b.store = std::make_unique<tarnel_test::Store>(n, ndense, 4 * n * n + 100);
  EXPECT_TRUE(tarnel_test::load(*b.store, dc));
  std::vector<int> ord(n + 1, 0);
  for (int p = 1; p <= n; ++p) ord[p] = perm[p - 1];
  b.absorbed = tarnel_test::absorb(*b.store, ord);
  EXPECT_EQ(b.absorbed.rc, 0) << b.absorbed.err;
  b.st = b.store->s;
  b.off = b.store->off();
  b.iw = b.absorbed.iw;
  b.dd = b.absorbed.dd;
  b.singular.assign(n + 1, false);
  for (int p = 2; p <= n; ++p) {
    int e = b.iw[2 * (p - 1) + 1];
    b.singular[e] = b.iw[2 * (e - 1)] < 0 || b.dd[p - 1] == 0.0;
  }
  // Dense solution and inverse over the non-singular equations.
  std::vector<int> keep;
  for (int e = 2; e <= n; ++e)
    if (!b.singular[e]) keep.push_back(e);
  Mat ck = zeros(keep.size(), keep.size());
  for (size_t i = 0; i < keep.size(); ++i)
    for (size_t j = 0; j < keep.size(); ++j) ck[i][j] = c[keep[i]][keep[j]];
  Mat ci = inv(ck);
  b.cinv = zeros(n + 1, n + 1);
  b.soln.assign(n, 0.0);
  for (size_t i = 0; i < keep.size(); ++i) {
    double s = 0;
    for (size_t j = 0; j < keep.size(); ++j) {
      b.cinv[keep[i]][keep[j]] = ci[i][j];
      s += ci[i][j] * c[keep[j]][1];
    }
    b.soln[keep[i] - 1] = s;
  }
  for (int e = 2; e <= n; ++e)
    EXPECT_NEAR(b.absorbed.soln[e - 1], b.soln[e - 1], 1e-9 * (1 + std::fabs(b.soln[e - 1])));
  b.soln = b.absorbed.soln;
  // Design rows.
  b.dstart.push_back(1);
  for (int r = 0; r < nrec; ++r) {
    b.dval.push_back(m.y[r]);
    b.dcol.push_back(1);
    for (auto& e : m.rows[r]) b.dval.push_back(e.second), b.dcol.push_back(e.first);
    b.dstart.push_back(b.dval.size() + 1);
  }
}

struct PhaseRun {
  std::vector<double> ai, score, resid, wk;
  std::vector<i32> wvmap;
  AiPhaseArgs a;
  WorkArray w;
  GivTable giv;
};

void run(Model& m, Built& b, PhaseRun& r, i64 wvxplimit = 0, i64 lenwk = 400000) {
  r.ai.assign(m.nwv * (m.nwv + 1) / 2, 0.0);
  r.score.assign(m.nwv, 0.0);
  r.resid.assign(m.y.size(), 0.0);
  r.wk.assign(lenwk, 0.0);
  size_t np = std::max<size_t>(m.gammas.size(), m.nwv);
  r.wvmap.assign(2 * np, 0);
  for (size_t p = 1; p <= m.gammas.size(); ++p) {
    int c = m.wvcolumn[p - 1];
    r.wvmap[2 * (p - 1)] = c;
    if (c > 0) r.wvmap[2 * (c - 1) + 1] = p;
  }
  AiPhaseArgs& a = r.a;
  a = AiPhaseArgs();
  a.store = &b.st;
  a.off = b.off;
  a.iw = span<i32>(b.iw);
  a.dd = span<double>(b.dd);
  a.soln = span<const double>(b.soln.data(), b.soln.size());
  a.design.val = span<const double>(b.dval.data(), b.dval.size());
  a.design.col = span<const i32>(b.dcol.data(), b.dcol.size());
  a.design.start = span<const i64>(b.dstart.data(), b.dstart.size());
  a.records = m.y.size();
  a.nlev = span<const i32>(m.nlev.data(), m.nlev.size());
  a.tcode = span<const i32>(m.tcode.data(), m.tcode.size());
  static std::vector<i32> nrsect;
  nrsect = {static_cast<i32>(m.y.size()), 1, m.rcode};
  if (!m.nrsect.empty()) nrsect = m.nrsect;
  a.nrsect = span<const i32>(nrsect.data(), nrsect.size());
  a.nsect = static_cast<int>(nrsect.size() / 3);
  a.gammas = span<double>(m.gammas);
  a.rgmstr = span<const i32>(m.rgmstr.data(), m.rgmstr.size());
  a.wvmap = span<const i32>(r.wvmap.data(), r.wvmap.size());
  a.nwv = m.nwv;
  a.sigma2 = 1.0;
  r.w = WorkArray(m.work.empty() ? nullptr : m.work.data(), m.work.size());
  a.var.struc = span<int>(m.struc);
  a.var.lstruc = 15;
  a.var.nstruc = m.struc.size() / 15;
  a.var.secform = span<const FormRecord>(m.secform.data(), m.secform.size());
  a.var.parform = span<const FormRecord>(m.parform.data(), m.parform.size());
  a.var.logdet = span<const double>(m.logdet.data(), m.logdet.size());
  a.var.work = &r.w;
  a.var.giv = &r.giv;
  a.var.row = tarnel::g5vvrw;
  a.wk = r.wk.data();
  a.lenwk = lenwk;
  a.wvxplimit = wvxplimit;
  a.ai = span<double>(r.ai);
  a.score = span<double>(r.score);
  a.resid = span<double>(r.resid);
}

// Dense AI and scores: V = Z G Z' + gamma_R I; dV of the residual scale is
// V itself when gamma_R is free (V proportional to it) and I in the score.
void check_against_dense(const Model& m, const Built& b, const PhaseRun& r) {
  int nrec = m.y.size(), ne = m.neq - 1;
  Mat W = zeros(nrec, ne);
  for (int i = 0; i < nrec; ++i)
    for (auto& e : m.rows[i]) W[i][e.first - 2] = e.second;
  Mat V = mul(mul(W, m.g), tr(W));
  for (int i = 0; i < nrec; ++i)
    for (int j = 0; j < nrec; ++j)
      V[i][j] += m.gammas[0] * (m.rmat.empty() ? (i == j ? 1.0 : 0.0) : m.rmat[i][j]);
  // Fixed columns: equations with a zero row of G, singular ones left out.
  std::vector<int> fx;
  for (int e = 2; e <= m.neq; ++e) {
    bool fixed = true;
    for (int j = 0; j < ne; ++j) fixed = fixed && m.g[e - 2][j] == 0.0;
    if (fixed && !b.singular[e]) fx.push_back(e);
  }
  Mat X = zeros(nrec, fx.size());
  for (int i = 0; i < nrec; ++i)
    for (size_t k = 0; k < fx.size(); ++k) X[i][k] = W[i][fx[k] - 2];
  Mat Vi = inv(V);
  Mat ViX = mul(Vi, X);
  Mat P = Vi;
  if (!fx.empty()) {
    Mat mid = inv(mul(tr(X), ViX));
    Mat corr = mul(mul(ViX, mid), tr(ViX));
    for (int i = 0; i < nrec; ++i)
      for (int j = 0; j < nrec; ++j) P[i][j] -= corr[i][j];
  }
  std::vector<Mat> dV(m.nwv + 1), dVs(m.nwv + 1);
  for (size_t p = 1; p <= m.gammas.size(); ++p) {
    int c = m.wvcolumn[p - 1];
    if (c == 0) continue;
    if (p == 1) {
      dV[c] = V;
      dVs[c] = zeros(nrec, nrec);
      for (int i = 0; i < nrec; ++i)
        for (int j = 0; j < nrec; ++j)
          dVs[c][i][j] = m.rmat.empty() ? (i == j ? 1.0 : 0.0) : m.rmat[i][j];
    } else if (p - 1 < m.dr.size() && !m.dr[p - 1].empty()) {
      dV[c] = dVs[c] = zeros(nrec, nrec);
      for (int i = 0; i < nrec; ++i)
        for (int j = 0; j < nrec; ++j) dV[c][i][j] = dVs[c][i][j] = m.gammas[0] * m.dr[p - 1][i][j];
    } else {
      dV[c] = dVs[c] = mul(mul(W, m.dg[p - 1]), tr(W));
    }
  }
  std::vector<double> Py(nrec, 0.0);
  for (int i = 0; i < nrec; ++i)
    for (int j = 0; j < nrec; ++j) Py[i] += P[i][j] * m.y[j];
  for (int i = 1; i <= m.nwv; ++i) {
    for (int j = 1; j <= i; ++j) {
      double want = 0.5 * quad(Py, mul(dV[i], mul(P, dV[j])), Py);
      expect_rel(r.ai[i * (i - 1) / 2 + j - 1], want, "AI");
    }
    double sc = 0.5 * (quad(Py, dVs[i], Py) - trace(mul(P, dVs[i])));
    expect_rel(r.score[i - 1], sc, "score");
  }
}

void check_inverse(const Model& m, const Built& b) {
  // Every element of the pattern against the dense inverse.
  int checked = 0;
  for (int p = 2; p <= m.neq; ++p) {
    int e = b.iw[2 * (p - 1) + 1];
    for (int q = 2; q <= p; ++q) {
      int f = b.iw[2 * (q - 1) + 1];
      double got = cinv_at(b.st, b.off, p, q);
      if (got == 0.0 && p > b.st.ndense) continue;  // outside the pattern
      expect_rel(got, b.cinv[e][f], "C^-1");
      ++checked;
    }
    expect_rel(cinv_at(b.st, b.off, p, p), b.cinv[e][e], "C^-1 diagonal");
  }
  EXPECT_GT(checked, m.neq - 2);
}

// y = mu + u(group) + e with `q` groups.
Model one_way(int q, int per, double gam, double gr, bool free_scale) {
  Model m;
  m.neq = 2 + q;
  m.nlev = {1, q};
  m.tcode = {0, 2};
  m.gammas = {gr, gam};
  m.rgmstr = {free_scale ? 0 : 4, 0};
  m.wvcolumn = free_scale ? std::vector<int>{1, 2} : std::vector<int>{0, 1};
  m.nwv = free_scale ? 2 : 1;
  int ne = m.neq - 1;
  m.ginv = zeros(ne, ne);
  m.g = zeros(ne, ne);
  m.dg.assign(2, zeros(ne, ne));
  for (int k = 0; k < q; ++k) {
    m.ginv[1 + k][1 + k] = 1.0 / gam;
    m.g[1 + k][1 + k] = gam;
    m.dg[1][1 + k][1 + k] = 1.0;
  }
  unsigned s = 7;
  for (int k = 0; k < q; ++k)
    for (int i = 0; i < per + (k % 3 == 0); ++i) {
      s = s * 1103515245u + 12345u;
      m.y.push_back(10.0 + k * 0.7 + ((s >> 8) % 1000) / 250.0);
      m.rows.push_back({{2, 1.0}, {3 + k, 1.0}});
    }
  return m;
}

std::vector<int> natural(int n) {
  std::vector<int> p(n);
  std::iota(p.begin(), p.end(), 1);
  return p;
}
// The natural order with the effects (positions 3..n) reversed.
std::vector<int> reversed(int n) {
  std::vector<int> p = natural(n);
  std::reverse(p.begin() + 2, p.end());
  return p;
}

// The structures formed in `f` become the model's.
void use_fit(Model& m, const vtest::Fit& f) {
  m.gammas = f.gammas;
  m.struc = f.struc;
  m.secform = f.secform;
  m.parform = f.parform;
  m.logdet = f.logdet;
  m.work = f.work;
}
// Every parameter free and in the AI system in order.
void all_free(Model& m) {
  m.nwv = m.gammas.size();
  m.rgmstr.assign(m.nwv, 0);
  m.wvcolumn.resize(m.nwv);
  std::iota(m.wvcolumn.begin(), m.wvcolumn.end(), 1);
}
// G^-1 by dense inversion of G over the effects (equations 3..neq).
void invert_g(Model& m) {
  const int ne = m.neq - 1;
  Mat gsub = zeros(ne - 1, ne - 1);
  for (int i = 0; i < ne - 1; ++i)
    for (int j = 0; j < ne - 1; ++j) gsub[i][j] = m.g[1 + i][1 + j];
  Mat gi = inv(gsub);
  m.ginv = zeros(ne, ne);
  for (int i = 0; i < ne - 1; ++i)
    for (int j = 0; j < ne - 1; ++j) m.ginv[1 + i][1 + j] = gi[i][j];
}

// G = I(ns) x S over the effects (equations 3..neq), dG = I(ns) x dS[p]
// for each parameter p (empty: none), and G^-1 by dense inversion.
void kron_g(Model& m, int ns, const vtest::Mat& S, const std::vector<vtest::Mat>& dS) {
  const int ne = m.neq - 1, q = static_cast<int>(std::lround(std::sqrt(S.size())));
  m.g = zeros(ne, ne);
  m.dg.assign(dS.size(), zeros(ne, ne));
  for (int k = 0; k < ns; ++k)
    for (int i = 0; i < q; ++i)
      for (int j = 0; j < q; ++j) {
        const int ei = 1 + k * q + i, ej = 1 + k * q + j;
        m.g[ei][ej] = S[i * q + j];
        for (size_t p = 0; p < dS.size(); ++p)
          if (!dS[p].empty()) m.dg[p][ei][ej] = dS[p][i * q + j];
      }
  invert_g(m);
}
// s AR1(rho) of order q, or its derivative in rho.
vtest::Mat ar1(int q, double rho, double s, bool deriv = false) {
  vtest::Mat a(q * q);
  for (int i = 0; i < q; ++i)
    for (int j = 0; j < q; ++j) {
      const int d = std::abs(i - j);
      a[i * q + j] = deriv ? (d == 0 ? 0.0 : s * d * std::pow(rho, d - 1)) : s * std::pow(rho, d);
    }
  return a;
}

// Builds and runs the AI phase and checks the AI, the scores and (with
// `inverse`) C^-1 against dense formulas; returns log|G|.
double check_model(Model& m, const std::vector<int>& perm, int ndense, bool inverse = true,
                   i64 wvxplimit = 0, const GivTable* giv = nullptr) {
  Built b;
  build(m, perm, ndense, b);
  PhaseRun r;
  run(m, b, r, wvxplimit);
  if (giv) r.giv = *giv;
  EXPECT_EQ(ai_phase(r.a), 0) << r.a.nfault;
  if (r.a.nfault) return NAN;
  check_against_dense(m, b, r);
  if (inverse) check_inverse(m, b);
  // Residuals against the dense solution.
  for (size_t i = 0; i < m.y.size(); ++i) {
    double fit = 0;
    for (auto& e : m.rows[i]) fit += e.second * b.soln[e.first - 1];
    expect_rel(r.resid[i], m.y[i] - fit, "residual");
  }
  return r.a.logdetg;
}

// y = mu + f + a(i) + b(j) + e over all na x nb cells, some cells twice; f
// is a fixed column equal to mu, so one of the two takes no pivot.
Model crossed(int na, int nb, std::vector<double> gammas, unsigned s) {
  Model m;
  m.neq = 1 + 2 + na + nb;
  m.nlev = {2, na, nb};
  m.tcode = {0, 2, 3};
  m.gammas = gammas;
  all_free(m);
  int ne = m.neq - 1;
  m.ginv = zeros(ne, ne);
  m.g = zeros(ne, ne);
  m.dg.assign(3, zeros(ne, ne));
  for (int e = 2; e < ne; ++e) {
    const int t = e < 2 + na ? 1 : 2;
    m.ginv[e][e] = 1 / gammas[t], m.g[e][e] = gammas[t], m.dg[t][e][e] = 1;
  }
  for (int i = 0; i < na; ++i)
    for (int j = 0; j < nb; ++j)
      for (int rep = 0; rep < 1 + ((i * 7 + j) % 3 == 0); ++rep) {
        s = s * 1103515245u + 12345u;
        m.y.push_back(3.0 + 0.1 * i - 0.4 * j + ((s >> 8) % 1000) / 200.0);
        m.rows.push_back({{2, 1.0}, {3, 1.0}, {4 + i, 1.0}, {4 + na + j, 1.0}});
      }
  return m;
}

}  // namespace

TEST(AverageInfo, OneWayRandomModelMatchesDenseFormulas) {
  // Free scale (V proportional to it), natural order and a shuffled order
  // with three dense positions.
  Model m = one_way(6, 3, 0.8, 1.0, true);
  expect_rel(check_model(m, natural(m.neq), 1), 6 * std::log(0.8), "log|G|");
  expect_rel(check_model(m, {1, 2, 3, 8, 5, 4, 7, 6}, 3), 6 * std::log(0.8), "log|G|");
}

TEST(AverageInfo, FixedResidualScaleAndZeroOrFixedParameters) {
  // Residual scale held fixed at 2.3: V = gamma Z Z' + 2.3 I exactly.
  Model m = one_way(5, 2, 1.7, 2.3, false);
  Built b;
  build(m, natural(m.neq), 1, b);
  PhaseRun r;
  run(m, b, r);
  ASSERT_EQ(ai_phase(r.a), 0);
  check_against_dense(m, b, r);
  // A fixed G parameter: log|G| still counts, no score and no AI entry.
  Model f = m;
  f.rgmstr[1] = 4;
  PhaseRun rf;
  run(f, b, rf);
  ASSERT_EQ(ai_phase(rf.a), 0);
  EXPECT_EQ(rf.ai[0], 0.0);
  EXPECT_EQ(rf.score[0], 0.0);
  expect_rel(rf.a.logdetg, 5 * std::log(1.7), "log|G| of a fixed parameter");
}

TEST(AverageInfo, CrossedFactorsWithAliasedFixedEffect) {
  Model m = crossed(3, 4, {1.0, 0.6, 1.9}, 11);
  std::vector<int> perm = {1, 2, 3, 4, 6, 9, 5, 10, 7, 8};
  Built b;
  build(m, perm, 2, b);
  ASSERT_TRUE(b.singular[2] || b.singular[3]);
  PhaseRun r;
  run(m, b, r);
  ASSERT_EQ(ai_phase(r.a), 0) << r.a.nfault;
  check_against_dense(m, b, r);
  check_inverse(m, b);
  // The singular equation's row and column of the inverse are 0.
  int se = b.singular[2] ? 2 : 3;
  std::vector<int> posof(m.neq + 1);
  for (int q = 1; q <= m.neq; ++q) posof[b.iw[2 * (q - 1) + 1]] = q;
  for (int e = 2; e <= m.neq; ++e) EXPECT_EQ(cinv_at(b.st, b.off, posof[se], posof[e]), 0.0);

  // Spilling the WVXP rows to TEMPWV gives the same AI and scores.
  Built b2;
  build(m, perm, 2, b2);
  PhaseRun r2;
  run(m, b2, r2, m.neq + 2 * m.nwv + 3);
  ASSERT_EQ(ai_phase(r2.a), 0) << r2.a.nfault;
  EXPECT_GT(g_aistate.spills, 0);
  for (size_t k = 0; k < r.ai.size(); ++k) expect_rel(r2.ai[k], r.ai[k], "AI after spill");
  for (size_t k = 0; k < r.score.size(); ++k) expect_rel(r2.score[k], r.score[k], "score after spill");
  std::FILE* f = std::fopen("TEMPWV", "rb");
  EXPECT_EQ(f, nullptr) << "TEMPWV left behind";
  if (f) std::fclose(f);
}

TEST(AverageInfo, ClearFaultsForUnavailableAndBadInput) {
  Model m = one_way(3, 2, 0.5, 1.0, true);
  Built b;
  build(m, natural(m.neq), 1, b);
  // A structured residual section without a form record; a design column
  // beyond NEQ; an order that is not a permutation: fault 2111, no crash.
  std::vector<i32> ns = {static_cast<i32>(m.y.size()), 1, 1};
  std::vector<int> struc(15, 0);
  struc[0] = static_cast<int>(m.y.size());
  for (int k = 0; k < 3; ++k) {
    PhaseRun r;
    run(m, b, r);
    if (k == 0) {
      r.a.nrsect = span<const i32>(ns.data(), 3);
      r.a.var.struc = span<int>(struc);
      r.a.var.nstruc = 1;
    }
    if (k == 1) b.dcol[1] = m.neq + 1;
    if (k == 2) b.dcol[1] = 2, b.iw[1] = b.iw[3];
    EXPECT_EQ(ai_phase(r.a), 1) << k;
    EXPECT_EQ(r.a.nfault, 2111) << k;
  }
  // Too little work space is fault 6.
  Built b4;
  build(m, natural(m.neq), 1, b4);
  PhaseRun r4;
  run(m, b4, r4, 0, 200);
  EXPECT_EQ(ai_phase(r4.a), 1);
  EXPECT_EQ(r4.a.nfault, 6);
}

// The structures formed by g5vvsf and delivered by g5vvrw.
TEST(AverageInfoPipeline, AbsorbedStoreAndFormedStructures) {
  // one-way, shuffled order with two dense positions
  Model ow = one_way(7, 2, 0.45, 1.0, true);
  check_model(ow, {1, 2, 9, 4, 7, 3, 5, 8, 6}, 2);
  // I(ns) x US(2) random regression and sigma_g AR1(rho) over q levels.
  for (int kind = 0; kind < 2; ++kind) {
    vtest::Fit f;
    Model m;
    int ns = 4, q = 6;
    double s11 = 1.3, s21 = 0.4, s22 = 0.7, sg = 0.9, rho = 0.55;
    if (kind == 0) {
      f.gammas = {1.0, s11, s21, s22};
      f.add_section(ns, 0, 0, 0);
      f.add_section(2, 3, 9, 2);
      m.neq = 2 + 2 * ns;
      m.nlev = {1, 2 * ns};
    } else {
      f.gammas = {1.0, sg, rho};
      f.add_section(1, 1, 0, 2);
      f.add_section(q, 1, 1, 3, 1);
      m.neq = 2 + q;
      m.nlev = {1, q};
    }
    ASSERT_EQ(f.run(), 0) << f.ifault;
    for (int r = 1; r <= 2; ++r) f.struc[(r - 1) * 15 + kField14 - 1] = 1;
    m.tcode = {0, 20001};
    use_fit(m, f);
    all_free(m);
    double logdetg;
    if (kind == 0) {
      kron_g(m, ns, {s11, s21, s21, s22}, {{}, {1, 0, 0, 0}, {0, 1, 1, 0}, {0, 0, 0, 1}});
      logdetg = ns * std::log(s11 * s22 - s21 * s21);
    } else {
      kron_g(m, 1, ar1(q, rho, sg), {{}, ar1(q, rho, 1.0), ar1(q, rho, sg, true)});
      logdetg = q * std::log(sg) + (q - 1) * std::log(1 - rho * rho);
    }
    unsigned sd = 5 + kind;
    for (int k = 0; k < (kind == 0 ? ns : q); ++k)
      for (int t = 0; t < 3; ++t) {
        sd = sd * 1103515245u + 12345u;
        double x = t - 1.0, noise = ((sd >> 8) % 1000) / 400.0;
        m.y.push_back(2.0 + 0.3 * k + (kind == 0 ? 0.5 * x : 0.0) + noise);
        if (kind == 0)
          m.rows.push_back({{2, 1.0}, {3 + 2 * k, 1.0}, {4 + 2 * k, x}});
        else
          m.rows.push_back({{2, 1.0}, {3 + k, 1.0}});
      }
    expect_rel(check_model(m, reversed(m.neq), 1), logdetg, "log|G|");
    // A shuffled order that splits the subjects' pairs.
    if (kind == 0) expect_rel(check_model(m, {1, 2, 5, 6, 3, 4, 9, 10, 7, 8}, 1), logdetg, "log|G|");
  }
}

TEST(AverageInfoPipeline, Ar1ResidualMatchesDense) {
  // y = mu + u(group) + e, R = gamma AR1(rho) over the records in order.
  Model m = one_way(4, 3, 0.7, 1.0, true);
  int n = m.y.size();
  double rho = 0.45;
  vtest::Fit f;
  f.gammas = {1.0, 0.7, rho};
  f.add_section(n, 1, 1, 3, 1);
  ASSERT_EQ(f.run(), 0) << f.ifault;
  use_fit(m, f);
  all_free(m);
  m.rcode = 1;
  m.rmat = zeros(n, n);
  m.dr.assign(3, Mat());
  m.dr[2] = zeros(n, n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j) {
      int d = std::abs(i - j);
      m.rmat[i][j] = std::pow(rho, d);
      m.dr[2][i][j] = d == 0 ? 0.0 : d * std::pow(rho, d - 1);
    }
  m.dg.resize(3, zeros(m.neq - 1, m.neq - 1));
  check_model(m, natural(m.neq), 1);
  check_model(m, reversed(m.neq), 2, true, m.neq + 2 * m.nwv + 3);  // WVXP rows spilled
}

TEST(AverageInfoPipeline, TwoResidualSectionsWithOwnVariances) {
  // The overall scale (parameter 1) is held at 1; each section's residual
  // is a scaled identity of its own: R = diag(s1 I, s2 I).
  Model m = one_way(4, 3, 0.9, 1.0, true);
  int n = m.y.size(), n1 = n / 2, n2 = n - n1;
  double s1 = 0.6, s2 = 1.8;
  vtest::Fit f;
  f.gammas = {1.0, 0.9, s1, s2};
  f.add_section(n1, 1, 0, 3);
  f.add_section(n2, 1, 0, 4);
  ASSERT_EQ(f.run(), 0) << f.ifault;
  use_fit(m, f);
  m.rgmstr = {4, 0, 0, 0};
  m.wvcolumn = {0, 1, 2, 3};
  m.nwv = 3;
  m.nrsect = {n1, 1, 1, n2, 1, 2};
  m.rmat = zeros(n, n);
  m.dr.assign(4, Mat());
  m.dr[2] = zeros(n, n);
  m.dr[3] = zeros(n, n);
  for (int i = 0; i < n; ++i) {
    m.rmat[i][i] = i < n1 ? s1 : s2;
    m.dr[i < n1 ? 2 : 3][i][i] = 1.0;
  }
  m.dg.resize(4, zeros(m.neq - 1, m.neq - 1));
  check_model(m, natural(m.neq), 1, false);
}

// G = sigma A over q groups, A known and given by its inverse: a dense
// packed (type 9) and a sparse lower triangle by rows (type 7) of the same
// tridiagonal A^-1, linked to the section (model -1).  Scores, AI and
// log|G| against dense formulas.
TEST(AverageInfoPipeline, ScaledKnownMatrixThroughItsInverse) {
  const int q = 5;
  const double sg = 0.8;
  vtest::Mat ai(q * q, 0.0);  // A^-1: tridiagonal, diagonally dominant
  for (int i = 1; i <= q; ++i) {
    vtest::at(ai, q, i, i) = 2.0 + 0.3 * (i - 1);
    if (i > 1) vtest::at(ai, q, i, i - 1) = vtest::at(ai, q, i - 1, i) = -0.7;
  }
  const vtest::Mat A = vtest::inverse(ai, q);
  const double ldA = vtest::log_abs_det(A, q);
  // The sparse inverse with and without the transposed index of its lower
  // triangle.
  const std::pair<int, bool> cases[] = {{9, false}, {7, false}, {7, true}};
  for (const auto& [type, transposed] : cases) {
    SCOPED_TRACE(type * 10 + transposed);
    Model m = one_way(q, 2, sg, 1.0, true);
    vtest::Fit f;
    f.gammas = {1.0, sg};
    f.add_section(q, 1, -1, 2, 0);
    std::vector<double> vals;
    std::vector<int> ints = {0};
    if (type == 9)
      for (int i = 1; i <= q; ++i)
        for (int j = 1; j <= i; ++j) vals.push_back(vtest::at(ai, q, i, j));
    else
      vtest::sparse_lower(ai, q, transposed, vals, ints);
    f.givreal = {ldA};
    f.givreal.insert(f.givreal.end(), vals.begin(), vals.end());
    f.givint = ints;
    f.givtab = {q, type, 1, 1, 0};
    ASSERT_EQ(f.run(), 0) << f.ifault;
    f.struc[kField14 - 1] = 1;
    m.tcode = {0, 10001};
    use_fit(m, f);
    vtest::Mat sA = A;
    for (double& v : sA) v *= sg;
    kron_g(m, 1, sA, {{}, A});
    expect_rel(check_model(m, reversed(m.neq), 1, false, 0, &f.a.giv), q * std::log(sg) + ldA,
               "log|G| of sigma A");
  }
}

// A known matrix as the second factor of a product, given by a sparse
// inverse: I(2) x sigma A (the scale on the known factor) and US(2) x A (the
// variances on the other factor).  Scores, AI and log|G| against dense
// formulas; A's rows are asked for once for each level of the first factor.
TEST(AverageInfoPipeline, KnownMatrixAsAFactorOfAProduct) {
  const int q = 4, ns = 2;
  vtest::Mat ai(q * q, 0.0);
  for (int i = 1; i <= q; ++i) {
    vtest::at(ai, q, i, i) = 1.8 + 0.2 * i;
    if (i > 1) vtest::at(ai, q, i, i - 1) = vtest::at(ai, q, i - 1, i) = -0.6;
  }
  const vtest::Mat A = vtest::inverse(ai, q);
  const double ldA = vtest::log_abs_det(A, q);
  // S x A over ns x q effects, the first factor's levels slowest.
  auto kron = [&](const vtest::Mat& S) {
    vtest::Mat K(ns * q * ns * q, 0.0);
    for (int a = 0; a < ns; ++a)
      for (int b = 0; b < ns; ++b)
        for (int i = 0; i < q; ++i)
          for (int j = 0; j < q; ++j) K[(a * q + i) * ns * q + b * q + j] = S[a * ns + b] * A[i * q + j];
    return K;
  };
  for (int us = 0; us < 2; ++us) {
    SCOPED_TRACE(us);
    const double sg = 0.8, s11 = 1.2, s21 = 0.5, s22 = 0.9;
    Model m = one_way(ns * q, 2, 1.0, 1.0, true);
    vtest::Fit f;
    std::vector<double> vals;
    std::vector<int> ints = {0};
    vtest::sparse_lower(ai, q, true, vals, ints);
    f.givreal = {ldA};
    f.givreal.insert(f.givreal.end(), vals.begin(), vals.end());
    f.givint = ints;
    f.givtab = {q, 7, 1, 1, 0};
    if (us) {
      f.gammas = {1.0, s11, s21, s22};
      f.add_section(ns, 3, 9, 2);
      f.add_section(q, 0, -1, 0, 0);
    } else {
      f.gammas = {1.0, sg};
      f.add_section(ns, 0, 0, 0);
      f.add_section(q, 1, -1, 2, 0);
    }
    ASSERT_EQ(f.run(), 0) << f.ifault;
    for (int r = 1; r <= 2; ++r) f.struc[(r - 1) * 15 + kField14 - 1] = 1;
    m.tcode = {0, 20001};
    use_fit(m, f);
    all_free(m);
    if (us) {
      kron_g(m, 1, kron({s11, s21, s21, s22}),
             {{}, kron({1, 0, 0, 0}), kron({0, 1, 1, 0}), kron({0, 0, 0, 1})});
      expect_rel(check_model(m, reversed(m.neq), 1, false, 0, &f.a.giv),
                 q * std::log(s11 * s22 - s21 * s21) + ns * ldA, "log|G| of US x A");
    } else {
      kron_g(m, 1, kron({sg, 0, 0, sg}), {{}, kron({1, 0, 0, 1})});
      expect_rel(check_model(m, reversed(m.neq), 1, false, 0, &f.a.giv), ns * (q * std::log(sg) + ldA),
                 "log|G| of I x sigma A");
    }
  }
}

// G = sigma AR1(rho) as one section whose last parameter is its overall
// scale (scalepos), alone and in a product I(ns) x sigma AR1: the scale's
// score reads the inverse side with the scale squared.
TEST(AverageInfoPipeline, OverallScaleOfACorrelationSection) {
  const int q = 4;
  const double sg = 1.6, rho = 0.5;
  for (int ns : {1, 3}) {
    Model m = one_way(q * ns, 2, sg, 1.0, true);
    vtest::Fit f;
    f.gammas = {1.0, rho, sg};
    if (ns > 1) f.add_section(ns, 0, 0, 0);
    f.add_section(q, 2, 1, 2, 1, 3);
    ASSERT_EQ(f.run(), 0) << f.ifault;
    for (size_t s = 0; s < f.struc.size() / 15; ++s) f.struc[s * 15 + kField14 - 1] = 1;
    m.tcode = {0, ns > 1 ? 20001 : 10001};
    use_fit(m, f);
    all_free(m);
    kron_g(m, ns, ar1(q, rho, sg), {{}, ar1(q, rho, sg, true), ar1(q, rho, 1.0)});
    check_model(m, natural(m.neq), 1, false);
  }
}

// With b absorbed first the a block and the first b row of a fully crossed
// 40 x 6 layout fill in completely: the inverse on it comes from the dense
// copy, or element by element when the work space is too small for it.
TEST(AverageInfo, FilledBlockInverseMatchesDenseWithAndWithoutRoom) {
  Model m = crossed(40, 6, {1.3, 0.4, 2.2}, 5);
  // Only the response dense: mu and its alias sit in the block too.
  std::vector<int> perm = natural(m.neq);
  Built b;
  build(m, perm, 1, b);
  ASSERT_TRUE(b.singular[2] || b.singular[3]);
  const int sp = b.singular[2] ? 2 : 3;
  PhaseRun r;
  run(m, b, r);
  ASSERT_EQ(ai_phase(r.a), 0) << r.a.nfault;
  check_against_dense(m, b, r);
  check_inverse(m, b);
  for (int p = 2; p <= m.neq; ++p) EXPECT_EQ(cinv_at(b.st, b.off, sp, p), 0.0);
  // Column 1 of the inverse rows is cleared.
  for (int p = 2; p <= m.neq; ++p) EXPECT_EQ(b.st.x[b.st.lssp + b.st.l[2 * (b.off + p - 1) + 1] - 1], 0.0);

  Built b2;
  build(m, perm, 1, b2);
  PhaseRun r2;
  run(m, b2, r2, 0, 23000);
  ASSERT_EQ(ai_phase(r2.a), 0) << r2.a.nfault;
  check_inverse(m, b2);
  for (int p = 2; p <= m.neq; ++p)
    for (int q = 2; q <= p; ++q) {
      const double want = cinv_at(b2.st, b2.off, p, q);
      EXPECT_NEAR(cinv_at(b.st, b.off, p, q), want, 1e-12 * std::fabs(want))
          << "C^-1 both paths " << p << " " << q;
    }
}
