// Absorption against dense algebra (solutions, log-determinant, ranks,
// singularities, constraint rows), its strip path (the row updates dealt to
// strips with their own free runs) against the single path, the space
// checks, and sampled solutions against the distribution they should have.
#include <gtest/gtest.h>

#include <string>

#include "animal_pattern.h"
#include "console_capture.h"
#include "host/messages.h"
#include "sparse/random.h"
#include "sparse_harness.h"

using namespace tarnel_test;
using tarnel::span;

namespace {

// One generated system with the order and the terms it is absorbed with,
// and what the single path must find on it.
struct Case {
  std::string name;
  int nd = 1;
  Dense c;
  std::vector<int> ord;
  std::vector<int> term = {};  // by equation; empty: all term 1
  int nterms = 1;
  int tail = 0;
  i64 slots = 40000;
  int nsing = 0;                  // singular and held-out equations
  std::vector<int> untouched = {};  // rows left without an entry
  int minmoves = 0;               // delayed pivots at least
  bool delays = false;            // zero diagonals: pivots may be delayed
  bool readback = false;          // packed rows read back as factor rows
};

// With `square` the block has room for its square copy and is absorbed
// through the BLAS; otherwise by the packed kernels.
AbsorbRun run_case(const Case& k, int threads, bool trace = false, bool square = false) {
  Store st(k.c.n, k.nd, k.slots);
  std::vector<double> room(square ? tarnel::block_room_words(k.c.n) : 0);
  EXPECT_TRUE(load(st, k.c));
  for (int e : k.untouched) st.s.pool().lnk(st.s.head(e)) = -1;
  AbsorbRun r = absorb(st, k.ord, k.nterms, k.term.empty() ? nullptr : &k.term, k.tail,
                       [&](AbsorbRun& a) {
                         a.a.threads = threads;
                         a.a.trace = trace;
                         a.a.room = span<double>(room.data(), room.size());
                       });
  if (r.rc == 0 && k.readback) {  // row q's diagonal is the pivot, 1/DD(q)
    tarnel::Pool p = st.s.pool();
    for (int q = k.nd + 1; q <= k.c.n; ++q) {
      if (r.dd[q - 1] == 0.0) continue;
      i64 s = p.lnk(st.off() + q);
      while (p.col(s) != q) --s;
      EXPECT_LT(rel(p.val(s), 1.0 / r.dd[q - 1]), 1e-12) << q;
    }
  }
  r.soln.push_back(st.s.x[0]);  // the residual sum behind the solution
  return r;
}

// The single path against dense algebra: an elimination in the same order
// with the same pivot rule (held-out equations zeroed; not where pivots may
// be delayed), the dense LU when nothing is singular, and C x = b on the
// equations that were solved.
void check_against_dense(const Case& k, const AbsorbRun& r) {
  const int neq = k.c.n;
  Dense c2 = k.c;
  for (int e = 2; e <= neq; ++e)
    if (!k.term.empty() && k.term[e] < 0)
      for (int j = 1; j <= neq; ++j) c2(e, j) = c2(j, e) = 0.0;
  EXPECT_EQ(r.a.nsing, k.nsing);
  EXPECT_EQ(r.rank[0], neq - 1 - k.nsing);
  EXPECT_GE(r.a.moves, k.minmoves);
  if (!k.delays) {
    const RefResult o = ordered_ldl(c2, k.ord, 1e-9);
    EXPECT_EQ(r.a.nsing, o.nsing);
    EXPECT_LT(rel(r.a.logdet, o.logdet), 1e-9);
    EXPECT_LT(rel(r.soln[neq], o.rss), 1e-9);
    for (int e = 2; e <= neq; ++e) EXPECT_LT(rel(r.soln[e - 1], o.soln[e]), 1e-9) << e;
  }
  double sdd = 0;  // DD holds reciprocal pivots: their logs add up to -logdet
  for (int q = 2; q <= neq; ++q)
    if (r.dd[q - 1] != 0.0) sdd -= std::log(std::fabs(r.dd[q - 1]));
  EXPECT_LT(rel(sdd, r.a.logdet), 1e-9);
  if (k.nsing == 0) {
    std::vector<double> ref;
    EXPECT_LT(rel(r.a.logdet, lu_logdet(k.c, &ref)), 1e-9);
    for (int e = 2; e <= neq; ++e) EXPECT_LT(rel(r.soln[e - 1], ref[e]), k.delays ? 1e-8 : 1e-9) << e;
  }
  for (int i = 2; i <= neq; ++i) {
    if (r.soln[i - 1] == 0.0) continue;
    double s = 0;
    for (int j = 2; j <= neq; ++j) s += c2(i, j) * r.soln[j - 1];
    EXPECT_NEAR(s, c2(i, 1), 1e-8 * std::fmax(1.0, std::fabs(c2(i, 1)))) << i;
  }
}

// The minimum-degree order of a loaded store; `tail` gets the block the
// order leaves to fill in.
std::vector<int> min_degree(const Store& st, int mode, i32& tail) {
  OrderRun o = order(st, 0, mode);
  EXPECT_EQ(o.rc, 0);
  tail = o.a.tail;
  return o.ord();
}

std::vector<Case> strip_cases() {
  std::vector<Case> out;
  {  // random records in the natural and a shuffled order, NDENSE 1 and 4
    Design d = make_design(60, 150, 3, 2, 0.5);
    for (int nd : {1, 4})
      for (int shuffle : {1, 0})
        out.push_back(Case{"random nd " + std::to_string(nd) + (shuffle ? " shuffled" : ""), nd, d.c,
                           shuffle ? shuffled(60, nd, 9) : natural(60)});
  }
  {  // equation 8 repeats 5 (aliased), 9 is never touched, and term 2
     // (equations 10, 11) is held out of pivoting
    const int neq = 30;
    Design d = make_design(neq, 80, 3, 11, 0.0);
    for (int e = 2; e <= neq; ++e) d.c(e, e) += e != 8 && e != 5 ? 1e-3 : 0.0;
    alias(d.c, 8, 5);
    for (int j = 1; j <= neq; ++j) d.c(9, j) = d.c(j, 9) = 0.0;
    for (unsigned seed : {0u, 5u, 6u}) {
      Case k{"aliased " + std::to_string(seed), 1, d.c, seed ? shuffled(neq, 1, seed) : natural(neq)};
      k.term.assign(neq + 1, 1);
      k.term[10] = k.term[11] = -2;
      k.nterms = 2;
      k.tail = seed == 5u ? 15 : 0;
      k.nsing = 4;
      k.untouched = {9};
      out.push_back(k);
    }
  }
  // Constraint rows with a zero diagonal, absorbed first (delayed), and
  // shuffled with the lowest 12 rows laid out complete.
  Case cons{"constraints", 1, constraint_system(), natural(22)};
  cons.minmoves = 1;
  cons.delays = true;
  out.push_back(cons);
  cons.name = "constraints shuffled";
  cons.ord = shuffled(22, 1, 4);
  cons.tail = 12;
  cons.minmoves = 0;
  out.push_back(cons);
  {  // the whole sparse part (more than three panels of pivots) laid out as
     // one complete block, NDENSE 4 so that it also updates the dense
     // triangle, with an aliased pair and a held-out term inside
    const int neq = 110, nd = 4;
    for (unsigned seed : {0u, 3u})
      for (int tail : {neq - nd, 45}) {
        Case k{"block " + std::to_string(seed) + " tail " + std::to_string(tail), nd, block_system(),
               seed ? shuffled(neq, nd, seed) : natural(neq)};
        k.term.assign(neq + 1, 1);
        k.term[50] = k.term[51] = -2;
        k.nterms = 2;
        k.tail = tail;
        k.nsing = 3;
        k.readback = true;
        out.push_back(k);
      }
    // A constraint row at position 90 on equations 5..15, whose columns all
    // lie below it: the block stops there for the pivot search.
    const Dense b = block_system();
    Dense c(neq);
    for (int i = 1; i <= neq; ++i)
      for (int j = 1; j <= neq; ++j) c(i, j) = (i == 90 || j == 90) ? 0.0 : b(i, j);
    c(40, 40) += 1.0;  // no longer aliased
    for (int e = 5; e <= 15; ++e) c.add_sym(90, e, 1.0 + 0.05 * e);
    Case k{"block constraint", nd, c, natural(neq)};
    k.tail = neq - nd;
    k.minmoves = 1;
    k.delays = true;
    out.push_back(k);
  }
  {  // animal model in the minimum-degree order, with and without its block
    Triplets t = animal_model(300, 8, 5);
    const Dense c = dense_of(t);
    for (int mode : {1, 3}) {
      Store st(t.neq, t.ndense, 200000);
      EXPECT_TRUE(load(st, c));
      i32 tail = 0;
      Case k{"animal mode " + std::to_string(mode), t.ndense, c, min_degree(st, mode, tail)};
      k.tail = mode == 3 ? tail : 0;
      k.slots = 200000;
      out.push_back(k);
    }
  }
  return out;
}

}  // namespace

TEST(Absorb, SinglePathMatchesDenseAndStripsMatchIt) {
  for (const Case& k : strip_cases()) {
    SCOPED_TRACE(k.name);
    AbsorbRun one = run_case(k, 1);
    ASSERT_EQ(one.rc, 0) << one.err << " " << one.nfault;
    check_against_dense(k, one);
    // 2 and 8 hand out runs and keep the single path; from 101 on the
    // updates go through 1, 3 and 8 strips.
    for (int threads : {2, 8, 101, 103, 108}) {
      SCOPED_TRACE(threads);
      AbsorbRun r = run_case(k, threads);
      ASSERT_EQ(r.rc, 0) << r.err << " " << r.nfault;
      EXPECT_LT(rel(r.a.logdet, one.a.logdet), 1e-12);
      EXPECT_EQ(r.a.nsing, one.a.nsing);
      EXPECT_EQ(r.a.moves, one.a.moves);
      EXPECT_EQ(r.rank, one.rank);
      for (size_t q = 0; q < one.soln.size(); ++q)
        ASSERT_LT(rel(r.soln[q], one.soln[q]), 1e-12) << q;
      for (size_t q = 0; q < one.dd.size(); ++q) ASSERT_LT(rel(r.dd[q], one.dd[q]), 1e-12) << q;
      for (int s = 0; s < 8; ++s) EXPECT_NE(r.status[s], -99);
    }
  }
  // The strips really take their slots from runs: besides the eight runs
  // of the set-up, spare runs are traced as rows fill in.
  const Case k = strip_cases()[0];
  capture_begin();
  AbsorbRun r = run_case(k, 108, true);
  const std::string out = capture_end();
  ASSERT_EQ(r.rc, 0);
  int lines = 0;
  for (size_t at = out.find(" Strip "); at != std::string::npos; at = out.find(" Strip ", at + 1)) ++lines;
  EXPECT_GT(lines, 8);
  EXPECT_NE(out.find(" Threads NEQ 108 1 60"), std::string::npos);
}

// The block through the BLAS finds the same pivots, singularities, moves
// and ranks as the packed kernels, and the same factor up to rounding,
// also where it stops for a constraint row; the same room twice gives the
// same bits.
TEST(Absorb, BlockThroughBlasMatchesPackedKernels) {
  int blocks = 0;
  for (const Case& k : strip_cases()) {
    if (k.tail == 0) continue;
    ++blocks;
    SCOPED_TRACE(k.name);
    AbsorbRun one = run_case(k, 1);
    AbsorbRun sq = run_case(k, 1, false, true);
    ASSERT_EQ(sq.rc, 0) << sq.err << " " << sq.nfault;
    check_against_dense(k, sq);
    EXPECT_EQ(sq.a.nsing, one.a.nsing);
    EXPECT_EQ(sq.a.moves, one.a.moves);
    EXPECT_EQ(sq.rank, one.rank);
    EXPECT_LT(rel(sq.a.logdet, one.a.logdet), 1e-12);
    for (size_t q = 0; q < one.soln.size(); ++q) ASSERT_LT(rel(sq.soln[q], one.soln[q]), 1e-10) << q;
    for (size_t q = 0; q < one.dd.size(); ++q) ASSERT_LT(rel(sq.dd[q], one.dd[q]), 1e-10) << q;
    AbsorbRun again = run_case(k, 1, false, true);
    EXPECT_EQ(again.soln, sq.soln);
    EXPECT_EQ(again.dd, sq.dd);
  }
  EXPECT_GE(blocks, 5);
}

TEST(AbsorbStrips, LargeAnimalModelWithFillAndLayoutAgain) {
  // 20,000 animals in the minimum-degree order: enough fill that the pool
  // is laid out again part way, with the strips' runs given back first.
  Triplets t = animal_model(20000, 200, 9);
  std::vector<int> ord;
  AbsorbRun one;
  for (int threads : {1, 108}) {
    Store st(t.neq, t.ndense, 4000000);
    ASSERT_TRUE(load_triplets(st, t));
    i32 tail = 0;
    if (ord.empty()) ord = min_degree(st, 1, tail);
    AbsorbRun r = absorb(st, ord, 1, nullptr, 0, [&](AbsorbRun& a) { a.a.threads = threads; });
    ASSERT_EQ(r.rc, 0) << threads;
    EXPECT_EQ(r.a.nsing, 0);
    if (threads == 1) {
      one = r;
      continue;
    }
    EXPECT_LT(rel(r.a.logdet, one.a.logdet), 1e-12);
    for (int e = 2; e <= t.neq; ++e) ASSERT_LT(rel(r.soln[e - 1], one.soln[e - 1]), 1e-12) << e;
  }
}

TEST(AbsorbStrips, ShortPoolIsAFaultNeverAnOverrun) {
  // From too small for the strips' runs, through pools where a strip finds
  // no room part way, to enough: every outcome is either the right answer
  // or "Out of memory absorbing", for the single path and the strips.
  const int neq = 200;
  Design d = make_design(neq, 600, 4, 31, 1.0);
  std::vector<double> ref;
  const double ld = lu_logdet(d.c, &ref);
  int ok = 0, atsetup = 0, midway = 0;
  i64 least[2] = {0, 0};
  for (i64 slots = 220; slots <= 40000; slots = slots < 400 ? 400 : slots + slots / 8) {
    for (int strips : {0, 1}) {
      Store st(neq, 1, slots);
      if (!load(st, d.c)) continue;
      AbsorbRun r = absorb(st, natural(neq), 1, nullptr, 0,
                           [&](AbsorbRun& a) { a.a.threads = strips ? 108 : 1; });
      if (r.rc == 0) {
        if (least[strips] == 0) least[strips] = slots;
        ok += strips;
        EXPECT_LT(rel(r.a.logdet, ld), 1e-9) << slots;
        for (int e = 2; e <= neq; ++e) ASSERT_LT(rel(r.soln[e - 1], ref[e]), 1e-9) << slots;
        continue;
      }
      if (!strips) {
        EXPECT_GT(r.nfault, 100000);
      }
      EXPECT_STREQ(tarnel::errortext_of(r.nfault), "Out of memory absorbing") << slots;
      if (!strips) continue;
      if (r.nfault == 100000 + neq && r.err == 6) ++atsetup;
      if (r.err == 496) {
        int marks = 0;
        for (int s = 0; s < 8; ++s) marks += r.status[s] == -99;
        EXPECT_GE(marks, 1);
        ++midway;
      }
    }
  }
  EXPECT_GE(ok, 1);
  EXPECT_GE(atsetup, 1);
  EXPECT_GE(midway, 1);
  std::printf("[ strips ] smallest pool: single %lld, 8 strips %lld slots\n", (long long)least[0],
              (long long)least[1]);
}

namespace {

// Absorbs C in the order `ord` with sampling range (lo, hi]; the solution
// vector has room for the sample unless `solnlen` says otherwise.
AbsorbRun sample_run(const Dense& c, int nd, const std::vector<int>& ord, i32 lo, i32 hi,
                     tarnel::NormalRng* rng, size_t solnlen = 0) {
  Store st(c.n, nd, 40 * static_cast<i64>(c.n) + 1000);
  EXPECT_TRUE(load(st, c));
  return absorb(st, ord, 1, nullptr, 0, [&](AbsorbRun& a) {
    a.soln.assign(solnlen ? solnlen : 2 * c.n, 0.0);
    a.a.soln = span<double>(a.soln.data(), a.soln.size());
    a.a.impute[0] = lo;
    a.a.impute[1] = hi;
    a.a.rng = rng;
  });
}

}  // namespace

TEST(Sampling, DiagonalSystemGivesStandardNormalDeviations) {
  const int neq = 2001;
  std::mt19937 gen(17);
  std::uniform_real_distribution<double> u(0.5, 4.0);
  Dense s(neq);
  s(1, 1) = 50.0;
  for (int e = 2; e <= neq; ++e) {
    s.add_sym(e, 1, u(gen) - 2.0);
    s(e, e) = u(gen);
  }
  const std::vector<int> ord = shuffled(neq, 1, 3);
  tarnel::NormalRng g{12345};
  AbsorbRun plain = sample_run(s, 1, ord, 0, 0, nullptr, neq);
  ASSERT_EQ(plain.rc, 0);
  AbsorbRun r = sample_run(s, 1, ord, 1, neq, &g);
  ASSERT_EQ(r.rc, 0) << r.nfault;
  std::vector<double> ddof(neq + 1);  // DD by equation
  for (int p = 2; p <= neq; ++p) ddof[ord[p]] = r.dd[p - 1];
  double m = 0, v = 0;
  for (int e = 2; e <= neq; ++e) {
    ASSERT_EQ(r.soln[e - 1], plain.soln[e - 1]);  // the solution is untouched
    const double z = (r.soln[neq + e - 1] - r.soln[e - 1]) / std::sqrt(ddof[e]);
    m += z;
    v += z * z;
  }
  m /= neq - 1;
  v = v / (neq - 1) - m * m;
  EXPECT_LT(std::fabs(m), 0.1);
  EXPECT_LT(std::fabs(v - 1), 0.1);
  // The same seed gives the same sample; another seed another one.
  tarnel::NormalRng g2{12345}, g3{12346};
  AbsorbRun again = sample_run(s, 1, ord, 1, neq, &g2);
  AbsorbRun other = sample_run(s, 1, ord, 1, neq, &g3);
  EXPECT_EQ(again.soln, r.soln);
  EXPECT_NE(other.soln, r.soln);
  // A range: equations 501..1500 move, the others keep the solution.
  tarnel::NormalRng g4{7};
  AbsorbRun part = sample_run(s, 1, ord, 500, 1500, &g4);
  for (int e = 2; e <= neq; ++e) {
    const bool in = e > 500 && e <= 1500;
    if (in) {
      EXPECT_NE(part.soln[neq + e - 1], part.soln[e - 1]) << e;
    } else {
      EXPECT_EQ(part.soln[neq + e - 1], part.soln[e - 1]) << e;
    }
  }
}

TEST(Sampling, DeviationsCarryTheInverseOfTheCoefficients) {
  // For deviations d = sample - solution drawn as the factor prescribes,
  // d' C d equals the sum of squares of the draws, whatever C is: checked
  // against the generator's own draws, on coupled systems with a dense
  // block.  C is block diagonal: equations 2..40 and 41..80 never meet, so
  // with the range 40..80 the first block keeps its solution exactly.
  const int neq = 80;
  Design a = make_design(neq, 300, 4, 5, 0.5);
  Dense c(neq);
  for (int i = 1; i <= neq; ++i)
    for (int j = 1; j <= i; ++j) {
      const bool meet = j == 1 || (i <= 40) == (j <= 40);
      if (meet) c(i, j) = c(j, i) = a.c(i, j);
    }
  for (int nd : {1, 4}) {
    const std::vector<int> ord = shuffled(neq, nd, 11 + nd);
    for (int lo : {1, 40}) {
      SCOPED_TRACE(nd * 100 + lo);
      tarnel::NormalRng g{99u + nd}, copy = g;
      AbsorbRun r = sample_run(c, nd, ord, lo, neq, &g);
      ASSERT_EQ(r.rc, 0);
      ASSERT_EQ(r.a.nsing, 0);
      std::vector<double> dvec(neq + 1, 0.0);
      for (int e = 2; e <= neq; ++e) dvec[e] = r.soln[neq + e - 1] - r.soln[e - 1];
      double q = 0;
      for (int i = 2; i <= neq; ++i)
        for (int j = 2; j <= neq; ++j) q += dvec[i] * c(i, j) * dvec[j];
      double ss = 0;  // the draws: one per equation in the range, all pivoted
      for (int k = lo + 1; k <= neq; ++k) ss += std::pow(tarnel::g5vnrv(copy), 2);
      EXPECT_LT(rel(q, ss), 1e-9);
      if (lo == 40) {
        for (int e = 2; e <= 40; ++e) EXPECT_EQ(dvec[e], 0.0) << e;
      }
    }
  }
}

TEST(Sampling, RefusedWithoutRoomOrGeneratorAndFiniteWithNegativePivots) {
  Dense s(4);
  s(1, 1) = 1.0;
  s.add_sym(2, 1, 1.0);
  s(2, 2) = 2.0;
  s.add_sym(3, 1, 0.5);
  s.add_sym(3, 2, 0.3);
  s(3, 3) = 1.0;
  s.add_sym(4, 2, 1.0);  // a constraint row: zero diagonal
  s.add_sym(4, 3, 1.0);
  tarnel::NormalRng g{1};
  AbsorbRun shortv = sample_run(s, 1, natural(4), 1, 4, &g, 4);
  EXPECT_EQ(shortv.rc, 1);
  EXPECT_EQ(shortv.nfault, 4);
  tarnel::clear_message_store();
  AbsorbRun nogen = sample_run(s, 1, natural(4), 1, 4, nullptr);
  EXPECT_EQ(nogen.rc, 1);
  EXPECT_EQ(tarnel::message_text(0), " Sampled solutions need a random-number generator");
  tarnel::clear_message_store();
  // The constraint row pivots negative; its draw uses |DD|.
  AbsorbRun r = sample_run(s, 1, natural(4), 1, 4, &g);
  ASSERT_EQ(r.rc, 0);
  int negative = 0;
  for (int p = 2; p <= 4; ++p) negative += r.dd[p - 1] < 0;
  EXPECT_GE(negative, 1);
  for (int e = 2; e <= 4; ++e) EXPECT_TRUE(std::isfinite(r.soln[4 + e - 1])) << e;
}
