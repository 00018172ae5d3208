// Equation ordering: valid orders, fill far below the natural order's on
// animal-model and crossed patterns, and absorption in the chosen order
// agreeing with dense algebra.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>

#include "animal_pattern.h"
#include "console_capture.h"
#include "host/messages.h"
#include "sparse_harness.h"

using namespace tarnel_test;
using tarnel::span;

namespace {

i64 fill_of(const Store& st, const std::vector<i32>& iw) {
  std::vector<i32> w(8 * st.s.neq + st.s.lx + 16);
  return tarnel::symbolic_fill(st.s, span<const i32>(iw.data(), iw.size()),
                               span<i32>(w.data(), w.size()));
}

std::vector<i32> natural_iw(int n) {
  std::vector<i32> iw(2 * n);
  for (int p = 1; p <= n; ++p) iw[2 * (p - 1)] = iw[2 * (p - 1) + 1] = p;
  return iw;
}

// Absorbs the store in `ord` (with the block `tail` laid out complete) and
// checks log|C| and the solution against the dense LU of `c`.
AbsorbRun absorb_like_dense(Store& st, const std::vector<int>& ord, int tail, const Dense& c, double tol) {
  std::vector<double> ref;
  const double ld = lu_logdet(c, &ref);
  AbsorbRun r = absorb(st, ord, 1, nullptr, tail);
  EXPECT_EQ(r.rc, 0);
  EXPECT_LT(std::fabs(r.a.logdet - ld) / std::fabs(ld), 1e-9);
  for (int e = 2; e <= c.n; ++e) EXPECT_NEAR(r.soln[e - 1], ref[e], tol * std::fmax(1.0, std::fabs(ref[e]))) << e;
  return r;
}

}  // namespace

TEST(Order, AnimalModelFillAndDenseAgreement) {
  // Small: every variant gives a valid order, and absorbing in it agrees
  // with the dense solution.
  Triplets t = animal_model(300, 8, 5);
  const Dense c = dense_of(t);
  for (int which : {0, 1, 2}) {
    for (int mode : {1, 3}) {
      Store st(t.neq, t.ndense, 200000);
      ASSERT_TRUE(load_triplets(st, t));
      OrderRun o = order(st, which, mode);
      ASSERT_EQ(o.rc, 0) << which;
      std::vector<bool> seen(t.neq + 1, false);
      for (int p = 1; p <= t.neq; ++p) {
        const int e = o.iw[2 * (p - 1) + 1];
        ASSERT_TRUE(e >= 1 && e <= t.neq && !seen[e]);
        seen[e] = true;
        EXPECT_EQ(o.iw[2 * (e - 1)], p);
      }
      const i64 f = fill_of(st, o.iw), fn = fill_of(st, natural_iw(t.neq));
      EXPECT_LT(f, fn);
      // With mode 3 the absorption is told the block the order leaves, and
      // lays it out complete first.
      EXPECT_GT(o.a.tail, 0);
      AbsorbRun r = absorb_like_dense(st, o.ord(), mode == 3 ? o.a.tail : 0, c, 1e-9);
      EXPECT_EQ(r.a.nsing, 0);
      // The absorption's own high-water mark of the pool stays near the
      // symbolic fill (rows are freed as they are packed).
      EXPECT_LT(r.a.peaklx, 4 * f + t.neq + 100);
    }
  }
  // Large: fill far below the natural order's.
  Triplets big = animal_model(20000, 200, 9);
  Store st(big.neq, big.ndense, 4000000);
  ASSERT_TRUE(load_triplets(st, big));
  OrderRun o = order(st, 0, 1);
  ASSERT_EQ(o.rc, 0) << o.err << " peak " << o.a.peak;
  const i64 f = fill_of(st, o.iw), fn = fill_of(st, natural_iw(big.neq));
  std::printf("[ fill ] animal 20000: g5veor %lld, natural %lld, own count %lld, pattern slots %lld\n",
              (long long)f, (long long)fn, (long long)o.a.fill, (long long)o.a.peak);
  EXPECT_LT(5 * f, fn);
}

TEST(Order, SymbolicFillMatchesDenseElimination) {
  // The fill count used above, against a dense symbolic elimination.
  Triplets t = animal_model(120, 5, 3);
  Store st(t.neq, t.ndense, 50000);
  ASSERT_TRUE(load_triplets(st, t));
  for (unsigned seed : {1u, 2u}) {
    std::vector<int> ord = shuffled(t.neq, t.ndense, seed);
    std::vector<i32> iw(2 * t.neq);
    for (int p = 1; p <= t.neq; ++p) iw[2 * (p - 1) + 1] = ord[p];
    // Dense symbolic: pattern by position, eliminate from the top.
    const int n = t.neq;
    std::vector<std::vector<char>> pat(n + 1, std::vector<char>(n + 1, 0));
    std::vector<int> posof(n + 1);
    for (int p = 1; p <= n; ++p) posof[ord[p]] = p;
    for (size_t k = 0; k < t.r.size(); ++k) {
      const int a = posof[t.r[k]], b = posof[t.c[k]];
      pat[a][b] = pat[b][a] = 1;
    }
    i64 nnz = 0;
    for (int p = n; p > t.ndense; --p) {
      std::vector<int> nb;
      for (int q = t.ndense + 1; q < p; ++q)
        if (pat[p][q]) nb.push_back(q);
      nnz += 1 + static_cast<i64>(nb.size());
      for (int x : nb)
        for (int y : nb) pat[x][y] = 1;
    }
    EXPECT_EQ(fill_of(st, iw), nnz);
  }
}

TEST(Order, EmptyRowsGoFirstAndTooLittleSpaceFails) {
  Triplets t = animal_model(200, 4, 8);
  // Add 5 untouched equations at the end.
  Store st(t.neq + 5, t.ndense, 50000);
  ASSERT_TRUE(load_triplets(st, t));
  OrderRun o = order(st, 0, 1);
  ASSERT_EQ(o.rc, 0);
  for (int p = t.neq + 1; p <= t.neq + 5; ++p) EXPECT_GT(o.iw[2 * (p - 1) + 1], t.neq);
  // A working pattern with too few slots: error 7, no overrun.
  OrderRun small = order(st, 0, 1, [&](OrderRun& r) { r.work.assign(8 * st.s.neq + 2 * (st.s.neq + 50), 0); });
  EXPECT_EQ(small.rc, 1);
  EXPECT_EQ(small.err, 7);
}

TEST(Order, EqnordFileRoundTripAndStaleHeader) {
  // Run in a scratch directory: the file lives in the working directory.
  char tmpl[] = "/tmp/tarnel_eqnord_XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  char old[4096];
  ASSERT_NE(getcwd(old, sizeof old), nullptr);
  ASSERT_EQ(chdir(tmpl), 0);
  const int neq = 2503, nd = 3;
  std::vector<int> ord = shuffled(neq, nd, 3);
  std::vector<i32> iw(2 * neq), back(2 * neq, 0);
  for (int p = 1; p <= neq; ++p) iw[2 * (p - 1) + 1] = ord[p];
  ASSERT_EQ(tarnel::eqnord_write(span<const i32>(iw.data(), iw.size()), nd, neq, 4, 77, 1000, false), 0);
  ASSERT_EQ(tarnel::eqnord_read(span<i32>(back.data(), back.size()), nd, neq, 4, 77, 1000, false), 0);
  for (int p = 1; p <= neq; ++p) {
    EXPECT_EQ(back[2 * (p - 1) + 1], ord[p]);
    EXPECT_EQ(back[2 * (ord[p] - 1)], p);
  }
  // One header value different: not used, and the file is removed.
  EXPECT_EQ(tarnel::eqnord_read(span<i32>(back.data(), back.size()), nd, neq, 4, 78, 1000, false), 1);
  EXPECT_NE(access("EQNORD.BIN", F_OK), 0);
  EXPECT_EQ(chdir(old), 0);
  rmdir(tmpl);
}

TEST(Order, BitMatrixComplementFormAndChainsGiveTheSameOrder) {
  // Once few rows are left the ordering continues on a bit matrix, if the
  // room allows; with less room it goes on merging chains, and held only in
  // chains to the end, rows that pass half of what is left turn into
  // complement form.  Every way must give the same order and fill count.
  Triplets t = animal_model(6000, 60, 17);
  Store st(t.neq, t.ndense, 1000000);
  ASSERT_TRUE(load_triplets(st, t));
  for (int which : {0, 1, 2}) {
    OrderRun ref = order(st, which, 1);
    ASSERT_EQ(ref.rc, 0);
    int chains = 0;
    for (i64 maxlx : {60000, 120000, 180000, 240000, 300000}) {
      if (which == 2) break;
      OrderRun o = order(st, which, 1, [&](OrderRun& r) { r.a.maxlx = maxlx; });
      if (o.rc != 0) continue;
      if (o.a.peak < ref.a.peak) ++chains;
      EXPECT_EQ(o.iw, ref.iw) << maxlx;
      EXPECT_EQ(o.a.fill, ref.a.fill);
      EXPECT_EQ(o.a.tail, ref.a.tail);
    }
    EXPECT_TRUE(which == 2 || chains >= 1);
    OrderRun o = order(st, which, 1, [](OrderRun& r) { r.a.bitrows = 0; });
    ASSERT_EQ(o.rc, 0);
    EXPECT_GT(o.a.complements, 0);
    EXPECT_EQ(o.iw, ref.iw) << which;
    EXPECT_EQ(o.a.fill, ref.a.fill);
  }
}

namespace {

// The equations of several traits per level: every sparse equation of `t`
// becomes `nt` equations, and each sparse-sparse element a Kronecker block
// with a fixed trait matrix, so the traits of one level are alike.
Triplets with_traits(const Triplets& t, int nt) {
  const double s[3][3] = {{2.0, 0.5, 0.3}, {0.5, 2.0, 0.4}, {0.3, 0.4, 2.0}};
  auto eq = [&](int e, int k) { return e <= t.ndense ? e : t.ndense + (e - t.ndense - 1) * nt + k + 1; };
  Cells m;
  for (size_t x = 0; x < t.r.size(); ++x) {
    const int a = t.r[x], b = t.c[x];
    if (b <= t.ndense) {
      // The dense columns (response, mean) meet the first trait only, which
      // keeps the equations positive definite; the ordering does not see
      // dense columns, so the traits stay alike.
      m[{eq(a, 0), b}] += t.v[x];
      continue;
    }
    for (int k = 0; k < nt; ++k)
      for (int l = 0; l < nt; ++l) {
        const int i = eq(a, k), j = eq(b, l);
        if (i >= j) m[{i, j}] += t.v[x] * s[k][l];
      }
  }
  return from_cells(m, eq(t.neq, nt - 1), t.ndense);
}

std::vector<i32> positions(const OrderRun& o, int neq) {
  std::vector<i32> pos(neq + 1);
  for (int p = 1; p <= neq; ++p) pos[o.iw[2 * (p - 1) + 1]] = p;
  return pos;
}

}  // namespace

TEST(Order, RowGroupsEliminateAlikeRowsTogether) {
  const int nt = 3;
  Triplets one = animal_model(300, 8, 5);
  Triplets t = with_traits(one, nt);
  const Dense c = dense_of(t);
  Store plain_st(t.neq, t.ndense, 400000);
  ASSERT_TRUE(load_triplets(plain_st, t));
  const i64 fill_plain = fill_of(plain_st, order(plain_st, 0, 1).iw);
  for (int which : {0, 2}) {
    for (int mode : {3, 4}) {
      Store st(t.neq, t.ndense, 400000);
      ASSERT_TRUE(load_triplets(st, t));
      OrderRun o = order(st, which, mode);
      ASSERT_EQ(o.rc, 0) << which << " " << mode;
      // Most levels form a group of their three traits, eliminated at
      // consecutive positions.
      EXPECT_GT(o.a.groups, (one.neq - one.ndense));
      std::vector<i32> pos = positions(o, t.neq);
      int together = 0, levels = 0;
      for (int e = one.ndense + 1; e <= one.neq; ++e, ++levels) {
        int lo = t.neq, hi = 0;
        for (int k = 0; k < nt; ++k) {
          const int q = pos[t.ndense + (e - t.ndense - 1) * nt + k + 1];
          lo = std::min(lo, q);
          hi = std::max(hi, q);
        }
        if (hi - lo == nt - 1) ++together;
      }
      EXPECT_GT(together, 8 * levels / 10) << together << " of " << levels;
      // Eliminating a group at once costs no more fill than one by one.
      const i64 f = fill_of(st, o.iw);
      EXPECT_LT(f, fill_plain + fill_plain / 10) << f << " " << fill_plain;
      absorb_like_dense(st, o.ord(), o.a.tail, c, 1e-9);
    }
  }
}

TEST(Order, NestingRuleKeepsTheLevelsOfTheLargerFactorTogether) {
  // Sites x genotypes with a site covariance per genotype (the rows of one
  // genotype are linked), replicates within sites, one plot per site,
  // replicate and genotype.
  const int ns = 3, ng = 40, nr = 4, nd = 2;
  const int first = nd + 1, rep0 = first + ns * ng;
  const int neq = rep0 + ns * nr - 1;
  Cells m;
  auto add = [&](int a, int b, double x) { m[{std::max(a, b), std::min(a, b)}] += x; };
  std::mt19937 rng(4);
  std::normal_distribution<double> z(0, 1);
  for (int g = 0; g < ng; ++g)
    for (int s = 0; s < ns; ++s)
      for (int u = 0; u <= s; ++u) add(first + s * ng + g, first + u * ng + g, s == u ? 2.0 : 0.6);
  for (int s = 0; s < ns; ++s)
    for (int r = 0; r < nr; ++r) {
      const int re = rep0 + s * nr + r;
      add(re, re, 0.5);
      for (int g = 0; g < ng; ++g) {
        const int ge = first + s * ng + g;
        const double y = 5 + z(rng);
        add(1, 1, y * y);
        add(2, 1, y);
        add(2, 2, 1);
        for (int x : {ge, re}) {
          add(x, 1, y);
          add(x, 2, 1);
        }
        add(ge, ge, 1);
        add(re, re, 1);
        add(ge, re, 1);
      }
    }
  const Triplets t = from_cells(m, neq, nd);
  const Dense c = dense_of(t);
  Store st(t.neq, t.ndense, 100000);
  ASSERT_TRUE(load_triplets(st, t));
  auto nest = [&](int at) {
    return [=](OrderRun& r) { r.a.nest[0] = at, r.a.nest[1] = ns, r.a.nest[2] = ng; };
  };
  for (int which : {0, 1, 2}) {
    OrderRun o = order(st, which, 1, nest(first - 1));
    ASSERT_EQ(o.rc, 0);
    std::vector<i32> pos = positions(o, t.neq);
    int together = 0;
    for (int g = 0; g < ng; ++g) {
      int lo = t.neq, hi = 0;
      for (int s = 0; s < ns; ++s) {
        lo = std::min(lo, pos[first + s * ng + g]);
        hi = std::max(hi, pos[first + s * ng + g]);
      }
      if (hi - lo == ns - 1) ++together;
    }
    EXPECT_GE(together, ng - 2) << which;
    Store st2(t.neq, t.ndense, 100000);
    ASSERT_TRUE(load_triplets(st2, t));
    absorb_like_dense(st2, o.ord(), o.a.tail, c, 1e-9);
  }
  // A record that does not fit the equations: a message, and the order is
  // found as usual.
  capture_begin();
  OrderRun bad = order(st, 0, 1, nest(neq - 5));
  const std::string out = capture_end();
  EXPECT_EQ(bad.rc, 0);
  EXPECT_NE(out.find("NESTEQ Error"), std::string::npos) << out;
  EXPECT_EQ(bad.iw, order(st, 0, 1).iw);
}

TEST(Order, ZeroDiagonalRowsWaitForANeighbour) {
  // Two constraint rows (zero diagonal) on herd and animal effects, given
  // the first sparse equation numbers so that a plain order may well
  // absorb them first.  With delays each waits until a neighbour has been
  // eliminated, and the absorption needs no pivot moves.
  Triplets base = animal_model(400, 10, 12);
  const int nd = base.ndense, k1 = nd + 1, k2 = nd + 2;
  auto shift = [&](int e) { return e <= nd ? e : e + 2; };
  Cells m;
  for (size_t x = 0; x < base.r.size(); ++x) m[{shift(base.r[x]), shift(base.c[x])}] += base.v[x];
  m[{k1, k1}] = 0.0;
  m[{k2, k2}] = 0.0;
  for (int h = 0; h < 5; ++h) m[{shift(3 + h), k1}] = 1.0;
  for (int a = 0; a < 6; ++a) m[{shift(3 + base.neq - 400 + 7 * a), k2}] = 1.0 + 0.1 * a;
  const Triplets t = from_cells(m, base.neq + 2, nd);
  const Dense c = dense_of(t);
  for (int which : {0, 2}) {
    Store st(t.neq, t.ndense, 300000);
    ASSERT_TRUE(load_triplets(st, t));
    OrderRun o = order(st, which, 4);
    ASSERT_EQ(o.rc, 0);
    std::vector<i32> pos = positions(o, t.neq);
    for (int k : {k1, k2}) {
      int top = 0;  // highest position of a neighbour: absorbed first
      for (size_t x = 0; x < t.r.size(); ++x)
        if ((t.r[x] == k) != (t.c[x] == k)) top = std::max(top, pos[t.r[x] == k ? t.c[x] : t.r[x]]);
      EXPECT_LT(pos[k], top) << k;
    }
    AbsorbRun r = absorb_like_dense(st, o.ord(), o.a.tail, c, 1e-8);
    EXPECT_EQ(r.a.moves, 0);
    EXPECT_EQ(r.a.nsing, 0);
  }
}

TEST(Order, RandomPatternsEveryVariantAndMode) {
  // Random designs with twin rows (groups), constraint rows with a zero
  // diagonal, untouched equations and, for some seeds, a row joined
  // to most others: every variant and mode, chains only or with the bit
  // matrix, gives a valid order in which absorption agrees with dense LU.
  for (unsigned seed = 1; seed <= 12; ++seed) {
    std::mt19937 rng(seed);
    const int nbase = 40 + static_cast<int>(rng() % 80), nd = 1 + static_cast<int>(rng() % 3);
    Design d = make_design(nbase, 3 * nbase, 2 + static_cast<int>(rng() % 3), seed, 0.2);
    Cells m;
    for (int i = 1; i <= nbase; ++i)
      for (int j = 1; j <= i; ++j)
        if (d.c(i, j) != 0.0) m[{i, j}] = d.c(i, j);
    // Twins: new equations with the pattern of an existing one, joined to
    // it, so that the two are alike (groups).
    const int ntwin = 4, nsp = nbase + ntwin;
    for (int k = 1; k <= ntwin; ++k) {
      const int a = nbase + k, b = nd + 1 + static_cast<int>(rng() % (nbase - nd));
      for (int j = 1; j <= nbase; ++j)
        if (j != b && d.c(b, j) != 0.0) m[{a, j}] += 0.5 * d.c(b, j);
      m[{a, b}] += 0.3;
      m[{a, a}] += 0.5 * d.c(b, b) + 2.0;
    }
    if (seed % 3 == 0)  // one row joined to most others
      for (int j = nd + 1; j < nbase; j += 1 + static_cast<int>(rng() % 2)) m[{nbase, j}] += 0.05;
    // Two constraint rows with a zero diagonal, and three untouched rows.
    const int neq = nsp + 5;
    for (int k : {nsp + 1, nsp + 2}) {
      m[{k, k}] = 0.0;
      for (int t = 0; t < 4; ++t) m[{k, nd + 1 + static_cast<int>(rng() % (nbase - nd))}] = 1.0 + 0.1 * t;
    }
    Triplets t = from_cells(m, neq, nd);
    Dense c = dense_of(t);
    // Untouched rows solve to 0 and are singular: take them out of the
    // dense reference.
    Dense cr(nsp + 2);
    for (int i = 1; i <= nsp + 2; ++i)
      for (int j = 1; j <= nsp + 2; ++j) cr(i, j) = c(i, j);
    std::vector<double> ref;
    const double ld = lu_logdet(cr, &ref);
    for (int which : {0, 1, 2})
      for (int mode : {1, 2, 3, 4, 5})
        for (int bits : {-1, 0}) {
          Store st(neq, nd, 200000);
          ASSERT_TRUE(load_triplets(st, t));
          OrderRun o = order(st, which, mode, [&](OrderRun& r) { r.a.bitrows = bits; });
          ASSERT_EQ(o.rc, 0) << seed << " " << which << " " << mode;
          std::vector<int> seen(neq + 1, 0);
          for (int p = 1; p <= neq; ++p) ++seen[o.ord()[p]];
          for (int e = 1; e <= neq; ++e) ASSERT_EQ(seen[e], 1);
          AbsorbRun r = absorb(st, o.ord(), 1, nullptr, o.a.tail);
          ASSERT_EQ(r.rc, 0) << seed << " " << which << " " << mode;
          EXPECT_EQ(r.a.nsing, 3) << seed << " " << which << " " << mode;
          EXPECT_LT(rel(r.a.logdet, ld), 1e-9) << seed << " " << which << " " << mode << " " << bits;
          for (int e = 2; e <= nsp + 2; ++e)
            EXPECT_LT(rel(r.soln[e - 1], ref[e]), 1e-7) << seed << " " << e;
        }
  }
}
