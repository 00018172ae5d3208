// Pedigree ordering and the relationship inverse.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "console_capture.h"
#include "host/messages.h"
#include "pedigree/band.h"
#include "pedigree/g5vaig.h"
#include "pedigree/psort.h"
#include "variance_support.h"

using namespace tarnel;

namespace {

using Strs = std::vector<const char*>;

struct Sorted {
  PedigreeSortResult res;
  std::string err, out;
  Strs ped;  // by columns, nan rows
  std::vector<double> fgen;
};

Sorted run_pdsort(const Strs& lvls, const Strs& old, std::vector<double> col4 = {-1},
                  double fg = NAN) {
  Sorted s;
  const int lped = static_cast<int>(old.size() / 3), nan = static_cast<int>(lvls.size());
  s.ped.assign(3 * lvls.size(), nullptr);
  s.fgen.assign(lvls.size(), -7);
  tarnel_test::capture_begin();
  s.res = pdsort(lped, nan, span<const char* const>(lvls.data(), lvls.size()),
                 span<const char* const>(old.data(), old.size()),
                 span<const double>(col4.data(), col4.size()), fg,
                 span<const char*>(s.ped.data(), s.ped.size()),
                 span<double>(s.fgen.data(), s.fgen.size()), s.err);
  s.out = tarnel_test::capture_end();
  return s;
}

std::string row(const Sorted& s, int r) {
  const std::size_t n = s.ped.size() / 3;
  return std::string(s.ped[r]) + "," + s.ped[n + r] + "," + s.ped[2 * n + r];
}

// The relationship inverse of a sorted pedigree (rows from 1, 0 unknown).
struct Inverse {
  std::vector<i32> llainv;
  std::vector<double> ainv, inb, ginv, work;
  AinvArgs a;
  i64 linv = 0;
  int status = 0;
};

void run_inverse(Inverse& v, const std::vector<i32>& plist, AinvOptions opt = {},
                 std::vector<double> fgsx = {}, i64 lenai = 0) {
  const i32 nan = static_cast<i32>(plist.size() / 2);
  if (lenai == 0) lenai = 4 * static_cast<i64>(nan) + 8;
  v.llainv.assign(2 * lenai, -9);
  v.ainv.assign(lenai, -9);
  v.inb.assign(nan + 1, -9);
  v.ginv.assign(3 * lenai, -9);
  v.work.assign(g5vaig_work_words(nan, opt.ibl) + band_words(opt.band_lag), -9);
  v.a = AinvArgs();
  v.a.llainv = span<i32>(v.llainv.data(), v.llainv.size());
  v.a.ainv = span<double>(v.ainv.data(), v.ainv.size());
  v.a.lenai = lenai;
  v.a.plist = span<const i32>(plist.data(), plist.size());
  v.a.fgsx = span<const double>(fgsx.data(), fgsx.size());
  v.a.inbreeding = span<double>(v.inb.data(), v.inb.size());
  v.a.nan = nan;
  v.a.opt = opt;
  v.a.det = 2.0;
  clear_message_store();
  v.status = pedigree(v.a, WorkArray(v.work.data(), v.work.size()),
                      span<double>(v.ginv.data(), v.ginv.size()), v.linv);
}

// Dense n x n (row-major) from the triples, both triangles.
std::vector<double> dense_from(const Inverse& v) {
  const int n = v.a.nan;
  std::vector<double> m(static_cast<std::size_t>(n) * n, 0.0);
  for (i64 k = 0; k < v.linv; ++k) {
    const int r = static_cast<int>(v.ginv[3 * k]) - 1, c = static_cast<int>(v.ginv[3 * k + 1]) - 1;
    m[r * n + c] += v.ginv[3 * k + 2];
    if (r != c) m[c * n + r] += v.ginv[3 * k + 2];
  }
  return m;
}

// A by the tabular method: A(i,j) = 0.5 A(S,j) + 0.5 A(D,j), A(i,i) = 1 + 0.5 A(S,D).
std::vector<double> tabular(const std::vector<i32>& plist) {
  const int n = static_cast<int>(plist.size() / 2);
  std::vector<double> A(static_cast<std::size_t>(n) * n, 0.0);
  auto at = [&](int i, int j) -> double& { return A[(i - 1) * n + (j - 1)]; };
  for (int i = 1; i <= n; ++i) {
    const int s = plist[2 * (i - 1)], d = plist[2 * (i - 1) + 1];
    for (int j = 1; j < i; ++j) {
      double v = 0;
      if (s) v += 0.5 * at(s, j);
      if (d) v += 0.5 * at(d, j);
      at(i, j) = at(j, i) = v;
    }
    at(i, i) = 1.0 + (s && d ? 0.5 * at(s, d) : 0.0);
  }
  return A;
}

// Random sorted pedigree of n rows: founders first, then rows whose parents
// are drawn from earlier rows, some unknown and some selfed.
std::vector<i32> random_pedigree(int n, unsigned seed) {
  std::mt19937 g(seed);
  std::vector<i32> p(2 * n, 0);
  for (int i = 6; i <= n; ++i) {
    std::uniform_int_distribution<int> pick(1, i - 1);
    const int u = g() % 10;
    p[2 * (i - 1)] = u == 0 ? 0 : pick(g);
    p[2 * (i - 1) + 1] = u == 1 ? 0 : (u == 2 ? p[2 * (i - 1)] : pick(g));
  }
  return p;
}

}  // namespace

TEST(PedigreeSort, InsertionAndMoveMessagesWordForWord) {
  // "p" is a sire before its own record; "q" is a dam with no record.
  Sorted s = run_pdsort({"x", "p", "q"}, {"x", "p", "p", "0", "q", "0"});
  ASSERT_EQ(s.res.status, 0) << s.err;
  EXPECT_EQ(s.out,
            "Pedigree  order (P1): Individual \"p\" moved to record 1\n"
            "Pedigree insert: Individual \"q\" inserted at record 2\n");
  EXPECT_EQ(s.res.passes, 2);
  EXPECT_EQ(row(s, 0), "p,0,0");
  EXPECT_EQ(row(s, 1), "q,0,0");
  EXPECT_EQ(row(s, 2), "x,p,q");

  // Sire and dam at once: the sire test wins.
  s = run_pdsort({"k", "m"}, {"k", "m", "m", "0", "m", "0"});
  ASSERT_EQ(s.res.status, 0);
  EXPECT_EQ(s.out, "Pedigree  order (P1): Individual \"m\" moved to record 1\n");
  s = run_pdsort({"k", "m"}, {"k", "m", "0", "0", "m", "0"});
  EXPECT_EQ(s.out, "Pedigree  order (P2): Individual \"m\" moved to record 1\n");

  // A sorted pedigree passes once and prints nothing.
  s = run_pdsort({"a", "b", "c"}, {"a", "b", "c", "0", "0", "a", "0", "0", "b"});
  EXPECT_EQ(s.res.passes, 1);
  EXPECT_EQ(s.out, "");
}

TEST(PedigreeSort, DeepChainIsOrderedInThreePassesAndFgenIsConverted) {
  // g3 <- g2 <- g1 <- g0, recorded youngest first.
  Sorted s = run_pdsort({"g3", "g2", "g1", "g0"},
                        {"g3", "g2", "g1", "g0", "g2", "g1", "g0", "0", "0", "0", "0", "0"},
                        {NAN, 2.0, 0.25, 3.0}, 0.125);
  ASSERT_EQ(s.res.status, 0) << s.err;
  EXPECT_EQ(s.res.passes, 3);
  EXPECT_NE(s.out.find("Pedigree order: 2 records placed after their parents"), std::string::npos);
  for (int r = 0; r < 4; ++r) EXPECT_EQ(std::string(s.ped[r]), "g" + std::to_string(r));
  // Every row here has an unknown parent: a value of 1 or more is a number
  // of selfing generations and becomes 1 - 0.5^value; NA takes the default.
  EXPECT_DOUBLE_EQ(s.fgen[0], 0.875);
  EXPECT_DOUBLE_EQ(s.fgen[1], 0.25);
  EXPECT_DOUBLE_EQ(s.fgen[2], 0.75);
  EXPECT_DOUBLE_EQ(s.fgen[3], 0.125);
  // Both parents known: the value is kept, NA included.
  s = run_pdsort({"a", "b", "c"}, {"a", "b", "c", "0", "0", "a", "0", "0", "b"}, {NAN, 0, NAN}, 0.5);
  EXPECT_TRUE(std::isnan(s.fgen[2]));
  EXPECT_EQ(s.fgen[0], 0.5);
  EXPECT_EQ(s.fgen[1], 0.0);

  // Integer codes: the same with 1-based codes, and no conversion when the
  // default is NA; an NA value of a row with an unknown parent takes fg.
  std::vector<const char*> lv = {"g3", "g2", "g1", "g0"};
  std::vector<int> ped = {1, 2, 3, 4, 2, 3, 4, 0, 0, 0, 0, 0};
  std::vector<double> f = {0.5, 2.0, NAN, 3.0};
  std::string err;
  PedigreeSortResult r = sortpedigree(4, 4, span<const char* const>(lv.data(), 4),
                                      span<int>(ped.data(), ped.size()),
                                      span<double>(f.data(), f.size()), NAN, err);
  ASSERT_EQ(r.status, 0) << err;
  EXPECT_EQ(ped, (std::vector<int>{4, 3, 2, 1, 0, 4, 3, 2, 0, 0, 0, 0}));
  EXPECT_DOUBLE_EQ(f[0], 3.0);
  EXPECT_TRUE(std::isnan(f[1]));
  ped = {1, 2, 0, 2, 0, 0};  // inserted nothing; code 0 as an individual
  r = sortpedigree(2, 2, span<const char* const>(lv.data(), 2), span<int>(ped.data(), 6),
                   span<double>(f.data(), 1), NAN, err);
  EXPECT_EQ(r.status, 1);
}

// A long chain listed youngest first, with a founder parent lacking a
// record and a second family mixed in: three passes, every parent before
// its progeny, the records of each line in order.
TEST(PedigreeSort, LongChainListedOffspringFirst) {
  const int depth = 20000;
  std::vector<std::string> names;
  for (int k = 0; k < depth; ++k) names.push_back("c" + std::to_string(k));
  names.push_back("root");
  names.push_back("x");
  std::vector<const char*> lv;
  for (auto& n : names) lv.push_back(n.c_str());
  const int lped = depth + 1, nan = depth + 2;
  // Codes from 1, youngest first (so that moving to the front in code
  // order fixes one level a pass): code j + 1 is the sire of code j; the
  // oldest, code depth, has the sire root = depth + 1; x = depth + 2.
  std::vector<int> ped(3 * static_cast<std::size_t>(nan), 0);
  for (int r = 0; r < depth; ++r) {
    ped[r] = r + 1;
    ped[nan + r] = r + 2;
  }
  ped[depth] = depth + 2;  // x, a child of c0 and c(depth-1)
  ped[nan + depth] = 1;
  ped[2 * nan + depth] = depth;
  std::vector<double> f(nan, -1);
  std::string err;
  tarnel_test::capture_begin();
  const PedigreeSortResult r = sortpedigree(lped, nan, span<const char* const>(lv.data(), lv.size()),
                                            span<int>(ped.data(), ped.size()),
                                            span<double>(f.data(), f.size()), NAN, err);
  tarnel_test::capture_end();
  ASSERT_EQ(r.status, 0) << err;
  EXPECT_EQ(r.passes, 3);
  std::vector<int> pos(nan + 1, -1);
  for (int k = 0; k < nan; ++k) pos[ped[k]] = k;
  for (int k = 0; k < nan; ++k)
    for (int c = 1; c < 3; ++c)
      if (ped[c * nan + k] > 0) {
        EXPECT_LT(pos[ped[c * nan + k]], k);
      }
  EXPECT_EQ(ped[0], depth + 1);  // the inserted root first
}

TEST(PedigreeSort, CyclesDuplicatesAndUnknownIdentitiesAreErrors) {
  // c descends from the cycle a -> b -> a but is not on it.
  Sorted s = run_pdsort({"c", "a", "b"}, {"c", "a", "b", "a", "b", "a", "0", "0", "0"});
  ASSERT_EQ(s.res.status, 1);
  ASSERT_TRUE(s.res.cycle == 1 || s.res.cycle == 2);
  EXPECT_NE(s.err.find("cycle"), std::string::npos);
  EXPECT_NE(s.err.find(s.res.cycle == 1 ? "\"a\"" : "\"b\""), std::string::npos);

  s = run_pdsort({"a", "b"}, {"a", "a", "0", "0", "0", "0"});
  EXPECT_EQ(s.res.status, 1);
  EXPECT_EQ(s.err, "Pedigree individual \"a\" has more than one record\n");
  s = run_pdsort({"a", "b", "z"}, {"a", "b", "0", "0", "0", "0"});
  EXPECT_EQ(s.err, "nrow(pedigree)+insertions != number of individuals\n");
  s = run_pdsort({"a"}, {"a", "w", "0"});
  EXPECT_EQ(s.res.status, 1);
}

TEST(PedigreeSort, QuickSortBinarySearchAndPmat) {
  // Sorted, reversed and shuffled identities, checked against std::sort.
  const int n = 50000;
  std::vector<std::string> names(n);
  for (int k = 0; k < n; ++k) {
    char b[16];
    std::snprintf(b, sizeof b, "id%07d", k);
    names[k] = b;
  }
  std::mt19937 g(3);
  for (int variant = 0; variant < 3; ++variant) {
    std::vector<std::string> v = names;
    if (variant == 1) std::reverse(v.begin(), v.end());
    if (variant == 2) std::shuffle(v.begin(), v.end(), g);
    Strs p;
    for (auto& x : v) p.push_back(x.c_str());
    std::vector<int> order(n);
    for (int k = 0; k < n; ++k) order[k] = k;
    Quick_sort(0, n - 1, span<const char* const>(p.data(), n), span<int>(order.data(), n));
    for (int k = 0; k < n; ++k) ASSERT_EQ(v[order[k]], names[k]);
    for (int k = 0; k < n; k += 997)
      EXPECT_EQ(binarySearch(span<const char* const>(p.data(), n), span<const int>(order.data(), n),
                             0, n - 1, names[k].c_str()),
                order[k]);
    EXPECT_EQ(binarySearch(span<const char* const>(p.data(), n), span<const int>(order.data(), n), 0,
                           n - 1, "zz"),
              -1);
  }

  Strs ped = {"b", "a", "c", "0", "0", "b", "0", "0", "a"};
  std::vector<int> pm(6, -1), idx(3, -1);
  std::string err;
  ASSERT_EQ(pmat(span<const char* const>(ped.data(), 9), 3, span<int>(pm.data(), 6),
                 span<int>(idx.data(), 3), 3, err),
            0);
  EXPECT_EQ(pm, (std::vector<int>{0, 0, 1, 0, 0, 2}));
  EXPECT_EQ(idx, (std::vector<int>{2, 1, 3}));
  ped[5] = "q";
  EXPECT_EQ(pmat(span<const char* const>(ped.data(), 9), 3, span<int>(pm.data(), 6),
                 span<int>(idx.data(), 3), 3, err),
            1);
  EXPECT_EQ(err, "Programming error: Missing individuals in pmat\n");
}

TEST(RelationshipInverse, MatchesDenseInverseOfTabularA) {
  const std::vector<i32> plist = random_pedigree(60, 11);
  Inverse v;
  run_inverse(v, plist);
  ASSERT_EQ(v.status, 0) << message_text(0);
  const int n = 60;
  const std::vector<double> A = tabular(plist), Ai = dense_from(v);
  EXPECT_LT(vtest::max_abs_diff(vtest::matmul(A, Ai, n), vtest::identity(n)), 1e-10);
  // Inbreeding is diag(A) - 1; the log determinant is that of A.
  EXPECT_NEAR(v.a.det, vtest::log_abs_det(A, n), 1e-9);
  for (int i = 1; i <= n; ++i) EXPECT_NEAR(v.inb[i], A[(i - 1) * n + (i - 1)] - 1, 1e-12);
  // Triples: rows in order, columns ascending within a row, diagonal last.
  for (i64 k = 0; k < v.linv; ++k) {
    const double r = v.ginv[3 * k], c = v.ginv[3 * k + 1];
    EXPECT_LE(c, r);
    const bool last_of_row = k + 1 == v.linv || v.ginv[3 * (k + 1)] != r;
    if (last_of_row) {
      EXPECT_EQ(c, r);
    } else {
      EXPECT_LT(c, v.ginv[3 * (k + 1) + 1]);
    }
  }
  EXPECT_EQ(v.linv, v.a.NEXT);
}

// The band of A and the ancestor walk give the same inverse, inbreeding
// and log determinant on deep overlapping generations (parents up to `lag`
// rows back, some unknown, some selfed), under the standard method, the
// maternal grandsire and partial selfing; the choice left to g5vaig takes
// the band on such a pedigree and the walk on a shallow one.
TEST(RelationshipInverse, BandEqualsAncestorWalk) {
  const int n = 4000, lag = 150;
  std::mt19937 rng(7);
  std::vector<i32> plist(2 * n, 0);
  for (int i = 1; i <= n; ++i) {
    if (i <= lag) continue;
    std::uniform_int_distribution<int> back(1, lag);
    plist[2 * (i - 1)] = i - back(rng);
    plist[2 * (i - 1) + 1] = rng() % 10 == 0 ? 0 : (rng() % 50 == 0 ? plist[2 * (i - 1)] : i - back(rng));
  }
  EXPECT_EQ(pedigree_lag(span<const i32>(plist.data(), plist.size()), n), lag);
  for (int variant = 0; variant < 3; ++variant) {
    AinvOptions o;
    o.mgs = variant == 1;
    o.pself = variant == 2 ? 0.3 : 0.0;
    o.inbreeding_method = 1;
    Inverse walk, band, chosen;
    run_inverse(walk, plist, o);
    o.inbreeding_method = 2;
    o.band_lag = g5vaig_band_lag(span<const i32>(plist.data(), plist.size()), n, o);
    run_inverse(band, plist, o);
    o.inbreeding_method = 0;
    run_inverse(chosen, plist, o);
    ASSERT_EQ(walk.status, 0);
    ASSERT_EQ(band.status, 0);
    EXPECT_EQ(walk.a.band_used, 0);
    EXPECT_EQ(band.a.band_used, 1);
    EXPECT_EQ(chosen.a.band_used, 1);
    double df = 0, fmax = 0;
    for (int i = 1; i <= n; ++i) {
      df = std::max(df, std::fabs(walk.inb[i] - band.inb[i]));
      fmax = std::max(fmax, walk.inb[i]);
    }
    EXPECT_GT(fmax, 0.05);
    EXPECT_LT(df, 1e-12);
    EXPECT_NEAR(walk.a.det, band.a.det, 1e-9);
    ASSERT_EQ(walk.linv, band.linv);
    for (i64 k = 0; k < 3 * walk.linv; ++k) ASSERT_NEAR(walk.ginv[k], band.ginv[k], 1e-10);
  }
  // A shallow pedigree: two generations; the walk is cheaper and stays.
  std::vector<i32> shallow(2 * n, 0);
  for (int i = n / 2 + 1; i <= n; ++i) {
    shallow[2 * (i - 1)] = 1 + static_cast<i32>(rng() % (n / 2));
    shallow[2 * (i - 1) + 1] = 1 + static_cast<i32>(rng() % (n / 2));
  }
  AinvOptions o;
  o.band_lag = g5vaig_band_lag(span<const i32>(shallow.data(), shallow.size()), n, o);
  Inverse sh;
  run_inverse(sh, shallow, o);
  EXPECT_EQ(sh.status, 0);
  EXPECT_EQ(sh.a.band_used, 0);
}

TEST(RelationshipInverse, FaultsLeaveClearTextsAndNeverWritePastTheStore) {
  const std::vector<i32> plist = random_pedigree(40, 5);
  Inverse v;
  run_inverse(v, plist, {}, {}, 41);  // one slot short of plenty
  EXPECT_EQ(v.status, 1);
  EXPECT_EQ(v.a.ifault, kAinvPoolFull);
  EXPECT_GT(v.a.where, 0);
  EXPECT_EQ(v.a.NEXT, 41);

  run_inverse(v, {0, 0, 3, 0, 0, 0});  // a parent after its row
  EXPECT_EQ(v.a.ifault, kAinvBadParent);
  EXPECT_EQ(message_text(0), "Pedigree row 2: a parent does not come before its progeny");

  AinvOptions x;
  x.xlink = 1;
  run_inverse(v, {0, 0, 0, 0, 1, 2}, x, {1, 2, 3});
  EXPECT_EQ(v.a.ifault, kAinvBadSex);
  EXPECT_EQ(v.a.where, 3);
  run_inverse(v, {0, 0, 0, 0, 2, 1}, x, {1, 2, 2});
  EXPECT_EQ(v.a.ifault, kAinvSexMismatch);

  AinvOptions lines;
  lines.ibl = 1;
  run_inverse(v, {0, 0, 1, 1}, lines);
  EXPECT_EQ(v.a.ifault, kAinvLineParents);

  AinvOptions grp;
  grp.ngrp = 1;
  run_inverse(v, {0, 0, 0, 1}, grp);
  EXPECT_EQ(v.a.ifault, kAinvGroupParent);
}

TEST(RelationshipInverse, EmptyGroupsGiveMessagesAndConstraints) {
  // Groups 1..4; only groups 1 and 2 have progeny.  Group 3 closes the run
  // 1..2 with a constraint; group 4 follows an empty group at once.
  AinvOptions o;
  o.ngrp = 4;
  o.method = 0;
  const std::vector<i32> plist = {0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 1, 2, 5, 6};
  Inverse v;
  run_inverse(v, plist, o);
  ASSERT_EQ(v.status, 0) << message_text(0);
  EXPECT_EQ(v.a.empty_groups, 2);
  EXPECT_EQ(v.a.constraints, 1);
  EXPECT_EQ(message_text(0), "Empty Genetic Group 3 generated a Constraint");
  EXPECT_EQ(message_text(1), "Empty Genetic Group 4");
  const std::vector<double> m = dense_from(v);
  const int n = 7;
  EXPECT_EQ(m[2 * n + 0], 1.0);  // row 3 links groups 1 and 2 with 1
  EXPECT_EQ(m[2 * n + 1], 1.0);
  EXPECT_EQ(m[2 * n + 2], 0.0);
  EXPECT_EQ(m[3 * n + 3], 0.0);

  // Without the constraint option both are plain messages.
  o.method = -1;
  run_inverse(v, plist, o);
  EXPECT_EQ(message_text(0), "Empty Genetic Group 3");
  EXPECT_EQ(v.a.constraints, 0);
}
