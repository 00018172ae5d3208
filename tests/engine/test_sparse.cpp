// The sparse equations against dense linear algebra: kernels of the row
// store, SSP formation and the natural order.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "host/messages.h"
#include "sparse_harness.h"

using namespace tarnel_test;
using tarnel::span;

TEST(RowStore, KernelsKeepRowsSortedAndPackCompact) {
  // Row 5 of a store with NDENSE 1: insert columns out of order.
  Store st(6, 1, 40);
  tarnel::Pool p = st.s.pool();
  const i64 h = st.s.head(5);
  ASSERT_EQ(p.lnk(h), -1);
  ASSERT_EQ(tarnel::g5vlld(p, st.s.lx, h, 5, 0.0), 0);  // first touch: diagonal
  i64 pos = h;
  EXPECT_EQ(tarnel::g5vlli(p, st.s.lx, pos, 3, 2.0), 0);
  pos = h;
  EXPECT_EQ(tarnel::g5vlli(p, st.s.lx, pos, 2, 1.0), 0);
  pos = h;
  EXPECT_EQ(tarnel::g5vlli(p, st.s.lx, pos, 5, 4.0), 0);  // the diagonal
  EXPECT_EQ(pos, 0);                                      // left at link 0
  pos = h;
  EXPECT_EQ(tarnel::g5vlli(p, st.s.lx, pos, 6, 1.0), 1);  // beyond the diagonal
  std::vector<int> cols;
  for (i64 s = h; s > 0; s = p.lnk(s)) cols.push_back(p.col(s));
  EXPECT_EQ(cols, (std::vector<int>{1, 2, 3, 5}));
  EXPECT_EQ(tarnel::g5vxii(5, p, 1, 0) > 0, true);
  EXPECT_DOUBLE_EQ(p.val(tarnel::g5vxii(5, p, 1, 0)), 4.0);
  EXPECT_EQ(tarnel::g5vxii(4, p, 1, 0), 0);  // untouched

  // Pack it: the diagonal comes back, the slots become holes, and the
  // packed row reads back by column.
  i64 lx = st.s.lx, top = 40, rstart = 0, len = 0;
  int err = 0;
  tarnel::PackArgs pa;
  pa.lx = &lx;
  pa.top = &top;
  pa.ndense = 1;
  pa.neq = 6;
  pa.err = &err;
  EXPECT_DOUBLE_EQ(tarnel::g5vxil(p, pa, rstart, 5, len), 4.0);
  EXPECT_EQ(len, 4);
  EXPECT_EQ(lx, 6);  // trailing holes dropped down to the first slot after the heads
  i64 at = rstart;
  EXPECT_DOUBLE_EQ(tarnel::g5vxij(p, at, rstart - len + 1, 3, err), 2.0);
  EXPECT_DOUBLE_EQ(tarnel::g5vxij(p, at, rstart - len + 1, 4, err), 0.0);
  EXPECT_EQ(err, 0);
  at = rstart - len + 1;
  tarnel::g5vxij(p, at, rstart - len + 1, 9, err);
  EXPECT_EQ(err, 2666);
  // An untouched row packs to nothing.
  EXPECT_DOUBLE_EQ(tarnel::g5vxil(p, pa, rstart, 4, len), 0.0);
  EXPECT_EQ(len, 0);

  // Compaction: holes in the middle are filled and rows stay intact.
  Store big(300, 1, 2000);
  tarnel::Pool q = big.s.pool();
  for (int r = 2; r <= 300; ++r) {
    tarnel::g5vlld(q, big.s.lx, big.s.head(r), r, r);
    i64 ps = big.s.head(r);
    tarnel::g5vlli(q, big.s.lx, ps, r / 2 + 1 < r ? r / 2 + 1 : 1, 1.0);
  }
  // Punch holes by packing rows 150..250 away.
  i64 t2 = 2000, l2 = big.s.lx;
  pa.lx = &l2;
  pa.top = &t2;
  pa.neq = 300;
  err = 0;
  for (int r = 250; r >= 150; --r) tarnel::g5vxil(q, pa, rstart, r, len);
  ASSERT_EQ(err, 0);
  const i64 before = l2;
  EXPECT_EQ(tarnel::g5vllp(q, l2, 1, 300, 1, false, 6), 1);  // cannot get below 1
  EXPECT_LT(l2, before);
  for (int r = 2; r <= 300; ++r) {
    if (r >= 150 && r <= 250) continue;
    const i64 d = tarnel::g5vxii(r, q, 1, 0);
    ASSERT_GT(d, 0) << r;
    EXPECT_DOUBLE_EQ(q.val(d), r);
  }
}

TEST(Ssp, IdentityAndWeightedSectionsWithScaledIdentityG) {
  const int neq = 40, nd = 3;
  Design d = make_design(neq, 120, 4, 41, 0.0);
  const int nrec = 120;
  std::vector<double> wts(nrec);
  for (int i = 0; i < nrec; ++i) wts[i] = (i % 7 == 0) ? 0.0 : 0.5 + (i % 5) * 0.25;
  // Record by record, and row by row with the records in one section or in
  // two (the second merged into the rows the first formed).
  for (int weighted : {0, 1})
  for (int rows : {0, 1, 2}) {
    SCOPED_TRACE(10 * weighted + rows);
    Store st(neq, nd, 20000);
    SspRun run(d.val, d.col, d.start, neq);
    std::vector<int> struc(15, 0);
    std::vector<double> gammas{2.0, 0.5, 4.0};
    run.sec.struc = span<const int>(struc.data(), struc.size());
    run.sec.lstruc = 15;
    run.sec.termcode = weighted ? 0 : -1;
    run.sec.sigma2 = 2.5;
    run.sec.gammas = span<const double>(gammas.data(), gammas.size());
    run.sec.weights = span<const double>(wts.data(), wts.size());
    run.augment();  // each record's weighted design row
    if (rows > 0) run.by_rows(neq);
    if (rows == 2) {
      run.sec.last = nrec / 2;
      ASSERT_EQ(tarnel::g5vxxs(st.s, run.sec, run.w), 0) << run.err;
      run.sec.first = nrec / 2 + 1;
      run.sec.last = nrec;
    }
    ASSERT_EQ(tarnel::g5vxxs(st.s, run.sec, run.w), 0) << run.err;
    EXPECT_TRUE(run.scratch_clear());
    if (rows == 2) run.sec.first = 1;
    for (int i = 0; i < nrec; ++i) {
      const double wi = (weighted ? wts[i] : 1.0) / 2.5;
      std::vector<double> want(neq, 0.0);
      for (i64 k = d.start[i]; k < d.start[i + 1]; ++k) want[d.col[k - 1] - 1] += wi * d.val[k - 1];
      const std::vector<double> got = run.aug_row(i, neq);
      EXPECT_EQ(got.empty(), wi == 0.0) << i;
      for (size_t c = 0; c < got.size(); ++c) EXPECT_NEAR(got[c], want[c], 1e-14) << i;
    }
    // G: term 1 (equations 2..10) fixed, term 2 (11..25) scale gamma 2,
    // term 3 (26..40) scale gamma 3.
    std::vector<tarnel::GTerm> terms(3);
    terms[0].nlev = 9;
    terms[1].nlev = 15;
    terms[1].code = 2;
    terms[2].nlev = 15;
    terms[2].code = 3;
    int nf = 0;
    ASSERT_EQ(tarnel::g5vxxg(st.s, span<const tarnel::GTerm>(terms.data(), terms.size()),
                             span<const double>(gammas.data(), gammas.size()), run.w, nf),
              0);
    // Dense reference from the records.
    Dense ref(neq);
    for (int i = 0; i < nrec; ++i) {
      const double wi = (weighted ? wts[i] : 1.0) / 2.5;
      for (i64 k = d.start[i]; k < d.start[i + 1]; ++k)
        for (i64 j = d.start[i]; j <= k; ++j)
          ref.add_sym(d.col[k - 1], d.col[j - 1], wi * d.val[k - 1] * d.val[j - 1]);
    }
    for (int e = 11; e <= 25; ++e) ref(e, e) += 1 / 0.5;
    for (int e = 26; e <= 40; ++e) ref(e, e) += 1 / 4.0;
    const Dense got = read_store(st);
    for (int i = 1; i <= neq; ++i)
      for (int j = 1; j <= i; ++j) EXPECT_NEAR(got(i, j), ref(i, j), 1e-12 * (1 + std::fabs(ref(i, j))));
    EXPECT_EQ(run.skipped, weighted ? (nrec + 6) / 7 : 0);
    double ldref = nrec * std::log(2.5);
    if (weighted)
      for (double x : wts)
        if (x > 0) ldref -= std::log(x);
    EXPECT_NEAR(run.logdet, ldref, 1e-9);
  }
}

TEST(Order, NaturalOrderTermsAndMarkers) {
  std::vector<i32> iw(2 * 8, -5);
  std::vector<i32> nlev{3, 2, 2}, marker{0, -999, 0};
  int nf = 0;
  ASSERT_EQ(tarnel::g5vmor(span<i32>(iw.data(), iw.size()), 8, span<const i32>(nlev.data(), 3),
                           span<const i32>(marker.data(), 3), nf),
            0);
  const std::vector<i32> want{0, 1, 1, 2, 1, 3, 1, 4, -2, 5, -2, 6, 3, 7, 3, 8};
  EXPECT_EQ(iw, want);
  // Levels that do not add up to NEQ - 1 are refused.
  EXPECT_EQ(tarnel::g5vmor(span<i32>(iw.data(), iw.size()), 9, span<const i32>(nlev.data(), 3),
                           span<const i32>(marker.data(), 3), nf),
            1);
  EXPECT_EQ(nf, 7);
}

TEST(Ssp, GeneralCaseWithStructuredResidualRows) {
  // R^-1 = (c I_3) x T, T tridiagonal Toeplitz, records in the product's
  // running order (the last section fastest); X'R^-1 X / sigma2 against the
  // dense product.
  const int neq = 25, nd = 2, nb = 8, nrec = 3 * nb;
  Design d = make_design(neq, nrec, 3, 51, 0.0);
  std::vector<double> work(64, 0.0);
  work[0] = 2.0;                                       // c at position 1
  for (int k = 0; k < nb; ++k) work[10 + k] = 1.5;     // T diagonal at 11
  for (int k = 0; k < nb; ++k) work[10 + nb + k] = -0.4;  // off-diagonal
  tarnel::WorkArray wa(work.data(), work.size());
  std::vector<int> struc(2 * 15, 0);
  struc[0] = 3;   // section 1: order 3
  struc[15] = nb; // section 2: order nb
  tarnel::StrucRow rows[2] = {{struc.data()}, {struc.data() + 15}};
  tarnel::FormRecord recs[2];
  recs[0].kindi = 0;
  recs[0].posi = 1;
  recs[1].kindi = 3;
  recs[1].posi = 11;
  std::vector<int> giv(5, 0);
  tarnel::GivTable gt;
  gt.table = span<int>(giv.data(), giv.size());
  std::vector<double> scr(nb), rrow(nrec);
  std::vector<int> scols(nb), rcols(nrec);
  Store st(neq, nd, 20000);
  SspRun run(d.val, d.col, d.start, neq);
  tarnel::SspSection& sec = run.sec;
  sec.termcode = -3;
  sec.sigma2 = 1.7;
  sec.rsrc.records = recs;
  sec.rsrc.rows = rows;
  sec.rsrc.nsect = 2;
  sec.rsrc.work = &wa;
  sec.rsrc.giv = &gt;
  sec.rsrc.scratch = span<double>(scr.data(), scr.size());
  sec.rsrc.scols = span<int>(scols.data(), scols.size());
  sec.rrow = span<double>(rrow.data(), rrow.size());
  sec.rcols = span<int>(rcols.data(), rcols.size());
  run.augment();
  ASSERT_EQ(tarnel::g5vxxs(st.s, sec, run.w), 0) << run.err;
  // Dense reference.
  std::vector<double> R(nrec * nrec, 0.0), X(nrec * neq, 0.0);
  for (int a = 0; a < nrec; ++a)
    for (int b = 0; b < nrec; ++b) {
      if (a / nb != b / nb) continue;
      const int i = a % nb, j = b % nb;
      const double t = i == j ? 1.5 : (std::abs(i - j) == 1 ? -0.4 : 0.0);
      R[a * nrec + b] = 2.0 * t / 1.7;
    }
  for (int a = 0; a < nrec; ++a)
    for (i64 k = d.start[a]; k < d.start[a + 1]; ++k) X[a * neq + d.col[k - 1] - 1] = d.val[k - 1];
  const Dense got = read_store(st);
  for (int r = 1; r <= neq; ++r)
    for (int c = 1; c <= r; ++c) {
      double ref = 0;
      for (int a = 0; a < nrec; ++a)
        for (int b = 0; b < nrec; ++b) ref += X[a * neq + r - 1] * R[a * nrec + b] * X[b * neq + c - 1];
      EXPECT_NEAR(got(r, c), ref, 1e-12 * (1 + std::fabs(ref))) << r << "," << c;
    }
  // Augmented row a: (R^-1 X)(a, .).
  for (int a = 0; a < nrec; ++a) {
    const std::vector<double> row = run.aug_row(a, neq);
    ASSERT_EQ(row.size(), static_cast<size_t>(neq)) << a;
    for (int c = 0; c < neq; ++c) {
      double ref = 0;
      for (int b = 0; b < nrec; ++b) ref += R[a * nrec + b] * X[b * neq + c];
      EXPECT_NEAR(row[c], ref, 1e-12 * (1 + std::fabs(ref))) << a + 1 << "," << c + 1;
    }
  }
  EXPECT_TRUE(run.scratch_clear());
}
