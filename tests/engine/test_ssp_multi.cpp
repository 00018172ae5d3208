// Multivariate residual sections of the SSP formation against dense
// algebra: per unit, X_o' inv(R_oo) X_o over the observed traits and
// log |R_oo|, with Sigma built from the parameters here, not from the
// engine's rows.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "console_capture.h"
#include "host/messages.h"
#include "sparse_harness.h"
#include "variance_support.h"

using namespace tarnel_test;
using tarnel::span;
using vtest::Mat;

namespace {

// Sigma of the traits by name, from its parameters.
Mat sigma_of(const std::string& kind, const std::vector<double>& p, int t) {
  Mat s(t * t, 0.0);
  for (int i = 1; i <= t; ++i)
    for (int j = 1; j <= t; ++j) {
      double v = 0.0;
      if (kind == "US") v = p[i >= j ? i * (i - 1) / 2 + j - 1 : j * (j - 1) / 2 + i - 1];
      if (kind == "DIAG") v = i == j ? p[i - 1] : 0.0;
      if (kind == "AR1") v = std::pow(p[0], std::abs(i - j));
      if (kind == "IDEN") v = i == j ? p[0] : 0.0;
      vtest::at(s, t, i, j) = v;
    }
  return s;
}

std::vector<double> params_of(const std::string& kind, int t) {
  if (kind == "DIAG") return t == 2 ? std::vector<double>{1.3, 0.6} : std::vector<double>{1.3, 0.6, 2.2};
  if (kind == "AR1") return {0.55};
  if (kind == "IDEN") return {1.8};
  std::vector<double> p;  // B B' + I, off-diagonals well away from zero
  for (int i = 1; i <= t; ++i)
    for (int j = 1; j <= i; ++j) {
      double s = i == j ? 1.0 : 0.0;
      for (int k = 1; k <= j; ++k) s += (0.4 + 0.15 * ((i + k) % 3)) * (0.5 + 0.1 * ((j + k) % 4));
      p.push_back(s);
    }
  return p;
}

// Units of t records (trait fastest): response, the trait's mean, and a
// few random columns.  miss[u][k] marks a missing response.
struct MvDesign {
  std::vector<double> val;
  std::vector<i32> col;
  std::vector<i64> start{1};
  std::vector<std::vector<bool>> miss;
};
MvDesign mv_design(int nu, int t, int neq, unsigned seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> z(0, 1);
  std::uniform_int_distribution<int> pick(t + 2, neq);
  std::uniform_real_distribution<double> uni(0, 1);
  MvDesign d;
  for (int u = 0; u < nu; ++u) {
    std::vector<bool> m(t, false);
    for (int k = 0; k < t; ++k) m[k] = uni(rng) < 0.2;
    if (u == 0) std::fill(m.begin(), m.end(), false);
    if (u == 3) std::fill(m.begin(), m.end(), true), m[0] = false;  // one trait seen
    if (u == 5) std::fill(m.begin(), m.end(), true);                // none seen
    d.miss.push_back(m);
    for (int k = 0; k < t; ++k) {
      std::vector<int> cols{1, 2 + k};
      for (int q = 0; q < 3; ++q) {
        const int c = pick(rng);
        if (std::find(cols.begin(), cols.end(), c) == cols.end()) cols.push_back(c);
      }
      std::sort(cols.begin(), cols.end());
      for (size_t q = 0; q < cols.size(); ++q) {
        d.col.push_back(cols[q]);
        d.val.push_back(q == 0 ? (m[k] ? tarnel::kMissing : 2 + z(rng)) : 1 + 0.4 * z(rng));
      }
      d.start.push_back(static_cast<i64>(d.val.size()) + 1);
    }
  }
  return d;
}

// Everything one multivariate section needs, owned here.
struct MvRun : SspRun {
  vtest::Fit fit;
  std::vector<tarnel::StrucRow> rows;
  std::vector<double> scr, mvw;
  std::vector<int> scols, mvi;
  MvRun(const MvDesign& d, int t, int neq) : SspRun(d.val, d.col, d.start, neq), fit(20000) {
    mvw.assign(tarnel::mv_scratch_reals(t), 0.0);
    mvi.assign(tarnel::mv_scratch_ints(t), 0);
    sec.ntraits = t;
    sec.mvwork = span<double>(mvw.data(), mvw.size());
    sec.mviwork = span<int>(mvi.data(), mvi.size());
  }
  // The product of the formed sections from..to as the residual structure.
  void product(int from, int to) {
    rows.clear();
    int maxord = 1;
    for (int k = from; k <= to; ++k) {
      rows.push_back(fit.row(k));
      maxord = std::max(maxord, fit.row(k).field(tarnel::kOrder));
    }
    scr.assign(maxord, 0.0);
    scols.assign(maxord, 0);
    sec.termcode = -3;
    sec.section = from;
    sec.rsrc.records = fit.secform.data() + (from - 1);
    sec.rsrc.rows = rows.data();
    sec.rsrc.nsect = to - from + 1;
    sec.rsrc.work = &fit.a.work;
    sec.rsrc.giv = &fit.a.giv;
    sec.rsrc.scratch = span<double>(scr.data(), scr.size());
    sec.rsrc.scols = span<int>(scols.data(), scols.size());
    // The log determinant as if every record were observed.
    const double nrec = static_cast<double>(sec.last - sec.first + 1);
    sec.sectlogdet = 0;
    for (int k = from; k <= to; ++k) sec.sectlogdet += nrec / fit.row(k).field(tarnel::kOrder) * fit.logdet[k - 1];
  }
};

}  // namespace

TEST(SspMulti, ObservedBlocksMatchDenseInverseAndLogDeterminant) {
  const int neq = 24, nd = 3, nu = 16;
  struct Variant {
    int t;
    std::string kind;
    bool single;     // Sigma alone (no units factor)
    double sigma2;
    bool weighted;
    bool unitdiag = false;  // units factor DIAG: a scale per unit
  };
  const std::vector<Variant> variants{
      {2, "US", false, 1.0, false},  {2, "DIAG", false, 2.3, false}, {3, "US", false, 2.3, true},
      {3, "DIAG", true, 1.0, true},  {3, "AR1", false, 0.7, false},  {2, "IDEN", false, 1.4, true},
      {3, "US", true, 1.0, false},   {3, "US", false, 1.3, true, true}};
  for (const Variant& v : variants) {
    SCOPED_TRACE(v.kind + " traits " + std::to_string(v.t) + (v.single ? " single" : " product"));
    const int t = v.t;
    MvDesign d = mv_design(nu, t, neq, 7u + t);
    const int nrec = nu * t;
    std::vector<double> wts(nrec, 1.0);
    if (v.weighted) {
      for (int r = 0; r < nrec; ++r) wts[r] = 0.5 + 0.25 * (r % 5);
      wts[1 * t + 1] = 0.0;  // unit 2, trait 2: weight 0 makes it unobserved
    }
    MvRun run(d, t, neq);
    const std::vector<double> sp = params_of(v.kind, t);
    std::vector<double> s1(nu, (v.single || v.kind == "IDEN") ? 1.0 : 1.6);  // the units factor
    if (v.unitdiag)
      for (int u = 0; u < nu; ++u) s1[u] = 0.8 + 0.1 * (u % 4);
    Mat sig = sigma_of(v.kind, sp, t);
    if (v.kind == "IDEN") {
      // The identity case: R = sigma2 gamma I, gamma named by word 4.
      run.fit.gammas = {sp[0]};
      run.fit.add_section(t, 1, 0, 1);
      run.sec.termcode = -1;
      run.sec.struc = span<const int>(run.fit.struc.data(), run.fit.struc.size());
      run.sec.lstruc = 15;
      run.sec.section = 1;
      run.sec.gammas = span<const double>(run.fit.gammas.data(), run.fit.gammas.size());
      run.sec.sectlogdet = nrec * std::log(sp[0]);
    } else {
      const int model = v.kind == "US" ? 9 : v.kind == "DIAG" ? 8 : 1;
      if (v.unitdiag) {
        run.fit.gammas = s1;
        run.fit.add_section(nu, nu, 8, 1);
      } else if (!v.single) {
        run.fit.gammas.push_back(s1[0]);
        run.fit.add_section(nu, 1, 0, 1);
      }
      const int g0 = static_cast<int>(run.fit.gammas.size()) + 1;
      run.fit.gammas.insert(run.fit.gammas.end(), sp.begin(), sp.end());
      run.fit.add_section(t, static_cast<int>(sp.size()), model, g0);
      ASSERT_EQ(run.fit.run(), 0) << run.fit.ifault;
      const int ns = static_cast<int>(run.fit.struc.size() / 15);
      run.product(1, ns);
    }
    run.sec.sigma2 = v.sigma2;
    if (v.weighted) run.sec.weights = span<const double>(wts.data(), wts.size());
    if (v.weighted) run.augment();  // augmented rows in one variant of each order
    Store st(neq, nd, 20000);
    ASSERT_EQ(tarnel::g5vxxs(st.s, run.sec, run.w), 0) << run.err;

    // Dense reference, unit by unit.
    Dense ref(neq);
    double ldref = 0;
    i64 skipref = 0;
    std::vector<std::vector<double>> augref(nrec);
    for (int u = 0; u < nu; ++u) {
      std::vector<int> o;
      for (int k = 0; k < t; ++k) {
        if (!d.miss[u][k] && wts[u * t + k] > 0) o.push_back(k);
        else ++skipref;
      }
      const int no = static_cast<int>(o.size());
      if (no == 0) continue;
      Mat r(no * no), x(no * neq, 0.0);
      for (int a = 0; a < no; ++a) {
        for (int b = 0; b < no; ++b)
          r[a * no + b] = v.sigma2 * s1[u] * vtest::at(sig, t, o[a] + 1, o[b] + 1) /
                          std::sqrt(wts[u * t + o[a]] * wts[u * t + o[b]]);
        const int rec = u * t + o[a];
        for (i64 k = d.start[rec]; k < d.start[rec + 1]; ++k) x[a * neq + d.col[k - 1] - 1] = d.val[k - 1];
      }
      ldref += vtest::log_abs_det(r, no);
      Mat ri = vtest::inverse(r, no);
      for (int a = 0; a < no; ++a) {
        std::vector<double> row(neq, 0.0);  // row a of inv(R_oo) X_o
        for (int b = 0; b < no; ++b)
          for (int c = 0; c < neq; ++c) row[c] += ri[a * no + b] * x[b * neq + c];
        for (int c1 = 1; c1 <= neq; ++c1)
          for (int c2 = 1; c2 <= c1; ++c2) ref(c1, c2) += x[a * neq + c1 - 1] * row[c2 - 1];
        augref[u * t + o[a]] = row;
      }
    }
    Dense got = read_store(st);
    for (int i = 1; i <= neq; ++i)
      for (int j = 1; j <= i; ++j)
        ASSERT_NEAR(got(i, j), ref(i, j), 1e-10 * (1 + std::fabs(ref(i, j)))) << i << "," << j;
    EXPECT_NEAR(run.logdet, ldref, 1e-10 * (1 + std::fabs(ldref)));
    EXPECT_EQ(run.skipped, skipref);
    EXPECT_TRUE(run.scratch_clear());
    for (int rec = 0; rec < nrec && v.weighted; ++rec) {
      const std::vector<double> row = run.aug_row(rec, neq);
      ASSERT_EQ(row.size(), augref[rec].size()) << "record " << rec + 1;
      for (size_t c = 0; c < row.size(); ++c)
        ASSERT_NEAR(row[c], augref[rec][c], 1e-10 * (1 + std::fabs(augref[rec][c]))) << rec + 1 << "," << c + 1;
    }
  }
}

TEST(SspMulti, UnhandledStructuresAndFullStoreAreFaults) {
  const int neq = 20, nd = 2, nu = 6, t = 2;
  MvDesign d = mv_design(nu, t, neq, 3);
  struct Bad {
    std::string what;
    int unitmodel;   // model of the units factor (0 identity)
    int traitorder;  // order of the last factor
    int termcode;
  };
  for (const Bad& b : std::vector<Bad>{{"AR1 over units", 1, t, -3},
                                       {"last factor not of the traits' order", 0, t + 1, -3},
                                       {"diagonal weights term", 0, t, 0}}) {
    SCOPED_TRACE(b.what);
    MvRun run(d, t, neq);
    run.fit.gammas = {b.unitmodel == 1 ? 0.4 : 1.0, 1.0, 1.5};
    run.fit.add_section(nu, 1, b.unitmodel, 1);
    run.fit.add_section(b.traitorder, b.traitorder, 8, 2);
    run.fit.gammas.resize(1 + b.traitorder, 1.2);
    ASSERT_EQ(run.fit.run(), 0) << run.fit.ifault;
    run.product(1, 2);
    run.sec.termcode = b.termcode;
    run.sec.trace = true;
    run.err = 4;
    tarnel::clear_message_store();
    Store st(neq, nd, 2000);
    capture_begin();
    EXPECT_EQ(tarnel::g5vxxs(st.s, run.sec, run.w), 1);
    const std::string out = capture_end();
    EXPECT_EQ(run.err, 1004);
    EXPECT_EQ(tarnel::message_text(0), "Invalid Multivariate Error Structure");
    EXPECT_NE(out.find("XXS 200"), std::string::npos) << out;
    EXPECT_EQ(st.s.lx, neq - nd);  // nothing added
  }
  // A caller that has not set the section up for several traits.
  {
    MvRun run(d, t, neq);
    run.sec.termcode = -1;
    run.sec.mvwork = span<double>();
    run.sec.mviwork = span<int>();
    tarnel::clear_message_store();
    Store st(neq, nd, 2000);
    EXPECT_EQ(tarnel::g5vxxs(st.s, run.sec, run.w), 1);
    EXPECT_EQ(run.err, 1000);
    EXPECT_EQ(tarnel::message_text(0), " Multivariate residual sections not available yet");
  }
  // A store too small for the equations.
  MvRun run(d, t, neq);
  run.fit.gammas = {1.0, 1.0, 0.3, 1.5};
  run.fit.add_section(nu, 1, 0, 1);
  run.fit.add_section(t, 3, 9, 2);
  ASSERT_EQ(run.fit.run(), 0);
  run.product(1, 2);
  tarnel::clear_message_store();
  Store st(neq, nd, 3 * (neq - nd + 8));
  EXPECT_EQ(tarnel::g5vxxs(st.s, run.sec, run.w), 1);
  EXPECT_EQ(run.err, 6);
  EXPECT_EQ(tarnel::message_text(0), "Out of Memory forming SSP (MultiV)");
}
