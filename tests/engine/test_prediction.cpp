// Prediction: the chains of the accumulation, p' C^-1 p from an absorbed
// store against a dense inverse, estimability at singular equations, the
// SED pass and the back-transformation.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <vector>

#include "prediction/prediction.h"
#include "sparse_harness.h"

using namespace tarnel;
using tarnel_test::Dense;
using tarnel_test::Store;

namespace {

// A node store over its own words.
struct Nodes {
  std::vector<double> w;
  PredNodes s;
  Nodes(i64 heads, i64 n) : w(2 * n, 0.0) {
    s.w = w.data();
    s.n = n;
    s.next = heads;
  }
  // Appends (row, value) entries to a chain headed at h, rows ascending.
  void fill(i64 h, const std::vector<std::pair<int, double>>& e) {
    i64 last = 0;
    for (auto [r, v] : e) {
      i64 m = last == 0 ? h : ++s.next;
      s.col(m) = r;
      s.val(m) = v;
      s.lnk(m) = 0;
      if (last) s.lnk(last) = static_cast<i32>(m);
      last = m;
    }
  }
  std::map<int, double> read(i64 h) const {
    std::map<int, double> out;
    if (s.col(h) == 0) return out;
    int prev = 0;
    for (i64 n = h; n > 0; n = s.lnk(n)) {
      EXPECT_GT(s.col(n), prev) << "chain not ascending";
      prev = s.col(n);
      out[s.col(n)] += s.val(n);
    }
    return out;
  }
};

TEST(Prediction, ChainMergeAddsInFrontBetweenAndBehind) {
  // Target rows {3, 7}; source rows {1, 3, 5, 9}: a row before the head,
  // an equal row, one between and one behind, and a zero product.
  struct Case {
    std::vector<std::pair<int, double>> target, source;
  } cases[] = {
      {{{3, 1.0}, {7, 2.0}}, {{1, 1.0}, {3, 1.0}, {5, 0.0}, {9, 4.0}}},
      {{}, {{2, 1.5}, {4, -1.0}}},
      {{{5, 1.0}}, {{1, 1.0}, {2, 1.0}, {3, 1.0}}},
  };
  for (const Case& c : cases) {
    Nodes n(2, 64);
    n.fill(1, c.target);
    n.fill(2, c.source);
    std::map<int, double> want;
    for (auto [r, v] : c.target) want[r] += v;
    for (auto [r, v] : c.source)
      if (v != 0.0) want[r] += -0.5 * v;
    ASSERT_EQ(g5vprv(n.s, 1, -0.5, 2), 0);
    EXPECT_EQ(n.read(1), want);
    // Freed nodes come back before new ones are taken.
    const i64 high = n.s.next;
    g5vprfree(n.s, 1);
    EXPECT_EQ(n.s.col(1), 0);
    ASSERT_EQ(g5vprv(n.s, 1, 1.0, 2), 0);
    EXPECT_EQ(n.s.next, high);
  }
  Nodes full(2, 3);
  full.fill(1, {{2, 1.0}});
  full.fill(2, {{1, 1.0}, {3, 1.0}});
  EXPECT_EQ(g5vprv(full.s, 1, 1.0, 2), 1) << "a full store is reported";
}

// A prediction run on an absorbed store: rows p(i) (dense over the
// equations), all in one table.
struct PraRun {
  std::vector<double> xp;
  std::vector<int> nptabl;
  int npred = 1;
  AiControlArgs a;
  PredictionLayout L;
  PraRun(int neq, const std::vector<std::vector<double>>& rows, bool diag = false)
      : xp(200000, 0.0), nptabl(16, 0) {
    const int nr = static_cast<int>(rows.size());
    nptabl[6] = diag ? 1 : 0;
    a.work.xp = WorkArray(xp.data(), xp.size());
    a.predict.npred = &npred;
    a.predict.nptabl = span<int>(nptabl.data(), nptabl.size());
    nptabl[1] = nr;
    L.nrows = nr;
    L.ntab = 1;
    L.neq = neq;
    L.rowstart = 32;
    L.count = L.rowstart + nr + 1;
    L.norm = L.count + nr;
    L.value = L.norm + nr;
    L.flag = L.value + nr;
    L.zeroterms = L.flag + nr;
    L.vmat = L.zeroterms + 1;
    L.vlen = diag ? nr : static_cast<i64>(nr) * (nr + 1) / 2;
    xp[L.vmat + L.vlen] = kRowsMark;
    L.entries = L.vmat + L.vlen + 1;
    i64* rs = reinterpret_cast<i64*>(xp.data() + L.rowstart);
    i64 k = 0;
    for (int i = 0; i < nr; ++i) {
      rs[i] = k;
      double norm = 0;
      for (int e = 2; e <= neq; ++e) {
        if (rows[i][e] == 0.0) continue;
        const i64 w = L.entries + 2 * k++;
        a.work.xp.i[2 * w] = e;
        xp[w + 1] = rows[i][e];
        norm += std::fabs(rows[i][e]);
      }
      xp[L.norm + i] = norm;
    }
    rs[nr] = k;
    L.nentries = k;
    L.free = L.entries + 2 * k + 1;
    write_layout(a.work.xp, L);
  }
  double v(int i, int j) const {  // 1-based, packed
    if (j > i) std::swap(i, j);
    return xp[L.vmat + static_cast<i64>(i) * (i - 1) / 2 + j - 1];
  }
};

// Dense inverse of C[2..n, 2..n] over the equations in `keep`.
std::vector<std::vector<double>> dense_inverse(const Dense& c, const std::vector<int>& keep) {
  const int m = static_cast<int>(keep.size());
  std::vector<std::vector<double>> a(m, std::vector<double>(2 * m, 0.0));
  for (int i = 0; i < m; ++i) {
    for (int j = 0; j < m; ++j) a[i][j] = c(keep[i], keep[j]);
    a[i][m + i] = 1.0;
  }
  for (int k = 0; k < m; ++k) {
    int p = k;
    for (int i = k + 1; i < m; ++i)
      if (std::fabs(a[i][k]) > std::fabs(a[p][k])) p = i;
    std::swap(a[k], a[p]);
    const double d = a[k][k];
    for (double& x : a[k]) x /= d;
    for (int i = 0; i < m; ++i) {
      if (i == k || a[i][k] == 0.0) continue;
      const double f = a[i][k];
      for (int j = 0; j < 2 * m; ++j) a[i][j] -= f * a[k][j];
    }
  }
  const int n = c.n;
  std::vector<std::vector<double>> out(n + 1, std::vector<double>(n + 1, 0.0));
  for (int i = 0; i < m; ++i)
    for (int j = 0; j < m; ++j) out[keep[i]][keep[j]] = a[i][m + j];
  return out;
}

TEST(Prediction, VariancesFromTheFactorMatchADenseInverse) {
  // Sparse and dense parts, several orders: V(i,j) = p_i' C^-1 p_j and the
  // values p_i' b.
  for (unsigned seed : {3u, 11u, 29u}) {
    const int neq = 40, nd = 6;
    tarnel_test::Design d = tarnel_test::make_design(neq, 120, 4, seed, 0.8);
    Store st(neq, nd, 20000);
    ASSERT_TRUE(tarnel_test::load(st, d.c));
    tarnel_test::AbsorbRun ab = tarnel_test::absorb(st, tarnel_test::shuffled(neq, nd, seed));
    ASSERT_EQ(ab.rc, 0);
    std::vector<std::vector<double>> rows(5, std::vector<double>(neq + 1, 0.0));
    for (int i = 0; i < 5; ++i)
      for (int e = 2; e <= neq; ++e)
        if ((e + i * 7 + static_cast<int>(seed)) % 5 == 0) rows[i][e] = 0.25 * (1 + (e % 3)) - 0.1 * i;
    PraRun run(neq, rows);
    PraArgs r{&st.s, st.off(), ab.iw, ab.dd, ab.soln, 2.5, false};
    int nf = 0;
    ASSERT_EQ(g5vpra(run.a, r, nf), 0);
    // A table of variances only gets the same diagonal.
    PraRun diag(neq, rows, true);
    ASSERT_EQ(g5vpra(diag.a, r, nf), 0);
    for (int i = 0; i < 5; ++i) EXPECT_NEAR(diag.xp[diag.L.vmat + i], run.v(i + 1, i + 1), 1e-12);
    std::vector<int> keep;
    for (int e = 2; e <= neq; ++e) keep.push_back(e);
    auto ci = dense_inverse(d.c, keep);
    for (int i = 0; i < 5; ++i) {
      double val = 0;
      for (int e = 2; e <= neq; ++e) val += rows[i][e] * ab.soln[e - 1];
      EXPECT_NEAR(run.xp[run.L.value + i], val, 1e-10);
      EXPECT_EQ(run.xp[run.L.flag + i], 0.0);
      for (int j = 0; j <= i; ++j) {
        double want = 0;
        for (int e = 2; e <= neq; ++e)
          for (int f = 2; f <= neq; ++f) want += rows[i][e] * ci[e][f] * rows[j][f];
        EXPECT_NEAR(run.v(i + 1, j + 1), 2.5 * want, 1e-9 * (1 + std::fabs(want)));
      }
    }
  }
}

TEST(Prediction, RowsThroughASingularEquationAreFlagged) {
  // Equations 3 and 4 are one column twice (an aliased fixed effect): a row
  // with equal coefficients on them is estimable, one on 3 alone is not.
  const int neq = 12, nd = 5;
  tarnel_test::Design d = tarnel_test::make_design(neq, 60, 3, 5u, 0.5);
  Dense c = d.c;
  for (int j = 1; j <= neq; ++j)
    if (j != 3 && j != 4) c(4, j) = c(j, 4) = c(3, j);
  c(4, 4) = c(3, 3);
  c(3, 4) = c(4, 3) = c(3, 3);
  Store st(neq, nd, 5000);
  ASSERT_TRUE(tarnel_test::load(st, c));
  tarnel_test::AbsorbRun ab = tarnel_test::absorb(st, tarnel_test::natural(neq));
  ASSERT_EQ(ab.rc, 0);
  std::vector<std::vector<double>> rows(3, std::vector<double>(neq + 1, 0.0));
  rows[0][3] = rows[0][4] = 0.5;
  rows[0][7] = 1.0;
  rows[1][3] = 1.0;
  rows[2][2] = 1.0;
  rows[2][9] = -1.0;
  PraRun run(neq, rows);
  PraArgs r{&st.s, st.off(), ab.iw, ab.dd, ab.soln, 1.0, false};
  int nf = 0;
  ASSERT_EQ(g5vpra(run.a, r, nf), 0);
  EXPECT_EQ(run.xp[run.L.flag + 0], 0.0);
  EXPECT_EQ(run.xp[run.L.flag + 1], 1.0);
  EXPECT_EQ(run.xp[run.L.flag + 2], 0.0);
  // The estimable rows against the inverse with one of the twins left out.
  std::vector<int> keep;
  for (int e = 2; e <= neq; ++e)
    if (e != 4) keep.push_back(e);
  auto ci = dense_inverse(c, keep);
  for (int i : {0, 2}) {
    // Twin columns: p3 b3 + p4 b4 = p3 (b3 + b4) when p3 = p4.
    std::vector<double> p = rows[i];
    p[4] = 0;
    double want = 0;
    for (int e = 2; e <= neq; ++e)
      for (int f = 2; f <= neq; ++f) want += p[e] * ci[e][f] * p[f];
    EXPECT_NEAR(run.v(i + 1, i + 1), want, 1e-9 * (1 + want));
  }
}

TEST(Prediction, SedPassGroupsAndMarks) {
  // A 2 x 3 table (inner size 3) with row 5 not estimable.
  const int n = 6, c = 3;
  std::vector<double> v(n * (n + 1) / 2);
  auto at = [](int i, int j) { return i * (i - 1) / 2 + j - 1; };
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= i; ++j) v[at(i, j)] = i == j ? 2.0 + 0.3 * i : 0.2 + 0.05 * (i + j) + (j == i - 3 ? 0.4 : 0);
  std::vector<int> status{1, 1, 1, 1, 0, 1};
  std::vector<double> sed(v.size()), av(10);
  g5vsed(n, c, v, status, sed, av);
  double sum[3] = {0, 0, 0}, mn[3] = {1e9, 1e9, 1e9}, mx[3] = {0, 0, 0}, sq = 0;
  int cnt[3] = {0, 0, 0}, np = 0;
  for (int i = 1; i <= n; ++i) {
    if (!status[i - 1]) {
      for (int j = 1; j <= i; ++j) EXPECT_EQ(sed[at(i, j)], kMissing);
      continue;
    }
    EXPECT_EQ(sed[at(i, i)], 0.0);
    for (int j = 1; j < i; ++j) {
      const double s = std::sqrt(std::fabs(v[at(i, i)] + v[at(j, j)] - 2 * v[at(i, j)]));
      EXPECT_NEAR(sed[at(i, j)], s, 1e-14);
      if (!status[j - 1]) continue;
      const int g = (i - 1) % c == (j - 1) % c ? 0 : (i - 1) / c == (j - 1) / c ? 1 : 2;
      sum[g] += s;
      mn[g] = std::min(mn[g], s);
      mx[g] = std::max(mx[g], s);
      ++cnt[g];
      sq += s * s;
      ++np;
    }
  }
  EXPECT_NEAR(av[0], std::sqrt(sq / np), 1e-14);
  for (int g = 0; g < 3; ++g) {
    ASSERT_GT(cnt[g], 0);
    EXPECT_NEAR(av[1 + 3 * g], mn[g], 1e-14);
    EXPECT_NEAR(av[2 + 3 * g], sum[g] / cnt[g], 1e-14);
    EXPECT_NEAR(av[3 + 3 * g], mx[g], 1e-14);
  }
  // One way: only the first group, the others marked.
  g5vsed(n, 1, v, status, span<double>(), av);
  EXPECT_NEAR(av[0], std::sqrt(sq / np), 1e-14);
  EXPECT_EQ(av[4], kMissing);
  EXPECT_EQ(av[9], kMissing);
}

TEST(Prediction, BackTransformation) {
  Retran r = retran(16, 0.3, 2, 0, 1);
  EXPECT_DOUBLE_EQ(r.mean, 0.9999997);
  EXPECT_EQ(r.se, 0.0);
  r = retran(-16, 0.3, 2, 0, 1);
  EXPECT_DOUBLE_EQ(r.mean, 3e-07);
  r = retran(0.4, 0.2, 2, 0, 1);  // one-sided on purpose
  EXPECT_NEAR(r.se, 1 / (1 + std::exp(0.2 - 0.4)) - 1 / (1 + std::exp(-0.4)), 1e-15);
  r = retran(-1, 0.5, 6, 0, 1);
  EXPECT_EQ(r.mean, 0.0);
  EXPECT_DOUBLE_EQ(r.se, 0.25);
  r = retran(1.2, 0.1, 5, 0, 1);
  EXPECT_DOUBLE_EQ(r.mean, std::exp(1.2));
  EXPECT_NEAR(r.se, 0.5 * (std::exp(1.3) - std::exp(1.1)), 1e-14);
  EXPECT_EQ(retran(40, 0.1, 5, 0, 1).mean, 0.0);
  r = retran(0.3, 0.1, 3, 0, 1);
  EXPECT_NEAR(r.mean, 0.5 * std::erfc(-0.3 / std::sqrt(2.0)), 1e-14);
  r = retran(2.0, 0.1, 11, 1.0, 0.5);  // (eta)^(1/0.5) - offset
  EXPECT_DOUBLE_EQ(r.mean, 3.0);
  EXPECT_EQ(retran(1.0, 0.1, 99, 0, 1).mean, 0.0);
}

}  // namespace
